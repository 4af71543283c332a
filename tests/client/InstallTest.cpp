#include "tests/client/ClientFixture.h"
#include "tests/support/ChildProcess.h"

#include <filesystem>
#include <fstream>

namespace quorvane::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProgram = R"(
#include <quorvane/Client.h>
#include <quorvane/Reporter.h>
#include <cstdio>
#include <type_traits>

int main(int, char** arguments) {
    const auto client = quorvane::Client::connect({.socketPath = arguments[1]});
    if (!client) return std::puts(client.error().message.c_str()), 1;
    static_assert(!std::is_constructible_v<quorvane::Value, const unsigned char*>);
    std::puts(quorvane::Dictionary{{"linked", true}}.description().c_str());
}
)";

constexpr const char* kProject = R"(
cmake_minimum_required(VERSION 3.25)
project(outside LANGUAGES CXX)
find_package(quorvane 7 REQUIRED)
add_executable(program program.cpp)
target_link_libraries(program PRIVATE quorvane::quorvane)
)";

/// The library installed in a folder of its own, and a program outside the tree that uses it.
class Install : public testing::Test {
  protected:
    void SetUp() override {
        std::ofstream(folder / "program.cpp") << kProgram;
        std::ofstream(folder / "CMakeLists.txt") << kProject;
        succeed({QUORVANE_CMAKE, "--install", QUORVANE_BUILD_FOLDER, "--component", "libquorvane", "--prefix",
                 prefix.string()});
    }

    ~Install() override { fs::remove_all(folder); }

    static std::string succeed(const std::vector<std::string>& command,
                               const std::map<std::string, std::optional<std::string>>& environment = {}) {
        const ProgramResult result = runProgram(command, environment);
        EXPECT_EQ(result.status, 0) << command[0] << '\n' << result.output << result.errors;
        return result.output;
    }

    const fs::path folder = makeFolder();
    const fs::path prefix = folder / "prefix";
    BusPeer peer{[](sd_bus_message*) { return 1; }};
};

TEST_F(Install, AProgramFindsTheLibraryThroughItsCMakePackage) {
    const std::string build = (folder / "build").string();
    succeed({QUORVANE_CMAKE, "-S", folder.string(), "-B", build, "-G", "Ninja",
             "-DCMAKE_PREFIX_PATH=" + prefix.string(), "-DCMAKE_CXX_COMPILER=" QUORVANE_COMPILER,
             "-DCMAKE_CXX_FLAGS=" QUORVANE_COMPILER_FLAGS});
    succeed({QUORVANE_CMAKE, "--build", build});
    EXPECT_EQ(succeed({build + "/program", peer.path()}), "{linked = 1;}\n");
}

TEST_F(Install, AProgramFindsTheLibraryThroughPkgConfigWhereverItWasMoved) {
    const fs::path moved = folder / "moved";
    fs::rename(prefix, moved);
    const std::string library = (moved / QUORVANE_LIBRARY_FOLDER).string();
    const std::string program = (folder / "program").string();
    succeed({"/bin/sh", "-c",
             QUORVANE_COMPILER " " QUORVANE_COMPILER_FLAGS " -o \"$PROGRAM\" \"$SOURCE\" "
                               "$(pkg-config --cflags --libs quorvane)"},
            {{"PROGRAM", program},
             {"SOURCE", (folder / "program.cpp").string()},
             {"PKG_CONFIG_PATH", library + "/pkgconfig"}});
    EXPECT_EQ(succeed({program, peer.path()}, {{"LD_LIBRARY_PATH", library}}), "{linked = 1;}\n");
}

}  // namespace
}  // namespace quorvane::test
