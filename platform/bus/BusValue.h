#pragma once

#include "platform/value/Value.h"

#include <systemd/sd-bus.h>

#include <optional>
#include <string>
#include <vector>

namespace quorvane::platform {

/// Values in D-Bus messages. D-Bus has no nil: an optional T travels as "aT" with no element or one. Dates
/// travel as (xu), seconds since 1970 and microseconds. Every function returns 0 or more, or a negative errno
/// value: -EBADMSG or -ENXIO for what is malformed or of another type, -E2BIG for values that nest too deep
/// (Nesting.h) or are more than a million. Of equal keys the last counts. Texts that D-Bus cannot carry
/// (BusText.h) are not appended: -EINVAL.

int readDictionary(sd_bus_message* message, Dictionary& out);                         // a{sv}
int readOptionalDictionary(sd_bus_message* message, std::optional<Dictionary>& out);  // aa{sv}
int readArray(sd_bus_message* message, Array& out);                                   // av or any typed array
int readStrings(sd_bus_message* message, std::vector<std::string>& out);              // as
int readOptionalStrings(sd_bus_message* message, std::optional<std::vector<std::string>>& out);  // aas
int readOptionalString(sd_bus_message* message, std::optional<std::string>& out);  // as, none or one

int appendDictionary(sd_bus_message* message, const Dictionary& dictionary);                  // a{sv}
int appendOptionalDictionary(sd_bus_message* message, const Dictionary* dictionary);          // aa{sv}
int appendArray(sd_bus_message* message, const Array& array);                                 // av
int appendStrings(sd_bus_message* message, const std::vector<std::string>& strings);          // as
int appendOptionalStrings(sd_bus_message* message, const std::vector<std::string>* strings);  // aas
int appendOptionalString(sd_bus_message* message, const std::string* text);  // as, none or one

}  // namespace quorvane::platform
