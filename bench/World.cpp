#include "bench/World.h"

#include "bench/Die.h"
#include "bench/Load.h"
#include "framework/Keys.h"

#include <string_view>
#include <utility>

namespace quorvane::bench {

namespace {

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

Dictionary section(std::string_view backend, Dictionary profile) {
    Dictionary section;
    section.set(backend, std::move(profile));
    return section;
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

World::World(test::DaemonFixture::Environment environment) : _collector(_device.root()) {
    _device.write("etc/quorvane/device.toml",
                  "UniqueDeviceID = \"00008110-001a2b3c4d5e6f70\"\nProductType = \"Quorum12,1\"\n"
                  "ProductVersion = \"12.4\"\nBuildVersion = \"24E214\"\nDeviceName = \"Hall desk\"\n");
    _device.serveStorebag(section(kQuorvaneBackendHTTPPost, httpsProfile(_collector, 0)), "pelmark");
    _device.serveStorebag(section(kQuorvaneBackendHTTPPost, httpsProfile(_collector, 1)), "stremcore");
    _device.serveStorebag(section(kQuorvaneBackendUploadServer, {{"post_url", _collector.url("/upload")}}),
                          "vistabox");
    // Lines below this level are not even formatted on devices.
    environment.emplace("QUORVANE_LOG", "stderr:info");
    _device.start(environment);
}

SessionInfo World::nextSession(const SessionSetup& setup) {
    return {.sessionID = _nextSessionID++,
            .clientType = static_cast<std::uint32_t>(setup.profile),
            .clientVersion = 3,
            .batchEvent = setup.batch,
            .requireUserInfo = true};
}

Client World::openSession(const SessionSetup& setup) {
    Client client = _device.connect();
    orDie(client.setSessionInfo(nextSession(setup), userInfo(setup.serviceName), {}, setup.aggregationBlock),
          "set up");
    const ReportingStates states = orDie(client.start(), "start");
    if (!states || states->empty()) die("session does not report", _device.daemon().errors());
    return client;
}

ReporterOptions World::reporterOptions(const SessionSetup& setup) {
    return {.sessionInfo = nextSession(setup),
            .userInfo = userInfo(setup.serviceName),
            .socketPath = socketPath()};
}

}  // namespace quorvane::bench
