#pragma once

#include "platform/bus/BusConnection.h"
#include "platform/bus/BusMessage.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>

namespace quorvane {

/// How the objects that connections export serve calls and answer them.

/// What a call is answered with that could not be served, because of the result, which is a negative errno:
/// -EMSGSIZE, -ENOBUFS and -EUSERS are bounds, everything else is said of the call's arguments.
int answerFailedCall(int result, sd_bus_error* error);
/// What one is answered with that ended in an exception, which is logged.
inline constexpr const char* kNotServed = "The call could not be served";
void logThrown(const char* member, const std::exception& thrown);

template <typename Object>
int callMethod(int (Object::*method)(sd_bus_message*), void* object, sd_bus_message* call) {
    return (static_cast<Object*>(object)->*method)(call);
}

/// The handler of a vtable for the object's method. The bus library calls it from C, so no exception may
/// leave it. It reads 0 as "not handled", goes on to the next handler and in the end answers UnknownMethod
/// itself; 1 says that the call is done with.
template <auto method>
int serveCall(sd_bus_message* call, void* object, sd_bus_error* error) noexcept {
    try {
        const int result = callMethod(method, object, call);
        return result >= 0 ? 1 : answerFailedCall(result, error);
    } catch (const std::exception& thrown) {
        logThrown(::sd_bus_message_get_member(call), thrown);
        return ::sd_bus_error_set(error, SD_BUS_ERROR_FAILED, kNotServed);
    }
}

/// Answers a call with what is appended, unless no answer is wanted.
///   bytes  about what that takes
template <typename Append>
void answerCall(platform::BusConnection& connection, sd_bus_message* call, std::size_t bytes,
                const Append& append) {
    constexpr std::size_t messageBytes = 128;  // About what it takes beside its contents.
    if (::sd_bus_message_get_expect_reply(call) <= 0) return;
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_return(call, &raw);
    const platform::BusMessage reply(raw);
    if (result >= 0) result = append(raw);
    if (result >= 0) {
        connection.noteQueuedBytes(messageBytes + bytes);
        ::sd_bus_send(nullptr, raw, nullptr);
        return;
    }
    ::sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "The answer cannot be sent (%s)",
                                 std::strerror(-result));
}

inline void answerNothing(platform::BusConnection& connection, sd_bus_message* call) {
    answerCall(connection, call, 0, [](sd_bus_message*) { return 0; });
}

}  // namespace quorvane
