#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <chrono>

namespace quorvane::collector {

/// Tells every waiting thread, once and for good, that the program ends. Thread-safe.
class StopSignal {
  public:
    StopSignal();

    void raise();

    /// Waits until the descriptor is ready for the events of poll(2), for ever when the deadline is the
    /// latest time there is; false when the time is up, when the descriptor is not to be waited for, or, if
    /// stoppable, when the program ends.
    bool waitFor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                 bool stoppable = true) const;

    /// Waits for the time, or until the program ends.
    void pause(std::chrono::milliseconds time) const;

  private:
    platform::UniqueDescriptor _event;
};

}  // namespace quorvane::collector
