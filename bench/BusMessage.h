#pragma once

#include "platform/Value.h"

#include <systemd/sd-bus.h>

#include <memory>

namespace quorvane::bench {

struct BusDeleter {
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

/// A bus that goes nowhere; messages can be made for it.
Bus makeBus();

/// A call that carries the dictionary as a{sv}, closed for reading.
BusMessage makeCall(sd_bus* bus, const Dictionary& dictionary);

/// Reads every value of such a call with the bus library, and keeps none; how many there were.
int readAllValues(sd_bus_message* message);

}  // namespace quorvane::bench
