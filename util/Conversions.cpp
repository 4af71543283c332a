#include "util/Conversions.h"

#include <arpa/inet.h>

#include <cmath>
#include <string>

namespace quorvane {

double secondsFromTimeValue(platform::TimeValue time) {
    return static_cast<double>(time.seconds) + static_cast<double>(time.microseconds) / 1'000'000;
}

double finiteOrMinusOne(double number) {
    return std::isfinite(number) ? number : -1.0;
}

std::int64_t roundDownToMinute(std::int64_t seconds) {
    return seconds / 60 * 60;
}

sockaddr_in ipv4SocketAddress(std::string_view address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = ::inet_addr(std::string(address.substr(0, 16)).c_str());
    return result;
}

}  // namespace quorvane
