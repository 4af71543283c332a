#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/http/HttpDrops.h"
#include "platform/http/HttpQueue.h"
#include "platform/http/HttpTransfer.h"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace quorvane::platform {

/// The one thread that carries all requests out.
class HttpThread {
  public:
    /// False when libcurl or the kernel refuses. Once; the thread never ends.
    bool start();

    // From any thread.
    void submit(HttpTask task);
    /// Completes, on the caller's thread, what never got so far as to be submitted.
    void drop(HttpTask task);
    void cancelAwaited();
    void setLimits(const HttpLimits& limits);
    HttpLimits limits();
    std::uint64_t dropped() { return _drops.count(); }
    bool waitForNone(std::chrono::milliseconds atMost);

  private:
    using Clock = std::chrono::steady_clock;
    using Deadlines = std::multimap<Clock::time_point, CURL*>;
    struct Active {
        std::unique_ptr<HttpTransfer> transfer;
        HttpTask task;                          ///< Its request is the transfer's.
        std::optional<HttpQueue::Place> place;  ///< Of a post.
        Deadlines::iterator deadline;
        bool isCompleted = false;
    };
    using ActiveEntry = std::unordered_map<CURL*, Active>::iterator;

    void run();
    void takeSubmitted();
    void startWaiting();
    void startTransfer(HttpTask task);
    void notePhases();
    void finishTransfers();
    void giveUpOverdue();
    void cancelAwaitedNow();
    int millisecondsToWait();
    void finish(ActiveEntry entry, HttpResult result);
    void leave(const HttpQueue::Place& place);
    void complete(HttpTask& task, HttpResult result);

    CURLM* _multi = nullptr;
    std::atomic<bool> _isOpen = false;  ///< The above is there: cancelAwaited() may come before start().
    HttpDrops _drops;
    std::atomic<bool> _isAwaitedCancelled = false;
    Mutex _mutex;
    std::condition_variable_any _allCompleted;
    std::vector<HttpTask> _submitted GUARDED_BY(_mutex);
    std::size_t _unfinished GUARDED_BY(_mutex) = 0;
    HttpLimits _limits GUARDED_BY(_mutex);
    // The thread's own.
    HttpQueue _queue;
    std::unordered_map<CURL*, Active> _active;
    Deadlines _deadlines;
    std::vector<CURL*> _phaseChanged;
};

}  // namespace quorvane::platform
