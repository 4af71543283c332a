#include "tests/support/DaemonFixture.h"

#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "platform/formats/Json.h"
#include "platform/value/Bytes.h"
#include "tests/support/BusClient.h"
#include "tests/support/Within.h"
#include "tools/storebag/SignStorebag.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace quorvane::test {

namespace {

constexpr std::string_view kBags = "/bags/";

const std::filesystem::path kPackaging = QUORVANE_PACKAGING;

std::filesystem::path newFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "quorvane-device-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    return name;
}

void copyInto(const std::filesystem::path& folder, const std::filesystem::path& file) {
    std::filesystem::create_directories(folder);
    std::filesystem::copy_file(file, folder / file.filename());
}

std::string joined(const char* variable, const std::string& option) {
    const char* value = std::getenv(variable);
    return value != nullptr ? std::string(value) + ":" + option : option;
}

}  // namespace

DaemonFixture::DaemonFixture()
    : _root(newFolder()), _key(tools::SigningKey::generate()), _server(std::make_unique<HttpsServer>(_root)) {
    const std::filesystem::path resources = _root / "usr/share/quorvane";
    copyInto(resources / "sandbox", kPackaging / "sandbox/com.velmora.quorvaned.toml");
    copyInto(resources / "framework", kPackaging / "framework/Info.plist");
    write("usr/share/quorvane/framework/publicKey.der", std::string(platform::textOf(_key->publicDER())));
    write("etc/quorvane/consent.toml", "diagnostics_submission = true\n");
    write("etc/quorvane/defaults/com.velmora.quorvane.toml",
          "quorvane_storebag_url = \"" + _server->url("/bags") + "\"\nenvironmentType = 4\n");
    _server->setHandler([this](const ServerRequest& request) { return answerTo(request); });
}

DaemonFixture::~DaemonFixture() {
    endDaemon();
    _server.reset();
    std::error_code ignored;
    std::filesystem::remove_all(_root, ignored);
}

std::string DaemonFixture::socketPath() const {
    return (_root / "run/quorvane/com.velmora.quorvaned").string();
}

void DaemonFixture::write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories((_root / path).parent_path());
    std::ofstream(_root / path, std::ios::binary) << text;
}

// The server.

void DaemonFixture::serveStorebag(const Dictionary& section, const std::string& name) {
    const Dictionary bag{{"release", section}, {"version", "7-test"}, {"refresh_cycle", 3600}};
    const auto signedBag = tools::signStorebag(bag, *_key);
    if (!signedBag) throw std::runtime_error("the bag cannot be signed");
    const std::lock_guard lock(_mutex);
    _storebags[name] = platform::textOf(*signedBag);
}

void DaemonFixture::answerPosts(HttpsServer::Handler answer) {
    const std::lock_guard lock(_mutex);
    _posts = std::move(answer);
}

ServerAnswer DaemonFixture::answerTo(const ServerRequest& request) {
    HttpsServer::Handler posts;
    {
        const std::lock_guard lock(_mutex);
        std::string_view name = request.target;
        if (name.starts_with(kBags)) {
            name.remove_prefix(kBags.size());
            auto found = _storebags.find(name.substr(0, name.find('?')));
            if (found == _storebags.end()) found = _storebags.find("");
            return found != _storebags.end() ? ServerAnswer{200, {}, found->second}
                                             : ServerAnswer{404, {}, {}};
        }
        posts = _posts;
    }
    return posts(request);
}

Dictionary DaemonFixture::httpPostSection(const Dictionary& clientEntry) const {
    Dictionary entry{{"post_url", _server->url("/post")},
                     {"realtime_post_url", _server->url("/realtime")},
                     {"locale_whitelist", Array{"US"}},
                     {"filters", Array{Value(Dictionary{{"key", "unused"}, {"action", "remove"}})}},
                     {"sampling_threshold", 1.0}};
    for (const auto& [key, value] : clientEntry) entry.set(key, value);
    return {{"httppost",
             Dictionary{{"clients", Array{Value(entry)}}, {"display_url", "https://display.example/show"}}}};
}

// The daemon.

