#include "backends/JoularyBackend.h"

#include "platform/system/PowerLog.h"

#include <optional>
#include <string_view>
#include <utility>

namespace quorvane {

namespace {

constexpr std::uint32_t kPowerLogAgent = 28;
constexpr std::string_view kPowerLogEvent = "Strevad-QVN";

}  // namespace

std::shared_ptr<JoularyBackend> JoularyBackend::initWithName(const std::string& name,
                                                             std::shared_ptr<const Dictionary> profile,
                                                             const OptionalString& productFamily) {
    return std::shared_ptr<JoularyBackend>(new JoularyBackend(name, std::move(profile), productFamily));
}

QuorvaneBackend::Answer JoularyBackend::sendMessage(const Dictionary* message, TimeValue,
                                                    std::uint16_t method, std::uint16_t respCode,
                                                    EventID eventID) {
    if (method == 0 || message == nullptr || message->empty()) return std::nullopt;
    Dictionary event = *message;
    event.set("method", std::uint32_t{method});
    event.set("respCode", std::uint32_t{respCode});
    event.set("event", static_cast<std::uint32_t>(eventID));
    platform::writeRegisteredEvent(kPowerLogAgent, kPowerLogEvent, event);
    ledger().accept(method, respCode);
    EventGroup handed = ledger().current();
    ledger().handOver(handed);
    ledger().finish(EventLedger::Fate::Posted, handed);
    return std::nullopt;
}

}  // namespace quorvane
