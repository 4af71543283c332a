#pragma once

#include "backends/QuorvaneBackend.h"

#include <cstdint>
#include <memory>
#include <string>

namespace quorvane {

/// Writes events into the device's power log. Never has an answer.
class JoularyBackend final : public QuorvaneBackend {
  public:
    static std::shared_ptr<JoularyBackend> initWithName(const std::string& name,
                                                        std::shared_ptr<const Dictionary> profile,
                                                        const OptionalString& productFamily);

    /// Writes the message, with "method", "respCode" and "event" laid over it, as one registered event. An
    /// event with method 0 or an empty message is dropped. Sessions do not call this form: their events end
    /// in the base's.
    Answer sendMessage(const Dictionary* message, TimeValue timestamp, std::uint16_t method,
                       std::uint16_t respCode, EventID eventID);
    using QuorvaneBackend::sendMessage;

  private:
    using QuorvaneBackend::QuorvaneBackend;
};

}  // namespace quorvane
