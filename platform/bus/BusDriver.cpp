#include "platform/bus/BusDriver.h"

#include <cstring>

namespace quorvane::platform {

namespace {

constexpr const char* kDriverName = "org.freedesktop.DBus";
constexpr const char* kClientName = ":1.1";

int replyEmpty(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, nullptr);
}

int hello(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, "s", kClientName);
}

/// There is one peer, so every name it asks for is this end's.
int getNameOwner(sd_bus_message* call, void*, sd_bus_error*) {
    const char* name = nullptr;
    if (const int result = ::sd_bus_message_read(call, "s", &name); result < 0) return result;
    return ::sd_bus_reply_method_return(call, "s",
                                        std::strcmp(name, kClientName) == 0 ? kClientName : kDriverName);
}

int nameHasOwner(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, "b", 1);
}

int listNames(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, "as", 2, kDriverName, kClientName);
}

int listActivatableNames(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, "as", 0);
}

int startServiceByName(sd_bus_message* call, void*, sd_bus_error*) {
    constexpr unsigned alreadyRunning = 2;
    return ::sd_bus_reply_method_return(call, "u", alreadyRunning);
}

const sd_bus_vtable driverVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Hello", "", "s", hello, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddMatch", "s", "", replyEmpty, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RemoveMatch", "s", "", replyEmpty, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetNameOwner", "s", "s", getNameOwner, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("NameHasOwner", "s", "b", nameHasOwner, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ListNames", "", "as", listNames, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ListActivatableNames", "", "as", listActivatableNames, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StartServiceByName", "su", "u", startServiceByName, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int addBusDriver(sd_bus* bus) {
    return ::sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/DBus", kDriverName, driverVtable,
                                      nullptr);
}

}  // namespace quorvane::platform
