#include "tools/common/Files.h"

#include "platform/base/FileManager.h"
#include "tools/common/Failure.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <istream>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

constexpr std::size_t kLargestFile = 64u << 20;

[[noreturn]] void fail(const char* what, std::string_view path, int error) {
    throw Failure(fmt::format("cannot {} {}: {}", what, path, std::strerror(error)));
}

/// platform::readFile() does not wait for what a pipe brings later.
Data readToEnd(std::istream& stream, const std::string& path) {
    Data bytes;
    std::array<char, 1u << 16> piece{};
    errno = 0;
    while (stream.read(piece.data(), piece.size()) || stream.gcount() > 0) {
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + stream.gcount());
        if (bytes.size() > kLargestFile) fail("read", nameOfInput(path), EFBIG);
    }
    if (stream.bad()) fail("read", nameOfInput(path), errno != 0 ? errno : EIO);
    return bytes;
}

void writeToOutput(std::span<const std::uint8_t> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0)
        fail("write", "standard output", errno);
}

}  // namespace

Data readBytes(const std::string& path) {
    if (path == "-") return readToEnd(std::cin, path);
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("read", path, errno != 0 ? errno : EIO);
    return readToEnd(file, path);
}

void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode) {
    if (path == "-") return writeToOutput(bytes);
    // Replacing a device or a link would take it from whoever else uses it.
    std::error_code error;
    const auto status = std::filesystem::symlink_status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
        throw Failure(fmt::format("cannot write {}: it is not a regular file", path));
    if (!platform::replaceFile(path, bytes, mode)) fail("write", path, errno);
}

void writeNewFile(const std::string& path, std::span<const std::uint8_t> bytes, unsigned mode) {
    // Unlike rename(2), link(2) refuses where something is already.
    const std::string whole = fmt::format("{}.{}", path, ::getpid());
    const bool made = platform::replaceFile(whole, bytes, mode) && ::link(whole.c_str(), path.c_str()) == 0;
    const int error = made ? 0 : errno;
    platform::removeFile(whole);
    if (error != 0) fail("write", path, error);
}

std::string_view nameOfInput(const std::string& path) {
    return path == "-" ? std::string_view("standard input") : std::string_view(path);
}

}  // namespace quorvane::tools
