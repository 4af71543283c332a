#include "bench/BusMessage.h"

#include "bench/Die.h"
#include "platform/BusValue.h"

#include <sys/socket.h>

#include <cstring>

namespace quorvane::bench {

namespace {

int check(int result, const char* what) {
    if (result < 0) die(what, std::strerror(-result));
    return result;
}

/// Reads an a{sv}.
int readDictionary(sd_bus_message* message) {
    int values = 0;
    check(::sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}"), "dictionary");
    while (check(::sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv"), "entry") > 0) {
        const char* contents = nullptr;
        std::uint64_t room = 0;  // For a number of any width, or a pointer to a text.
        check(::sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &room), "key");
        check(::sd_bus_message_peek_type(message, nullptr, &contents), "type");
        check(::sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents), "variant");
        if (*contents == SD_BUS_TYPE_ARRAY)
            values += readDictionary(message);
        else
            values += check(::sd_bus_message_read_basic(message, *contents, &room), "value");
        check(::sd_bus_message_exit_container(message), "variant's end");
        check(::sd_bus_message_exit_container(message), "entry's end");
    }
    check(::sd_bus_message_exit_container(message), "dictionary's end");
    return values;
}

}  // namespace

Bus makeBus() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
        die("bus", std::strerror(errno));
    sd_bus* bus = nullptr;
    check(::sd_bus_new(&bus), "bus");
    check(::sd_bus_set_fd(bus, ends[0], ends[0]), "bus");
    check(::sd_bus_start(bus), "bus");
    return Bus(bus);
}

BusMessage makeCall(sd_bus* bus, const Dictionary& dictionary) {
    sd_bus_message* call = nullptr;
    check(::sd_bus_message_new_method_call(bus, &call, nullptr, "/", "a.b", "C"), "message");
    check(platform::appendDictionary(call, dictionary), "message");
    check(::sd_bus_message_seal(call, 1, 0), "message");
    return BusMessage(call);
}

int readAllValues(sd_bus_message* message) {
    check(::sd_bus_message_rewind(message, 1), "message");
    return readDictionary(message);
}

}  // namespace quorvane::bench
