#include "platform/bus/BusBody.h"
#include "platform/bus/BusConnection.h"
#include "platform/bus/BusHeader.h"
#include "platform/bus/BusTextReply.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <span>
#include <utility>

namespace quorvane::platform {

// The calls that the bus library does not read: those that bring a file, for it would take the descriptor
// (BusInput.h), and the frequent ones.

void BusConnection::setFileHandler(Method method, FileHandler handler) {
    _fileMethod = method;
    _fileHandler = std::move(handler);
}

int BusConnection::serveFileCall() {
    auto taken = _input.takeFileMessage();
    if (!taken) return -EBADMSG;
    const auto read = readBusCall(taken->bytes);
    const auto& [path, interface, member] = _fileMethod;
    if (!_fileHandler || !read || !bringsOneFile(*read) || read->path != path || read->member != member ||
        (!read->interface.empty() && read->interface != interface))
        return -EBADMSG;
    const BusMessage call = directCall(_fileMethod, *read);
    if (call == nullptr) return -ENOMEM;
    _fileHandler(call.get(), std::move(taken->file));
    return 1;
}

void BusConnection::setDictionaryHandler(Method method, DictionaryHandler handler) {
    _dictionaryMethod = method;
    _dictionaryHandler = std::move(handler);
    _input.setServer([this](std::span<const std::uint8_t> message) { return serveDictionaryCall(message); });
}

/// False for what the bus library is to read: any other call, and this one where the library might read it
/// otherwise or refuse it.
bool BusConnection::serveDictionaryCall(std::span<const std::uint8_t> message) {
    const auto read = readBusCall(message);
    const auto& [path, interface, member] = _dictionaryMethod;
    if (!_dictionaryHandler || !read || read->isForeignEndian || read->hasOtherFields ||
        read->descriptors != 0 || read->member != member || read->interface != interface ||
        read->path != path || read->signature != "a{sv}")
        return false;
    std::uint64_t waiting = 0;
    if (read->expectsReply && (::sd_bus_get_n_queued_write(_bus, &waiting) < 0 || !mayKeepReplies(waiting)))
        return false;
    const auto argument = readPlainDictionary(read->body);
    if (!argument) return false;
    _dictionaryHandler(*read, *argument);
    return true;
}

bool BusConnection::replyWithText(const BusCall& call, const std::string* text) const {
    std::uint64_t waiting = 0;
    return !_servesRest && ::sd_bus_get_n_queued_write(_bus, &waiting) >= 0 && waiting == 0 &&
           writeTextReply(_socket, call.serial, text);
}

BusMessage BusConnection::messageOf(const BusCall& call) const {
    return directCall(_dictionaryMethod, call);
}

/// A call of the bus library's own making, as it would have read it but for the arguments; null when it
/// cannot make one.
BusMessage BusConnection::directCall(const Method& method, const BusCall& read) const {
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_call(_bus, &raw, nullptr, method.path.data(),
                                                  method.interface.data(), method.member.data());
    BusMessage call(raw);
    if (result >= 0) result = ::sd_bus_message_set_expect_reply(raw, read.expectsReply ? 1 : 0);
    if (result >= 0) result = ::sd_bus_message_seal(raw, read.serial, 0);
    return result >= 0 ? std::move(call) : nullptr;
}

}  // namespace quorvane::platform
