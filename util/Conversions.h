#pragma once

#include "platform/base/Clock.h"

#include <netinet/in.h>

#include <cstdint>
#include <string_view>

namespace quorvane {

/// Seconds plus microseconds / 1,000,000.
double secondsFromTimeValue(platform::TimeValue time);

/// The number, or -1 when it is not finite.
double finiteOrMinusOne(double number);

/// Whole minutes in seconds, rounded toward zero: 119 gives 60, -61 gives -60.
std::int64_t roundDownToMinute(std::int64_t seconds);

/// An IPv4 socket address (ip(7)); the first 16 characters of the text are read as a dotted quad. A text that
/// does not parse gives the address 255.255.255.255. The port is in host order.
sockaddr_in ipv4SocketAddress(std::string_view address, std::uint16_t port);

}  // namespace quorvane
