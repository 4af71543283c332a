#pragma once

#include "backends/CodeBundle.h"
#include "backends/QuorvaneBackend.h"

#include <cstdint>
#include <memory>
#include <string>

namespace quorvane {

/// Forwards each event to an object of the diagnostics adaptor, the code bundle
/// /usr/lib/quorvane/OsselAdaptor.so, whose interface OsselAdaptor.h tells. Never has an answer.
class OsselBackend final : public QuorvaneBackend {
  public:
    /// For client type 0, so always null.
    static std::shared_ptr<OsselBackend> initWithName(const std::string& name,
                                                      std::shared_ptr<const Dictionary> profile,
                                                      const OptionalString& productFamily);
    /// Null, and an error line, for a client type that has no adaptor; 7 and 11 have one. A bundle that
    /// cannot be loaded or lacks the class is no failure: then each event costs an error line.
    static std::shared_ptr<OsselBackend> initWithName(const std::string& name,
                                                      std::shared_ptr<const Dictionary> profile,
                                                      const OptionalString& productFamily,
                                                      std::int32_t clientType);

    /// Whether the client type has an adaptor; else null is made, with the same error line.
    static bool hasAdaptor(std::int32_t clientType);

    /// The adaptor gets the method, the response code and the message alone. Waits for it.
    Answer sendMessage(const Dictionary* message, TimeValue timestamp, std::uint16_t method,
                       std::uint16_t respCode, EventID eventID, MessageFlag flag) override;
    using QuorvaneBackend::sendMessage;

  private:
    OsselBackend(const std::string& name, std::shared_ptr<const Dictionary> profile,
                 const OptionalString& productFamily);

    const QuorvaneCodeBundle* const _clientBundle;
    const QuorvaneClass* const _osselAdaptorClass;
    const std::unique_ptr<const CodeObject> _osselAdaptor;
};

}  // namespace quorvane
