#include "tests/support/BusClient.h"

#include "framework/Keys.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <vector>

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

bool sendWithDescriptors(const platform::UniqueDescriptor& socket, std::string_view bytes,
                         std::size_t count) {
    const std::vector<int> descriptors(count, STDIN_FILENO);
    std::vector<char> control(CMSG_SPACE(count * sizeof(int)));
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(count * sizeof(int));
    std::memcpy(CMSG_DATA(rights), descriptors.data(), count * sizeof(int));
    return ::sendmsg(socket.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

BusClient::BusClient(platform::UniqueDescriptor socket) {
    if (!socket) throw std::runtime_error("nobody listens");
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
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int result = ::sd_bus_call(_bus, message.get(), limit, &error, &reply);
    BusReply answer{Message(reply), ""};
    if (result < 0) answer.error = error.name != nullptr ? error.name : std::to_string(result);
    ::sd_bus_error_free(&error);
    return answer;
}

}  // namespace quorvane::test
