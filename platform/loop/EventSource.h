#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace quorvane::platform {

/// One source of an sd-event(3) loop with its handler. It belongs to the loop's thread, where the handlers
/// run too; a handler may cancel or destroy its own source. Every maker answers null when the loop refuses.
class EventSource {
  public:
    using Handler = std::function<void()>;

    /// Calls the handler whenever the descriptor, which is only borrowed, is readable or has an error.
    static std::unique_ptr<EventSource> readable(sd_event* event, int descriptor, Handler handler);
    /// The signal must be blocked.
    static std::unique_ptr<EventSource> signal(sd_event* event, int signalNumber, Handler handler);
    /// Calls the handler once, so long from now.
    static std::unique_ptr<EventSource> once(sd_event* event, std::chrono::milliseconds delay,
                                             Handler handler);
    /// Calls the handler whenever the time that ringIn() has set last is there.
    static std::unique_ptr<EventSource> alarm(sd_event* event, Handler handler);
    /// Calls the handler one period from now and then every period, each time late by at most the leeway.
    /// Periods that pass while the loop is busy are left out. From 1 ms to a year.
    static std::unique_ptr<EventSource> timer(sd_event* event, std::chrono::milliseconds period,
                                              std::chrono::milliseconds leeway, Handler handler);

    /// Cancels.
    ~EventSource();
    EventSource(const EventSource&) = delete;
    EventSource& operator=(const EventSource&) = delete;

    /// Of an alarm: once, so long from now. False when the loop refuses.
    bool ringIn(std::chrono::milliseconds delay);

    /// Turned off, the handler is not called whatever happens.
    void setEnabled(bool enabled);

    /// Names the source in traces of the loop.
    void setLabel(const char* label);

    /// Runs once, when the source is cancelled and the loop has let go of it.
    void setCancelHandler(Handler handler) { _cancelHandler = std::move(handler); }
    /// Ends the source: its handler is not called again.
    void cancel();

  private:
    explicit EventSource(Handler handler);
    static std::unique_ptr<EventSource> kept(std::unique_ptr<EventSource> source, int result);
    void call() const;
    void scheduleNext();

    sd_event_source* _source = nullptr;
    std::shared_ptr<const Handler> _handler;  ///< Shared, because it may end its own source while it runs.
    Handler _cancelHandler;
    std::chrono::microseconds _period{0};
};

}  // namespace quorvane::platform
