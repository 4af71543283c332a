#include "client/ReplyInterface.h"

#include "client/Serialization.h"
#include "framework/Keys.h"
#include "platform/bus/BusValue.h"

#include <optional>
#include <string>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

const sd_bus_vtable ReplyInterface::kReplyVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS(
        "SendMessageToClient",
        SD_BUS_ARGS("a{sv}", sessionInfo, "d", timestamp, "q", category, "q", type, "aa{sv}", payload),
        SD_BUS_NO_RESULT, &ReplyInterface::sendMessageToClient,
        SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable ReplyInterface::kOwnerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("RemoveFile", SD_BUS_ARGS("s", extensionToken), SD_BUS_NO_RESULT,
                            &ReplyInterface::removeFile,
                            SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END,
};

std::array<Connection::Export, 2> ReplyInterface::exports() {
    return {{{kClientSessionReplyInterface, kReplyVtable, this},
             {kSandboxExtensionOwnerInterface, kOwnerVtable, this}}};
}

void ReplyInterface::setAggregationBlock(AggregationBlock block) {
    const MutexLock lock(_mutex);
    _block = block ? std::make_shared<const AggregationBlock>(std::move(block)) : nullptr;
}

int ReplyInterface::sendMessageToClient(sd_bus_message* message, void* self, sd_bus_error*) {
    Dictionary sessionInfo;
    AggregatedEvent event;
    int result = platform::readDictionary(message, sessionInfo);
    if (result >= 0)
        result = ::sd_bus_message_read(message, "dqq", &event.timestamp, &event.category, &event.type);
    if (result >= 0) result = platform::readOptionalDictionary(message, event.payload);
    if (result < 0) return result;
    event.sessionInfo = sessionInfoFromDictionary(sessionInfo);
    static_cast<ReplyInterface*>(self)->deliver(std::move(event));
    return ::sd_bus_reply_method_return(message, nullptr);
}

void ReplyInterface::deliver(AggregatedEvent event) {
    std::shared_ptr<const AggregationBlock> block;
    {
        const MutexLock lock(_mutex);
        block = _block;
    }
    Connection* connection = _connection;
    if (block == nullptr || connection == nullptr) return;

    const bool ends = event.timestamp == 0 && event.category == 0 && event.type == 0 && !event.payload;
    if (ends) {
        if (block->ended)
            connection->deliverLater(
                {[block, sessionInfo = event.sessionInfo] { block->ended(sessionInfo); }, sizeof event});
        return;
    }
    if (connection->isOverfull()) {
        ++_droppedEvents;
        return;
    }
    const std::size_t bytes = sizeof event + (event.payload ? platform::heldBytes(*event.payload) : 0);
    const auto shared = std::make_shared<AggregatedEvent>(std::move(event));
    connection->deliverLater({[block, shared] { block->event(std::move(*shared)); }, bytes});
}

int ReplyInterface::removeFile(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* token = nullptr;
    if (const int result = ::sd_bus_message_read(message, "s", &token); result < 0) return result;
    static_cast<ReplyInterface*>(self)->_lentFiles.removeFile(token);
    return ::sd_bus_reply_method_return(message, nullptr);
}

}  // namespace quorvane::client
