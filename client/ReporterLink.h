#pragma once

#include "client/Connection.h"
#include "client/ReportQueue.h"
#include "platform/base/Owned.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusMessage.h"

#include <quorvane/Reporter.h>

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvane::client {

/// What every session of a reporter is set up with, beside the user info.
struct ReporterSession {
    Dictionary sessionInfo;
    std::vector<std::string> frameworksToCheck;
};

/// One connection of a reporter's to the daemon. It sends parcels and settles them with the queue: at the
/// daemon's answer, or when the connection is lost or this is destroyed. Never waits. Belongs to the
/// reporter's thread.
class ReporterLink {
  public:
    /// Takes over a connected socket and begins to set the session up. The queue outlives the link.
    static Result<std::unique_ptr<ReporterLink>> open(platform::UniqueDescriptor socket, ReportQueue& queue,
                                                      const ReporterSession& session,
                                                      const std::optional<Dictionary>& userInfo);
    ~ReporterLink();
    ReporterLink(const ReporterLink&) = delete;
    ReporterLink& operator=(const ReporterLink&) = delete;

    /// Reads and writes what can be. An error when the connection is lost.
    Status process();
    /// Whether the session is set up.
    bool isReady() const { return _ready; }
    /// The backends that report, as the daemon last said.
    const ReportingStates& backends() const { return _backends; }
    /// Whether the session is set up, but has no backends.
    bool lacksStorebag() const { return _ready && !_starts && !_backends; }
    /// Has the daemon make the session's backends anew.
    void startAgain();
    /// Whether a further parcel can be sent now.
    bool takesParcels() const;
    void send(Parcel parcel);
    /// Whether the daemon has answered everything.
    bool isIdle() const { return _calls.empty(); }

    int descriptor() const { return ::sd_bus_get_fd(_bus.get()); }
    short awaitedEvents() const;
    /// Time until process() is to be called at the latest, in microseconds; UINT64_MAX for no limit.
    std::uint64_t longestWait() const;

  private:
    using Method = Connection::Method;
    struct Call;
    using Take = void (ReporterLink::*)(Call& call, sd_bus_message* answer);
    struct Call {
        Take take;
        Parcel parcel = {};
        std::uint64_t flush = 0;  ///< The number of a flush.
        ReporterLink* link = nullptr;
        std::list<Call>::iterator at = {};
    };

    explicit ReporterLink(ReportQueue& queue) : _queue(queue) {}
    int begin(platform::UniqueDescriptor socket, const ReporterSession& session,
              const std::optional<Dictionary>& userInfo);

    // What cannot be sent means that the connection is lost.
    template <typename Append>
    platform::BusMessage newCall(const Method& method, Append&& append);
    template <typename Append>
    void send(const Method& method, Append&& append);
    template <typename Append>
    void call(const Method& method, Call call, Append&& append);
    void check(int result);
    void sendTogether(Parcel parcel);
    void sendOneByOne(Parcel parcel);
    static int takeAnswer(sd_bus_message* answer, void* call, sd_bus_error* error);
    void lose(const std::string& why);
    void forsake(Call& call);

    // One a call: what its answer does.
    void noteConfigured(Call& call, sd_bus_message* answer);
    void noteStarted(Call& call, sd_bus_message* answer);
    void noteStates(Call& call, sd_bus_message* answer);
    void noteBatches(Call& call, sd_bus_message* answer);
    void settleBatch(Call& call, sd_bus_message* answer);
    void settleSingles(Call& call, sd_bus_message* answer);
    void finishFlush(Call& call, sd_bus_message* answer);

    ReportQueue& _queue;
    platform::Owned<sd_bus, ::sd_bus_close_unref> _bus;
    std::list<Call> _calls;  ///< Not yet answered, in their order.
    std::size_t _parcelsOnTheirWay = 0;
    ReportingStates _backends;
    bool _ready = false;
    bool _starts = false;  ///< The daemon is making the backends.
    bool _knowsBatches = true;
    std::optional<Error> _lost;
};

}  // namespace quorvane::client
