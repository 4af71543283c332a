#include "service/ClientProxy.h"

#include "framework/Keys.h"
#include "platform/BusMessage.h"
#include "platform/BusValue.h"
#include "platform/Log.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <functional>
#include <utility>

namespace quorvane {

namespace {

/// About what a message takes beside its arguments.
constexpr std::size_t kMessageBytes = 256;

/// Sends one call without waiting for an answer; a negative errno value tells why it was not sent.
template <typename Append>
void callClient(sd_bus* bus, const char* interface, const char* method, const Append& append) {
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_call(bus, &raw, nullptr, kQuorvaneObjectPath, interface, method);
    const platform::BusMessage message(raw);
    if (result >= 0) result = ::sd_bus_message_set_expect_reply(raw, 0);
    if (result >= 0) result = append(raw);
    if (result >= 0) result = ::sd_bus_send(bus, raw, nullptr);
    if (result < 0)
        platform::logError("ClientProxy: {} could not be sent ({})", method, std::strerror(-result));
}

}  // namespace

ClientProxy::ClientProxy(std::weak_ptr<platform::BusConnection> connection)
    : _connection(std::move(connection)) {}

std::optional<std::string> ClientProxy::sendMessageToClient(const Dictionary& sessionInfo, double timestamp,
                                                            std::uint16_t category, std::uint16_t type,
                                                            const Dictionary* payload) {
    const auto connection = _connection.lock();
    if (connection == nullptr) return "the client is gone";
    const std::size_t bytes =
        kMessageBytes + heldBytes(sessionInfo) + (payload != nullptr ? heldBytes(*payload) : 0);
    auto call = [sessionInfo, timestamp, category, type,
                 payload = payload != nullptr ? std::optional(*payload) : std::nullopt](sd_bus* bus) {
        callClient(bus, kClientSessionReplyInterface, "SendMessageToClient", [&](sd_bus_message* message) {
            int result = platform::appendDictionary(message, sessionInfo);
            if (result >= 0) result = ::sd_bus_message_append(message, "dqq", timestamp, category, type);
            if (result >= 0)
                result = platform::appendOptionalDictionary(message, payload ? &*payload : nullptr);
            return result;
        });
    };
    if (connection->queueCall(bytes, std::move(call))) return std::nullopt;
    return "the client is gone or does not read";
}

void ClientProxy::removeFile(const std::string& extensionToken) const {
    const auto connection = _connection.lock();
    const bool queued =
        connection != nullptr &&
        connection->queueCall(kMessageBytes + extensionToken.size(), [extensionToken](sd_bus* bus) {
            callClient(bus, kSandboxExtensionOwnerInterface, "RemoveFile", [&](sd_bus_message* message) {
                return ::sd_bus_message_append(message, "s", extensionToken.c_str());
            });
        });
    if (!queued) platform::logWarning("ClientProxy: a client that is gone keeps an uploaded file");
}

}  // namespace quorvane
