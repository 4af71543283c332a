#pragma once

#include "platform/loop/EventSource.h"

#include <systemd/sd-event.h>

#include <chrono>
#include <list>
#include <memory>

namespace quorvane::platform {

/// A run loop: descriptors, signals and timers of one thread (sd-event(3)). Every operation but post()
/// belongs to that thread, and so do the handlers.
class RunLoop {
  public:
    using Handler = EventSource::Handler;
    /// Whether the loop answers the launcher's watchdog, where the launcher asks for one.
    enum class Watchdog { Answered, Ignored };

    /// Null when the kernel refuses.
    static std::unique_ptr<RunLoop> init(Watchdog watchdog = Watchdog::Answered);
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    bool addReadSource(int descriptor, Handler handler);
    /// Turns a read source off and on again; off, its handler is not called however readable the descriptor
    /// is.
    void setReadSourceEnabled(int descriptor, bool enabled);
    /// Blocks the signal in the calling thread, so call it before any other thread starts.
    bool addSignal(int signalNumber, Handler handler);
    /// Calls the handler once, so long from now.
    bool addTimer(std::chrono::milliseconds delay, Handler handler);

    /// Runs the handler on the loop's thread soon. From any thread.
    void post(Handler handler);

    /// Runs until exit() is called; negative errno when the loop itself fails, else exit()'s status.
    int run();
    void exit(int status);

    /// For sources that can be cancelled (EventSource.h).
    sd_event* event() const { return _event; }

  private:
    struct Posted;
    struct Source {
        int descriptor = -1;  ///< Of a read source.
        std::unique_ptr<EventSource> source;
    };

    RunLoop() = default;
    bool keep(std::unique_ptr<EventSource> source, int descriptor = -1);
    void runPosted();

    sd_event* _event = nullptr;
    std::list<Source> _sources;
    std::unique_ptr<Posted> _posted;
};

}  // namespace quorvane::platform
