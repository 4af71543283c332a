// Sends events straight through the dashboard's and the power log's classes, in the form that sessions do not
// reach: as datagrams to a collector, which acknowledges them, and as entries of the power log.

#include "backends/CreateBackends.h"
#include "backends/DashboardBackend.h"
#include "backends/JoularyBackend.h"
#include "framework/Keys.h"
#include "framework/QuorvaneLogging.h"
#include "platform/base/Clock.h"
#include "util/DeviceFacts.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

using namespace quorvane;

struct Options {
    std::string ip = "127.0.0.1";
    std::uint16_t port = 0;
    unsigned reliable = 0;
    std::uint16_t count = 3;
};

std::shared_ptr<const Dictionary> storebagSection(const Options& options) {
    Dictionary dashboard{{"ip", options.ip}, {"port", options.port}};
    if (options.reliable > 0) dashboard.set("reliable", options.reliable);
    const auto section = std::make_shared<Dictionary>();
    section->set(kQuorvaneBackendDashboard, std::move(dashboard));
    section->set(kQuorvaneBackendJoulary, Dictionary());
    return section;
}

Dictionary sessionInfo() {
    Dictionary info;
    info.set(kQuorvaneSessionInfoSessionID, 300);
    info.set(kQuorvaneSessionInfoClientType, 5);
    info.set(kQuorvaneSessionInfoClientVersion, 1);
    return info;
}

template <typename Backend>
std::shared_ptr<Backend> find(const BackendDictionary& backends, std::string_view name) {
    const auto found = backends.find(name);
    return found != backends.end() ? std::dynamic_pointer_cast<Backend>(found->second) : nullptr;
}

/// Waits until fewer datagrams than that are left. There is an end to it: a datagram is given up in time, or
/// goes out as soon as the system takes it.
void awaitFewer(const DashboardBackend& dashboard, std::size_t bound) {
    using namespace std::chrono_literals;
    std::size_t waiting = bound;
    while (true) {
        dashboard.networkProcQueue().perform([&] { waiting = dashboard.messageQueue().size(); });
        if (waiting < bound) return;
        std::this_thread::sleep_for(5ms);
    }
}

/// Says what became of the datagrams; whether none was given up.
bool reportDelivery(const DashboardBackend& dashboard, const Options& options) {
    std::uint64_t givenUp = 0;
    dashboard.networkProcQueue().perform([&] { givenUp = dashboard.givenUp(); });
    if (givenUp > 0)
        std::cout << givenUp << " of " << options.count << " were never acknowledged\n";
    else
        std::cout << "all " << options.count << (options.reliable > 0 ? " acknowledged\n" : " sent\n");
    return givenUp == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Sends events as datagrams and into the power log.");
    app.add_option("--ip", options.ip, "The collector's IPv4 address")->capture_default_str();
    app.add_option("--port", options.port, "The collector's UDP port")->required();
    app.add_option("--reliable", options.reliable,
                   "Deliver with acknowledgement, and the period of its clock in milliseconds");
    app.add_option("--count", options.count, "How many events")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    // With QUORVANE_LOG=stderr, to standard error.
    startLogging("direct-backends", "User");

    DeviceIdentifier device{};
    copyDeviceIdentifier(device);
    const Dictionary info = sessionInfo();
    const auto backends = createBackends(storebagSection(options), &info, nullptr, device.data());
    const auto dashboard = backends ? find<DashboardBackend>(*backends, kQuorvaneBackendDashboard) : nullptr;
    const auto powerLog = backends ? find<JoularyBackend>(*backends, kQuorvaneBackendJoulary) : nullptr;
    if (dashboard == nullptr || powerLog == nullptr) return EXIT_FAILURE;

    // Wider than an event's number, so that it gets past the largest.
    for (std::uint32_t number = 1; number <= options.count; ++number) {
        const Dictionary message{{"number", number}, {"took", 0.25}};
        const auto now = platform::timeOfDay();
        const EventID eventID{static_cast<std::uint16_t>(number)};
        // One more than may wait would push the oldest out.
        awaitFewer(*dashboard, DashboardBackend::kWaitingDatagrams);
        std::cout << dashboard->sendMessage(&message, now, 1, 200, eventID).value_or("(none)") << '\n';
        powerLog->sendMessage(&message, now, 1, 200, eventID);
    }
    awaitFewer(*dashboard, 1);
    const bool delivered = reportDelivery(*dashboard, options);
    dashboard->cleanup();
    return delivered ? EXIT_SUCCESS : EXIT_FAILURE;
}
