#pragma once

#include "platform/loop/EventSource.h"

#include <chrono>
#include <memory>
#include <optional>

namespace quorvane::platform {

class RunLoop;

/// A queue whose work runs one piece after another, on the event thread that all queues share; so no piece
/// may block. Copies are the same queue.
class SerialQueue {
  public:
    using Handler = EventSource::Handler;

    /// The label, a literal, names the queue's sources in traces. Nothing when the event thread cannot start.
    static std::optional<SerialQueue> initWithLabel(const char* label);

    /// Runs the handler soon, or so long from now. From any thread.
    void post(Handler handler) const;
    void postAfter(std::chrono::milliseconds delay, Handler handler) const;

    /// Runs the handler and waits until it has run; at once when called from a queue. From any thread that
    /// holds no lock which queued work takes.
    void perform(const Handler& handler) const;

    /// Sources, made and owned by the queue's own work only. Null when the kernel refuses.
    std::unique_ptr<EventSource> makeTimer(std::chrono::milliseconds period, std::chrono::milliseconds leeway,
                                           Handler handler) const;
    std::unique_ptr<EventSource> makeReadSource(int descriptor, Handler handler) const;

  private:
    SerialQueue(RunLoop& loop, const char* label) : _loop(&loop), _label(label) {}

    RunLoop* _loop;
    const char* _label;
};

}  // namespace quorvane::platform
