#include "backends/OsselBackend.h"

#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/formats/PropertyList.h"

#include <optional>
#include <string_view>
#include <utility>

namespace quorvane {

using platform::logError;

namespace {

constexpr std::string_view kBundlePath = "/usr/lib/quorvane/OsselAdaptor.so";
constexpr std::string_view kClass = "OsselAdaptor";
constexpr std::string_view kSelector = "sendMessageWithMethod:respCode:dict:";

/// The bytes for the adaptor, none for no message; nothing, and an error line, for a message that a property
/// list cannot hold.
std::optional<Data> bytesOf(const Dictionary* message) {
    if (message == nullptr) return Data();
    auto bytes = platform::binaryPropertyList(*message);
    if (!bytes) logError("OsselBackend(sendMessage): The message cannot be written as a property list");
    return bytes;
}

}  // namespace

std::shared_ptr<OsselBackend> OsselBackend::initWithName(const std::string& name,
                                                         std::shared_ptr<const Dictionary> profile,
                                                         const OptionalString& productFamily) {
    return initWithName(name, std::move(profile), productFamily, 0);
}

std::shared_ptr<OsselBackend> OsselBackend::initWithName(const std::string& name,
                                                         std::shared_ptr<const Dictionary> profile,
                                                         const OptionalString& productFamily,
                                                         std::int32_t clientType) {
    platform::logInfo("OsselBackend(initWithName): Loading Ossel adaptor class for client type {}",
                      clientType);
    if (!hasAdaptor(clientType)) return nullptr;
    return std::shared_ptr<OsselBackend>(new OsselBackend(name, std::move(profile), productFamily));
}

bool OsselBackend::hasAdaptor(std::int32_t clientType) {
    if (clientType == 7 || clientType == 11) return true;
    logError("OsselBackend(initWithName): No matching bundle found for client type {}", clientType);
    return false;
}

OsselBackend::OsselBackend(const std::string& name, std::shared_ptr<const Dictionary> profile,
                           const OptionalString& productFamily)
    : QuorvaneBackend(name, std::move(profile), productFamily),
      _clientBundle(loadCodeBundle(platform::rooted(kBundlePath))),
      _osselAdaptorClass(classNamed(_clientBundle, kClass)),
      _osselAdaptor(CodeObject::init(_osselAdaptorClass)) {}

QuorvaneBackend::Answer OsselBackend::sendMessage(const Dictionary* message, TimeValue, std::uint16_t method,
                                                  std::uint16_t respCode, EventID, MessageFlag) {
    const QuorvaneOperation* operation =
        _osselAdaptor != nullptr ? _osselAdaptor->operationWithSelector(kSelector) : nullptr;
    if (operation == nullptr) {
        logError("OsselBackend(sendMessage): Ossel adaptor {} does not respond to forwarding selector {}",
                 _osselAdaptor != nullptr ? _osselAdaptor->description() : std::string(platform::absentText),
                 kSelector);
        ledger().drop(DropReason::NoAdaptor);
        return std::nullopt;
    }
    const auto bytes = bytesOf(message);
    if (!bytes) {
        ledger().drop(DropReason::NotSerialisable);
        return std::nullopt;
    }
    _osselAdaptor->invoke(*operation, method, respCode, *bytes);
    EventGroup event = ledger().current();
    ledger().handOver(event);
    ledger().finish(EventLedger::Fate::Posted, event);
    return std::nullopt;
}

}  // namespace quorvane
