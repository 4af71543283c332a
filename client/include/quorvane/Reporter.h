#pragma once

#include <quorvane/Client.h>
#include <quorvane/Result.h>
#include <quorvane/Session.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace quorvane {

enum class ReporterState {
    Connecting,    ///< A connection is being made, or its session set up. Events wait.
    Connected,     ///< Events go to the daemon.
    Disconnected,  ///< No daemon answers; it is tried again after a while. Events wait.
};

/// What a reporter tells when its state changes.
struct ReporterStatus {
    ReporterState state = ReporterState::Connecting;
    /// When connected: the backends that report. With none, the daemon makes nothing of events.
    ReportingStates backends = {};
    /// When disconnected: why.
    std::optional<Error> error = {};
};

/// What became of the events given to report(): `reported` is the sum of all the other event counts, always.
struct ReporterStatistics {
    std::uint64_t reported = 0;
    std::uint64_t waiting = 0;  ///< In the queue, or on their way and unanswered.
    std::uint64_t taken = 0;    ///< The daemon has answered that it took them.

    std::uint64_t droppedFull = 0;        ///< The queue was full.
    std::uint64_t droppedUnsendable = 0;  ///< D-Bus cannot carry them (see ErrorCode::InvalidArgument).
    std::uint64_t droppedTooLarge = 0;    ///< Larger than the queue, or than 32 MiB.
    std::uint64_t droppedRefused = 0;     ///< The daemon has answered that it did not take them.
    /// On their way when the connection was lost. The daemon may have taken them; sent again, an event could
    /// arrive twice.
    std::uint64_t droppedLost = 0;
    std::uint64_t droppedAtEnd = 0;  ///< Still waiting when the reporter was closed, or reported after.

    std::uint64_t sessions = 0;  ///< How often a session was set up. No count of events.

    std::uint64_t dropped() const {
        return droppedFull + droppedUnsendable + droppedTooLarge + droppedRefused + droppedLost +
               droppedAtEnd;
    }
};

struct ReporterOptions {
    SessionInfo sessionInfo = {};
    std::optional<UserInfo> userInfo = {};
    std::vector<std::string> frameworksToCheck = {};
    /// As in ConnectOptions.
    std::string socketPath = {};

    /// The most events that wait, and the most bytes of them (an event of 8 keys takes about 200). At least
    /// 1 each.
    std::size_t queueEvents = 10'000;
    std::size_t queueBytes = std::size_t{8} << 20;

    /// Pause before a lost connection is made anew. It doubles with each failure up to the longest; of every
    /// pause a random part, up to half, is left out, so that not all programs come at once. Above 0. A
    /// session for which there was no storebag is started again in the same way, with pauses of up to 5
    /// minutes.
    std::chrono::milliseconds firstRetry{100};
    std::chrono::milliseconds longestRetry{30'000};

    /// Longest wait of the destructor for the daemon to take what waits.
    Timeout closeTimeout = std::chrono::seconds(5);

    /// Told of every change of state, on the reporter's thread, which does nothing else meanwhile. It may
    /// call every operation but flush() and close(), and must not throw.
    std::function<void(const ReporterStatus&)> stateChanged = {};
};

/// Reports events, and takes care of the connection: makes it on a thread of its own, which may be before
/// there is a daemon, makes it anew when it is lost and then sets the session up again.
///
/// Events keep their order. They go to the daemon together where they can: one waits for others for up to 20
/// ms, one with kFlagSendNow for none. How long each has waited goes with it, so it bears the time of
/// report().
///
/// Every operation may be called from any thread; moving and destroying may not run beside other operations,
/// nor one close() beside another. No operation throws. After fork(2) the child must not use or destroy a
/// reporter of its parent's.
class Reporter {
  public:
    /// Fails for options that no daemon could take, and for want of a thread or a descriptor. That no daemon
    /// answers is no failure.
    static Result<Reporter> start(ReporterOptions options);

    Reporter(Reporter&& other) noexcept;
    Reporter& operator=(Reporter&& other) noexcept;
    /// As close() with the options' close timeout.
    ~Reporter();

    /// Queues the event and never waits. False when it was dropped; the statistics tell why.
    bool report(const Event& event);
    /// The same, with a payload that lies elsewhere; null for none.
    bool report(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                std::uint32_t flag = 0);

    /// From here on events are reported with this user info; those queued before keep the former. Never
    /// waits. Fails for what cannot be sent, and changes nothing then.
    Status setUserInfo(const std::optional<UserInfo>& userInfo);

    /// Sends what waits and makes the backends post what they hold back. Returns when the daemon has answered
    /// that, which may be over another connection than this one. Later events may go first as well.
    Status flush(Timeout timeout = std::chrono::seconds(30));

    ReporterStatistics statistics() const;

    /// Sends what waits while a daemon answers and the timeout allows, drops the rest, and ends the
    /// connection. Events reported later are dropped. The final statistics.
    ReporterStatistics close(Timeout timeout);

  private:
    class Implementation;
    explicit Reporter(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> _implementation;
};

}  // namespace quorvane

#pragma GCC visibility pop
