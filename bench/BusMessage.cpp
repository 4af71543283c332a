#include "bench/BusMessage.h"

#include "bench/Die.h"
#include "framework/Keys.h"
#include "platform/bus/BusValue.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace quorvane::bench {

namespace {

/// Reads an a{sv}.
int readDictionary(sd_bus_message* message) {
    int values = 0;
    checkBus(::sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}"), "dictionary");
    while (checkBus(::sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv"), "entry") > 0) {
        const char* contents = nullptr;
        std::uint64_t room = 0;  // For a number of any width, or a pointer to a text.
        checkBus(::sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &room), "key");
        checkBus(::sd_bus_message_peek_type(message, nullptr, &contents), "type");
        checkBus(::sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents), "variant");
        if (*contents == SD_BUS_TYPE_ARRAY)
            values += readDictionary(message);
        else
            values += checkBus(::sd_bus_message_read_basic(message, *contents, &room), "value");
        checkBus(::sd_bus_message_exit_container(message), "variant's end");
        checkBus(::sd_bus_message_exit_container(message), "entry's end");
    }
    checkBus(::sd_bus_message_exit_container(message), "dictionary's end");
    return values;
}

}  // namespace

int checkBus(int result, const char* what) {
    if (result < 0) die(what, std::strerror(-result));
    return result;
}

Bus makeBus() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
        die("bus", std::strerror(errno));
    sd_bus* bus = nullptr;
    checkBus(::sd_bus_new(&bus), "bus");
    checkBus(::sd_bus_set_fd(bus, ends[0], ends[0]), "bus");
    checkBus(::sd_bus_start(bus), "bus");
    return Bus(bus);
}

Bus connectBus(const std::string& socketPath) {
    sd_bus* bus = nullptr;
    checkBus(::sd_bus_new(&bus), "bus");
    checkBus(::sd_bus_set_address(bus, ("unix:path=" + socketPath).c_str()), "bus address");
    checkBus(::sd_bus_start(bus), "bus connection");
    return Bus(bus);
}

BusMessage makeCall(sd_bus* bus, const Dictionary& dictionary) {
    sd_bus_message* call = nullptr;
    checkBus(::sd_bus_message_new_method_call(bus, &call, nullptr, kQuorvaneObjectPath,
                                              kClientSessionInterface, "Echo"),
             "message");
    checkBus(platform::appendDictionary(call, dictionary), "message");
    return BusMessage(call);
}

BusMessage makeReadableCall(sd_bus* bus, const Dictionary& dictionary) {
    BusMessage call = makeCall(bus, dictionary);
    checkBus(::sd_bus_message_seal(call.get(), 1, 0), "message");
    return call;
}

int readAllValues(sd_bus_message* message) {
    checkBus(::sd_bus_message_rewind(message, 1), "message");
    return readDictionary(message);
}

}  // namespace quorvane::bench
