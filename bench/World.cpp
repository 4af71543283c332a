#include "bench/World.h"

#include "bench/Folders.h"
#include "bench/Load.h"
#include "bench/Sending.h"
#include "framework/Keys.h"
#include "tools/storebag/SignStorebag.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

void write(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Reports to the collector for whoever asks; two short texts of each event are hashed.
Dictionary httpsProfile(const CountingServer& collector, int hierarchy) {
    Dictionary entry{{"post_url", collector.url("/post")},
                     {"realtime_post_url", collector.url("/realtime")},
                     {"hierarchy", hierarchy},
                     {"locale_whitelist", Array{"US"}},
                     {"filters", hashingFilters()},
                     {"sampling_threshold", 1.0},
                     {"event_threshold", kBatchSize}};
    return {{"clients", Array{Value(std::move(entry))}}};
}

Dictionary storebag(std::string_view backend, Dictionary profile) {
    Dictionary section;
    section.set(backend, std::move(profile));
    return {{"release", std::move(section)}, {"version", "1"}, {"refresh_cycle", 86400}};
}

}  // namespace

std::uint64_t arrivingEvents(std::uint64_t sent) {
    // The first batch is one larger: the count of held events starts with the event given up before.
    const std::uint64_t beforeFirstPost = kBatchSize + 1;
    if (sent <= beforeFirstPost) return sent;
    const std::uint64_t givenUp = 1 + (sent - beforeFirstPost - 1) / (kBatchSize + 1);
    return sent - givenUp;
}

UserInfo userInfo(const std::string& serviceName) {
    return {.clientName = "Mail", .serviceName = serviceName};
}

World::World() : _root(makeFolder()), _collector(std::make_unique<CountingServer>(_root)) {
    install();
    publishStorebags();
    start();
}

World::~World() {
    if (_daemon) _daemon->terminate();
    _daemon.reset();
    _collector.reset();
    std::error_code ignored;
    std::filesystem::remove_all(_root, ignored);
}

void World::install() {
    const std::filesystem::path packaging = QUORVANE_PACKAGING_FOLDER;
    const std::filesystem::path shared = _root / "usr/share/quorvane";
    std::filesystem::create_directories(shared);
    for (const char* folder : {"framework", "sandbox"})
        std::filesystem::copy(packaging / folder, shared / folder, std::filesystem::copy_options::recursive);
    for (const char* folder :
         {"run/quorvane", "usr/lib/quorvane", "var/lib/quorvane", "var/mobile/Library/Logs/Faultrel/Retired"})
        std::filesystem::create_directories(_root / folder);
    write(_root / "etc/quorvane/consent.toml", "diagnostics_submission = true\n");
    write(_root / "etc/quorvane/device.toml",
          "UniqueDeviceID = \"00008110-001a2b3c4d5e6f70\"\nProductType = \"Quorum12,1\"\n"
          "ProductVersion = \"12.4\"\nBuildVersion = \"24E214\"\nDeviceName = \"Reception desk\"\n");
    write(_root / "etc/quorvane/defaults/com.velmora.quorvane.toml",
          fmt::format("quorvane_storebag_url = \"{}\"\n", _collector->url("/bags")));
}

void World::publishStorebags() {
    const auto key = tools::SigningKey::generate();
    const Data der = key->publicDER();
    write(_root / "usr/share/quorvane/framework/publicKey.der",
          {reinterpret_cast<const char*>(der.data()), der.size()});
    const auto publish = [&](const char* name, const Dictionary& bag) {
        const auto envelope = tools::signStorebag(bag, *key);
        if (!envelope) throw std::runtime_error("a storebag cannot be signed");
        _collector->serve(std::string("/bags/") + name, *envelope);
    };
    publish("pelmark", storebag(kQuorvaneBackendHTTPPost, httpsProfile(*_collector, 0)));
    publish("stremcore", storebag(kQuorvaneBackendHTTPPost, httpsProfile(*_collector, 1)));
    publish("vistabox", storebag(kQuorvaneBackendUploadServer, {{"post_url", _collector->url("/upload")}}));
}

void World::start() {
    _daemon = test::ChildProcess::start(
        {programPath("quorvaned")},
        {{"QUORVANE_ROOT", _root.string()}, {"QUORVANE_LOG", "stderr:info"}, {"LC_ALL", "en_US.UTF-8"}});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (_daemon && _daemon->running() && std::chrono::steady_clock::now() < deadline) {
        if (Client::connect({.socketPath = socketPath()})) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("quorvaned does not start: " + (_daemon ? _daemon->errors() : std::string()));
}

std::string World::socketPath() const {
    return _root.string() + kQuorvaneSocketPath;
}

Client World::openSession(const SessionSetup& setup) {
    Client client = orDie(Client::connect({.socketPath = socketPath()}), "connect");
    const SessionInfo sessionInfo{.sessionID = _nextSessionID++,
                                  .clientType = static_cast<std::uint32_t>(setup.profile),
                                  .clientVersion = 3,
                                  .batchEvent = setup.batch,
                                  .requireUserInfo = true};
    orDie(client.setSessionInfo(sessionInfo, userInfo(setup.serviceName), {}, setup.aggregationBlock),
          "set up");
    const ReportingStates states = orDie(client.start(), "start");
    if (!states || states->empty()) die("session does not report", _daemon->errors());
    return client;
}

}  // namespace quorvane::bench
