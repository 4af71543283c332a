#include "tests/storebag/StorebagFixture.h"

#include "platform/Clock.h"
#include "platform/PropertyList.h"
#include "tools/storebag/SignStorebag.h"
#include "util/Environment.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <utility>

namespace quorvane {

namespace {

constexpr std::int64_t kMicroseconds = 1'000'000;
constexpr std::int64_t kClockStart = 1'760'000'000 * kMicroseconds + 250'000;

std::atomic<std::int64_t> clockNow{kClockStart};

platform::TimeValue standingClock() {
    const std::int64_t now = clockNow;
    return {now / kMicroseconds, static_cast<std::int32_t>(now % kMicroseconds)};
}

std::mutex linesGuard;
std::vector<std::string> keptLines;

void keepLine(platform::LogLevel level, std::string_view line) {
    const std::scoped_lock lock(linesGuard);
    keptLines.push_back(fmt::format("<{}>{}", static_cast<int>(level), line));
}

std::string text(const Data& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::filesystem::path makeRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvane-root-XXXXXX").string();
    std::filesystem::path root = ::mkdtemp(pattern.data());
    ::setenv("QUORVANE_ROOT", root.c_str(), 1);
    return root;
}

}  // namespace

struct StorebagFixture::Device {
    ~Device() { std::filesystem::remove_all(root); }

    std::filesystem::path root = makeRoot();
    test::HttpsServer server{root};
    std::unique_ptr<tools::SigningKey> key = tools::SigningKey::generate();
};

StorebagFixture::Device& StorebagFixture::device() {
    static Device device;
    return device;
}

void StorebagFixture::SetUp() {
    writeFile("etc/quorvane/defaults/com.velmora.quorvane.toml",
              "quorvane_storebag_url = \"" + server().url("/bags") + "\"\n");
    installPublicKey(text(key().publicDER()));
    installBundleVersion("7.1");
    replaceEnvironmentType(EnvironmentType::Release);
    clockNow = kClockStart;
    platform::replaceClock(standingClock);
    answer("");
    server().forgetRequests();
    forgetLines();
    platform::setLogSink(keepLine);
}

void StorebagFixture::TearDown() {
    platform::setLogSink(nullptr);
    platform::replaceClock(nullptr);
}

test::HttpsServer& StorebagFixture::server() {
    return device().server;
}

const tools::SigningKey& StorebagFixture::key() {
    return *device().key;
}

void StorebagFixture::writeFile(const std::string& path, std::string_view content) {
    const std::filesystem::path file = device().root / path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

void StorebagFixture::removeFile(const std::string& path) {
    std::filesystem::remove(device().root / path);
}

void StorebagFixture::installPublicKey(std::string_view der) {
    writeFile("usr/share/quorvane/framework/publicKey.der", der);
}

void StorebagFixture::installBundleVersion(const std::string& version) {
    writeFile("usr/share/quorvane/framework/Info.plist",
              text(*platform::binaryPropertyList(Dictionary{{"CFBundleVersion", version}})));
}

void StorebagFixture::answer(std::string body, std::vector<std::pair<std::string, std::string>> headers,
                             int status) {
    headers.emplace_back("Connection", "close");
    server().answerWith({status, std::move(headers), std::move(body)});
}

void StorebagFixture::answerTooMuch() {
    answer(std::string((16u << 20) + 1, ' '), {{"Cache-Control", "max-age=5"}, {"Last-Modified", "now"}});
}

std::string StorebagFixture::signedBag(const Dictionary& bag) {
    return text(*tools::signStorebag(bag, key()));
}

std::string StorebagFixture::envelope(const Dictionary& entries) {
    return text(*platform::xmlPropertyList(entries));
}

Dictionary StorebagFixture::entriesOf(const std::string& envelope) {
    const auto parsed = platform::parsePropertyList(
        {reinterpret_cast<const std::uint8_t*>(envelope.data()), envelope.size()});
    return *std::get<Value>(parsed).dictionary();
}

void StorebagFixture::advanceClock(std::chrono::microseconds by) {
    clockNow += by.count();
}

std::vector<std::string> StorebagFixture::lines() {
    std::vector<std::string> kept = allLines();
    std::erase_if(kept, [](const std::string& line) { return line.starts_with("<7>"); });
    return kept;
}

std::vector<std::string> StorebagFixture::allLines() {
    const std::scoped_lock lock(linesGuard);
    return keptLines;
}

void StorebagFixture::forgetLines() {
    const std::scoped_lock lock(linesGuard);
    keptLines.clear();
}

}  // namespace quorvane
