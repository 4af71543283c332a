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

constexpr const char* kProgramInC = R"(
#include <quorvane/quorvane.h>
#include <stdio.h>

int main(int count, char** arguments) {
    QuorvaneClientOptions* options = quorvane_client_options_new();
    quorvane_client_options_set_socket_path(options, arguments[count - 1]);
    QuorvaneClient* client = NULL;
    char* message = NULL;
    if (quorvane_client_connect(options, &client, &message) != QUORVANE_OK) return puts(message), 1;
    puts("linked");
    quorvane_client_free(client);
    quorvane_client_options_free(options);
    return 0;
}
)";

/// The library installed in a folder of its own, and a program outside the tree that uses it.
class Install : public testing::Test {
  protected:
    void SetUp() override {
        std::ofstream(folder / "program.cpp") << kProgram;
        std::ofstream(folder / "program.c") << kProgramInC;
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

    /// Builds the program in the language with CMake; its path.
    std::string built(const std::string& language, const std::string& compiler, const std::string& source) {
        const std::string build = (folder / language).string();
        std::ofstream(folder / "CMakeLists.txt") << "cmake_minimum_required(VERSION 3.25)\n"
                                                 << "project(outside LANGUAGES " << language << ")\n"
                                                 << "find_package(quorvane 7 REQUIRED)\n"
                                                 << "add_executable(program " << source << ")\n"
                                                 << "target_link_libraries(program quorvane::quorvane)\n";
        succeed({QUORVANE_CMAKE, "-S", folder.string(), "-B", build, "-G", "Ninja",
                 "-DCMAKE_PREFIX_PATH=" + prefix.string(), "-DCMAKE_" + language + "_COMPILER=" + compiler,
                 "-DCMAKE_" + language + "_FLAGS=" QUORVANE_COMPILER_FLAGS});
        succeed({QUORVANE_CMAKE, "--build", build});
        return build + "/program";
    }

    const fs::path folder = makeFolder();
    const fs::path prefix = folder / "prefix";
    BusPeer peer{[](sd_bus_message*) { return 1; }};
};

TEST_F(Install, AProgramFindsTheLibraryThroughItsCMakePackage) {
    EXPECT_EQ(succeed({built("CXX", QUORVANE_COMPILER, "program.cpp"), peer.path()}), "{linked = 1;}\n");
    EXPECT_EQ(succeed({built("C", QUORVANE_C_COMPILER, "program.c"), peer.path()}), "linked\n");
}

TEST_F(Install, AProgramFindsTheLibraryThroughPkgConfigWhereverItWasMoved) {
    const fs::path moved = folder / "moved";
    fs::rename(prefix, moved);
    const std::string library = (moved / QUORVANE_LIBRARY_FOLDER).string();
    const auto output = [&](const std::string& compiler, const std::string& source, const char* package) {
        const std::string program = (folder / package).string();
        succeed({"/bin/sh", "-c",
                 compiler + " " QUORVANE_COMPILER_FLAGS " -o '" + program + "' '" +
                     (folder / source).string() + "' $(pkg-config --cflags --libs " + package + ")"},
                {{"PKG_CONFIG_PATH", library + "/pkgconfig"}});
        return succeed({program, peer.path()}, {{"LD_LIBRARY_PATH", library}});
    };
    EXPECT_EQ(output(QUORVANE_COMPILER, "program.cpp", "quorvane"), "{linked = 1;}\n");
    const std::string c = QUORVANE_C_COMPILER " -std=c11 -Wall -Wextra -pedantic -Werror";
    EXPECT_EQ(output(c, "program.c", "quorvane-c"), "linked\n");
}

TEST_F(Install, PythonFindsTheLibraryBesideItsPackage) {
    if (std::string(QUORVANE_COMPILER_FLAGS) != "") GTEST_SKIP() << "a sanitizer's library has to be first";
    EXPECT_EQ(succeed({"/usr/bin/python3", "-c", "import quorvane; print(quorvane.version())"},
                      {{"PYTHONPATH", (prefix / "lib/python3/dist-packages").string()}}),
              "7.0.0\n");
}

}  // namespace
}  // namespace quorvane::test
