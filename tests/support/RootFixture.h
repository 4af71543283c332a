#pragma once

#include "platform/base/Clock.h"
#include "platform/base/Log.h"
#include "platform/base/SettledOnce.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane {

/// A device in a temporary folder, which QUORVANE_ROOT names; log lines are kept. A process reads the name of
/// the root once, so all tests of a process have the same one, which each finds empty. What else a process
/// settles once is settled anew in each test.
class RootFixture : public testing::Test {
  protected:
    RootFixture() {
        std::filesystem::create_directory(_root);
        ::setenv("QUORVANE_ROOT", _root.c_str(), 1);
        platform::settleAnewForTest();
        forgetLines();
        platform::setLogSink([](platform::LogLevel level, std::string_view line) {
            const std::scoped_lock lock(linesGuard);
            lines.push_back(fmt::format("<{}>{}", static_cast<int>(level), line));
        });
    }

    ~RootFixture() override {
        platform::setLogSink(nullptr);
        platform::replaceClock(nullptr);
        std::filesystem::remove_all(_root);
    }

    void write(const std::string& path, const std::string& text) const {
        std::filesystem::create_directories((_root / path).parent_path());
        std::ofstream(_root / path, std::ios::binary) << text;
    }

    std::string read(const std::string& path) const {
        std::ifstream file(_root / path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// The lines written so far; each starts with its level, as in "<4>".
    static std::vector<std::string> logLines() {
        const std::scoped_lock lock(linesGuard);
        return lines;
    }
    static void forgetLines() {
        const std::scoped_lock lock(linesGuard);
        lines.clear();
    }

    /// How many of them hold the text.
    static std::size_t logged(std::string_view text) {
        const auto all = logLines();
        return static_cast<std::size_t>(std::ranges::count_if(
            all, [&](const std::string& line) { return line.find(text) != std::string::npos; }));
    }

    /// Stops the clock until the test ends; it shows so many microseconds since 1970.
    static void setClock(std::int64_t microseconds) {
        clock = microseconds;
        platform::replaceClock([] {
            const std::int64_t at = clock;
            return platform::TimeValue{at / 1'000'000, static_cast<std::int32_t>(at % 1'000'000)};
        });
    }
    static void advanceClock(std::chrono::microseconds by) { clock += by.count(); }

    const std::filesystem::path _root = processRoot();

  private:
    static std::filesystem::path processRoot() {
        static const std::filesystem::path root = [] {
            std::string pattern = (std::filesystem::temp_directory_path() / "quorvane-root-XXXXXX").string();
            return std::filesystem::path(::mkdtemp(pattern.data()));
        }();
        return root;
    }

    static inline std::atomic<std::int64_t> clock = 0;
    static inline std::mutex linesGuard;
    /// Never destroyed: other threads may write lines until the process ends.
    inline static std::vector<std::string>& lines = *new std::vector<std::string>();
};

}  // namespace quorvane
