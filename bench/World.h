#pragma once

#include "bench/CountingServer.h"
#include "tests/support/DaemonFixture.h"

#include <quorvane/Client.h>
#include <quorvane/Reporter.h>

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace quorvane::bench {

/// Which storebag a session gets.
enum class Profile : std::uint32_t {
    Top = 5,     ///< HTTPS backend, level 0 of a hierarchy.
    Child = 6,   ///< HTTPS backend, level 1.
    Upload = 8,  ///< Upload backend.
};

struct SessionSetup {
    Profile profile = Profile::Top;
    bool batch = true;
    std::string serviceName = "Sync";
    AggregationBlock aggregationBlock = {};
};

/// Events of one batched session that make the daemon post; the event after them does so and is itself given
/// up, which is how batching works.
inline constexpr std::uint64_t kBatchSize = 50;

/// How many of so many events sent to a new batched session arrive when it is flushed at the end.
std::uint64_t arrivingEvents(std::uint64_t sent);

/// A device with a running quorvaned, whose storebags point at a collector that only counts. Throws when
/// something does not start.
class World {
  public:
    /// The variables are put into the daemon's environment.
    explicit World(test::DaemonFixture::Environment environment = {});

    pid_t daemon() { return _device.daemon().pid(); }
    CountingServer& collector() { return _collector; }
    std::string socketPath() const { return _device.socketPath(); }
    const std::filesystem::path& root() const { return _device.root(); }

    /// A connection whose session is set up and reports.
    Client openSession(const SessionSetup& setup = {});
    /// For a reporter with such a session, which has no aggregation block.
    ReporterOptions reporterOptions(const SessionSetup& setup = {});

  private:
    SessionInfo nextSession(const SessionSetup& setup);

    test::DaemonFixture _device;
    CountingServer _collector;
    std::uint32_t _nextSessionID = 1;
};

/// The user info of a session with that service name.
UserInfo userInfo(const std::string& serviceName);

}  // namespace quorvane::bench