std::optional<Dictionary> DaemonFixture::statistics() const {
    auto socket = connectSocket(socketPath());
    if (!socket) return std::nullopt;
    const BusReply reply = BusClient(std::move(socket)).call(kInspectionInterface, "GetStatistics");
    Dictionary statistics;
    if (reply.message.get() == nullptr || platform::readDictionary(reply.message.get(), statistics) < 0)
        return std::nullopt;
    return statistics;
}

void DaemonFixture::expectBalancedLedger() const {
    const auto told = statistics();
    if (!told) return;
    const Dictionary& events = *told->dictionary("events");
    std::uint64_t sum = 0;
    for (const char* place : {"posted", "refused", "failed", "underWay", "held", "dropped"})
        sum += events.unsignedInteger(place);
    if (events.unsignedInteger("accepted") == sum) return;
    std::cerr << "The ledger does not balance: " << told->description() << '\n';
    std::abort();
}

void DaemonFixture::endDaemon() {
    if (_daemon == nullptr) return;
    if (_daemon->running()) expectBalancedLedger();
    const std::string log = _daemon->errors();
    const auto reports = [&](const char* text) { return log.find(text) != std::string::npos; };
    if (_daemon->hasEndedUnasked() || reports("Sanitizer") || reports(": runtime error: ")) {
        std::cerr << log << "The daemon ended by itself, or a sanitizer complained of it.\n";
        std::abort();
    }
    _daemon.reset();
}

ChildProcess& DaemonFixture::launch(const Environment& environment) {
    Environment all{{"QUORVANE_ROOT", _root.string()},
                    {"QUORVANE_LOG", "stderr:debug"},
                    {"LC_ALL", "en_US.UTF-8"},
                    {"NOTIFY_SOCKET", std::nullopt},
                    {"LISTEN_FDS", std::nullopt},
                    // The sandbox keeps the leak check from stopping the other threads.
                    {"ASAN_OPTIONS", joined("ASAN_OPTIONS", "detect_leaks=0")}};
    for (const auto& [name, value] : environment) all.insert_or_assign(name, value);
    endDaemon();
    _daemon = ChildProcess::start({QUORVANE_DAEMON}, all);
    if (_daemon == nullptr) throw std::runtime_error("the daemon cannot be started");
    return *_daemon;
}

ChildProcess& DaemonFixture::start(const Environment& environment) {
    if (!launch(environment).waitForErrors("main: Listener resumes"))
        throw std::runtime_error("the daemon does not listen: " + _daemon->errors());
    return *_daemon;
}

Client DaemonFixture::connect(ConnectOptions options) const {
    options.socketPath = socketPath();
    auto client = Client::connect(std::move(options));
    if (!client) throw std::runtime_error("no connection: " + client.error().message);
    return std::move(*client);
}

Client DaemonFixture::startedClient(const SessionInfo& sessionInfo,
                                    const std::optional<UserInfo>& userInfo) const {
    Client client = connect();
    if (!client.setSessionInfo(sessionInfo, userInfo) || !client.start())
        throw std::runtime_error("the session cannot be started");
    return client;
}

// What was posted.

std::vector<Dictionary> DaemonFixture::postedEvents() const {
    std::vector<Dictionary> records;
    for (const ServerRequest& request : _server->requests()) {
        if (request.target.starts_with(kBags)) continue;
        const auto message = platform::parseJson(request.body);
        const Dictionary* envelope = message ? message->dictionary() : nullptr;
        const Array* events = envelope != nullptr ? envelope->array("events") : nullptr;
        if (events == nullptr) continue;
        for (const Value& event : *events)
            if (event.dictionary() != nullptr) records.push_back(*event.dictionary());
    }
    return records;
}

std::vector<Dictionary> DaemonFixture::postedEvents(std::uint16_t category) const {
    std::vector<Dictionary> records = postedEvents();
    std::erase_if(records, [=](const Dictionary& record) { return record.integer("_method") != category; });
    return records;
}

bool DaemonFixture::waitForEvents(std::uint16_t category, std::size_t count) const {
    return eventually([&] { return postedEvents(category).size() >= count; });
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    return within(limit, condition);
}

}  // namespace quorvane::test
