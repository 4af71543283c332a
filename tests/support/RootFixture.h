#pragma once

#include "platform/Log.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

/// A device in a temporary folder, which QUORVANE_ROOT names; log lines are kept.
class RootFixture : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvane-root-XXXXXX").string();
        _root = ::mkdtemp(pattern.data());
        ::setenv("QUORVANE_ROOT", _root.c_str(), 1);
        lines().clear();
        platform::setLogSink([](platform::LogLevel level, std::string_view line) {
            const std::scoped_lock lock(linesGuard());
            lines().push_back(fmt::format("<{}>{}", static_cast<int>(level), line));
        });
    }

    void TearDown() override {
        platform::setLogSink(nullptr);
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

    /// How many lines written so far hold the text; each starts with its level, as in "<4>".
    static std::size_t logged(const std::string& text) {
        const std::scoped_lock lock(linesGuard());
        return static_cast<std::size_t>(std::count_if(lines().begin(), lines().end(), [&](const auto& line) {
            return line.find(text) != std::string::npos;
        }));
    }

    std::filesystem::path _root;

  private:
    static std::vector<std::string>& lines() {
        static std::vector<std::string> kept;
        return kept;
    }
    static std::mutex& linesGuard() {
        static std::mutex guard;
        return guard;
    }
};

}  // namespace quorvane
