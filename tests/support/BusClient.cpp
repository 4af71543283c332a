#include "tests/support/BusClient.h"

#include "framework/Keys.h"

#include <sys/socket.h>
#include <sys/un.h>

namespace quorvane::test {

platform::UniqueDescriptor connectSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    platform::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

BusClient::BusClient(platform::UniqueDescriptor socket) {
    ::sd_bus_new(&_bus);
    const int descriptor = socket.release();
    ::sd_bus_set_fd(_bus, descriptor, descriptor);
    ::sd_bus_negotiate_fds(_bus, 1);
    ::sd_bus_start(_bus);
}

Message BusClient::newCall(const char* interface, const char* member) const {
    sd_bus_message* message = nullptr;
    ::sd_bus_message_new_method_call(_bus, &message, nullptr, kQuorvaneObjectPath, interface, member);
    return Message(message);
}

BusReply BusClient::call(const Message& message) const {
    constexpr std::uint64_t limit = 30'000'000;  // Microseconds.
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int result = ::sd_bus_call(_bus, message.get(), limit, &error, &reply);
    BusReply answer{Message(reply), ""};
    if (result < 0) answer.error = error.name != nullptr ? error.name : std::to_string(result);
    ::sd_bus_error_free(&error);
    return answer;
}

}  // namespace quorvane::test
