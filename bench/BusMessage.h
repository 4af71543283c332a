#pragma once

#include "platform/Value.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace quorvane::bench {

/// Ends the program when the bus library's result is an error.
int checkBus(int result, const char* what);

struct BusDeleter {
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

/// A bus that goes nowhere; messages can be made for it.
Bus makeBus();
/// The bus of a peer that listens at the path.
Bus connectBus(const std::string& socketPath);

/// A call of "Echo" that carries the dictionary as a{sv}.
BusMessage makeCall(sd_bus* bus, const Dictionary& dictionary);
/// The same, closed for reading.
BusMessage makeReadableCall(sd_bus* bus, const Dictionary& dictionary);

/// Reads every value of such a call with the bus library, and keeps none; how many there were.
int readAllValues(sd_bus_message* message);

}  // namespace quorvane::bench
