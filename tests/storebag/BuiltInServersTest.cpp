#include "storebag/FetchStorebag.h"

#include "platform/Log.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace quorvane {
namespace {

std::filesystem::path root;

/// Ends the process before anything is sent.
void endWithURL(platform::LogLevel, std::string_view line) {
    if (line.find("Storebag Server URL") == std::string_view::npos) return;
    std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    std::filesystem::remove_all(root);
    std::_Exit(0);
}

/// A fetch on a device without a setting for the server, in this process.
void fetchOnDevice(const std::string& deviceFacts) {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvane-root-XXXXXX").string();
    root = ::mkdtemp(pattern.data());
    std::filesystem::create_directories(root / "etc/quorvane");
    std::ofstream(root / "etc/quorvane/device.toml") << deviceFacts;
    ::setenv("QUORVANE_ROOT", root.c_str(), 1);
    platform::setLogSink(endWithURL);
    std::int32_t maxAge = 0;
    bool notModified = false;
    fetchStorebagWithName("tunewave", maxAge, notModified, nullptr);
}

// The server is settled once in a process, so each of these runs in one of its own.
TEST(BuiltInServersDeathTest, TheBuildDecidesWithoutASetting) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(fetchOnDevice(""), testing::ExitedWithCode(0),
                "fetchStorebagWithName: Storebag Server URL: https://" QUORVANE_STOREBAG_HOST
                "/bags/tamsel/tunewave.version=7.0\n");
    EXPECT_EXIT(fetchOnDevice("ReleaseType = \"Internal\"\n"), testing::ExitedWithCode(0),
                "fetchStorebagWithName: Storebag Server URL: https://" QUORVANE_INTERNAL_STOREBAG_HOST
                "/storebags/tamsel/tunewave.version=7.0\n");
}

}  // namespace
}  // namespace quorvane
