#pragma once

#include "platform/UniqueDescriptor.h"

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>

namespace quorvane::platform {

/// The main run loop: descriptors, signals and timers of one thread (sd-event(3)). Every operation but post()
/// belongs to that thread, and so do the handlers.
class RunLoop {
  public:
    using Handler = std::function<void()>;

    /// Null when the kernel refuses. Blocks the given signals in the calling thread, so call it before any
    /// other thread starts.
    static std::unique_ptr<RunLoop> init();
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    bool addReadSource(int descriptor, Handler handler);
    /// Turns a read source off and on again; off, its handler is not called however readable the descriptor
    /// is.
    void setReadSourceEnabled(int descriptor, bool enabled);
    bool addSignal(int signalNumber, Handler handler);
    /// Calls the handler once, so long from now.
    bool addTimer(std::chrono::milliseconds delay, Handler handler);

    /// Runs the handler on the loop's thread soon. From any thread.
    void post(Handler handler);

    /// Runs until exit() is called; negative errno when the loop itself fails, else exit()'s status.
    int run();
    void exit(int status);

  private:
    struct Posted;
    struct Source {
        sd_event_source* source = nullptr;
        Handler handler;
        RunLoop* loop = nullptr;
        int descriptor = -1;
    };

    RunLoop() = default;
    bool keep(int result, Source& source);
    Source& newSource(Handler handler);
    void runPosted();

    sd_event* _event = nullptr;
    std::list<Source> _sources;
    std::unique_ptr<Posted> _posted;
};

}  // namespace quorvane::platform
