#pragma once

#include "platform/bus/BusListener.h"
#include "platform/loop/RunLoop.h"

#include <chrono>

namespace quorvane {

/// Ends the run loop when the process is told to end (SIGTERM, SIGINT). Downloads and uploads are cancelled,
/// then every connection is ended, so that the sessions send what they hold, and the posts under way are
/// waited for, those of sessions that have left already among them; a second signal cuts that short. With
/// nothing of it the loop ends at once.
class Shutdown {
  public:
    /// Longest wait for sessions and posts.
    static constexpr std::chrono::seconds kLongest{10};

    /// Both must outlive this object.
    Shutdown(platform::RunLoop& loop, platform::BusListener& listener) : _loop(loop), _listener(listener) {}
    Shutdown(const Shutdown&) = delete;
    Shutdown& operator=(const Shutdown&) = delete;

    /// Call before any other thread starts. False when the loop refuses.
    bool awaitSignals();

  private:
    void begin();
    void drainPosts();

    platform::RunLoop& _loop;
    platform::BusListener& _listener;
    bool _begun = false;
};

}  // namespace quorvane
