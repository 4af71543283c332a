#include "service/ClientProxy.h"

#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <functional>
#include <utility>

namespace quorvane {

namespace {

/// About what a message takes beside its arguments.
constexpr std::size_t kMessageBytes = 256;

/// Sends one call without waiting for an answer, unless the connection has ended and there is no bus.
template <typename Append>
void callClient(sd_bus* bus, const char* interface, const char* method, const Append& append,
                ClientProxy::ErrorHandler errorHandler) {
    if (bus == nullptr) return errorHandler("the client is gone");
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_call(bus, &raw, nullptr, kQuorvaneObjectPath, interface, method);
    const platform::BusMessage message(raw);
    if (result >= 0) result = ::sd_bus_message_set_expect_reply(raw, 0);
    if (result >= 0) result = append(raw);
    if (result >= 0) result = ::sd_bus_send(bus, raw, nullptr);
    if (result < 0) errorHandler(std::strerror(-result));
}

void logKeptFile(const std::string& error) {
    platform::logWarning("removeFile: A client keeps an uploaded file: {}", error);
}

}  // namespace

ClientProxy::ClientProxy(const std::shared_ptr<platform::BusConnection>& connection)
    : _connection(connection), _peer(connection->peer()) {}

void ClientProxy::sendMessageToClient(const Dictionary& sessionInfo, double timestamp, std::uint16_t category,
                                      std::uint16_t type, const Dictionary* payload,
                                      ErrorHandler errorHandler) {
    const std::size_t bytes =
        kMessageBytes + heldBytes(sessionInfo) + (payload != nullptr ? heldBytes(*payload) : 0);
    call(bytes, errorHandler,
         [sessionInfo, timestamp, category, type, errorHandler,
          payload = payload != nullptr ? std::optional(*payload) : std::nullopt](sd_bus* bus) {
             const auto append = [&](sd_bus_message* message) {
                 int result = platform::appendDictionary(message, sessionInfo);
                 if (result >= 0) result = ::sd_bus_message_append(message, "dqq", timestamp, category, type);
                 if (result >= 0)
                     result = platform::appendOptionalDictionary(message, payload ? &*payload : nullptr);
                 return result;
             };
             callClient(bus, kClientSessionReplyInterface, "SendMessageToClient", append, errorHandler);
         });
}

void ClientProxy::removeFile(const std::string& extensionToken) const {
    call(kMessageBytes + extensionToken.size(), logKeptFile, [extensionToken](sd_bus* bus) {
        const auto append = [&](sd_bus_message* message) {
            return ::sd_bus_message_append(message, "s", extensionToken.c_str());
        };
        callClient(bus, kSandboxExtensionOwnerInterface, "RemoveFile", append, logKeptFile);
    });
}

void ClientProxy::call(std::size_t bytes, ErrorHandler errorHandler,
                       std::function<void(sd_bus*)> call) const {
    const auto connection = _connection.lock();
    if (connection == nullptr || !connection->queueCall(bytes, std::move(call)))
        errorHandler("the client is gone or does not read");
}

}  // namespace quorvane
