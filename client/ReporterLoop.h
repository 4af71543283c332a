#pragma once

#include "client/Backoff.h"
#include "client/Deadline.h"
#include "client/ReportQueue.h"
#include "client/ReporterLink.h"
#include "platform/base/UniqueDescriptor.h"

#include <quorvane/Reporter.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quorvane::client {

/// What a reporter's thread does: connects, hands over what the queue holds, and connects anew.
class ReporterLoop {
  public:
    /// The queue outlives the loop.
    ReporterLoop(ReporterOptions options, ReportQueue& queue, platform::UniqueDescriptor wake);

    /// Runs until it is asked to stop and the queue is empty, no daemon answers, or the time is up. Closes
    /// the queue.
    void run();

    // From any thread.

    void wake() const;
    /// Once.
    void stop(const Deadline& deadline);
    /// Whether the calling thread is the loop's.
    bool isCurrentThread() const;

  private:
    void connectWhenDue();
    void serve();
    void startAgainWhenDue();
    void sendDue();
    void lose(Error error);
    void tell(ReporterState state, std::optional<Error> error = {});
    bool isOver() const;
    void waitForWork() const;
    std::uint64_t longestWait() const;
    bool stops() const { return _stops.load(std::memory_order_acquire); }

    const std::string _socketPath;
    const ReporterSession _session;
    const std::function<void(const ReporterStatus&)> _stateChanged;
    ReportQueue& _queue;
    const platform::UniqueDescriptor _wake;

    std::atomic<bool> _stops = false;
    Deadline _end;  ///< Set before `_stops`.

    // Of the loop's thread only.
    std::optional<Dictionary> _userInfo;  ///< What the next session is set up with.
    std::unique_ptr<ReporterLink> _link;
    std::uint64_t _retryAt = 0;
    std::uint64_t _startAt = UINT64_MAX;   ///< When the session is started again.
    Backoff _connectPauses, _startPauses;  ///< In microseconds.
    bool _gaveUp = false;
    ReporterStatus _told;
};

}  // namespace quorvane::client
