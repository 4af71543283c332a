#include "platform/bus/BusAuthentication.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace quorvane::platform {

namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMaximumLineBytes = 4096;

int send(int socket, std::string_view bytes) {
    const ssize_t size = ::send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) return -errno;
    return size == static_cast<ssize_t>(bytes.size()) ? 0 : -ENOBUFS;
}

}  // namespace

UniqueDescriptor BusAuthentication::makeInput() {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) return {};
    _toBus.reset(ends[0]);
    return UniqueDescriptor(ends[1]);
}

int BusAuthentication::process(sd_bus* bus, int client) {
    for (;;) {
        if (const int taken = takeLine(client); taken <= 0) return taken;
        if (const int result = handOver(bus, client); result < 0) return result;
        if (::sd_bus_is_ready(bus) > 0) return 1;
    }
}

/// Takes what there is of the line, and nothing behind it; more than 0 when it is whole. Descriptors that
/// come with it are dropped by the kernel, for recv() has no room for them.
int BusAuthentication::takeLine(int client) {
    for (;;) {
        std::array<char, 256> bytes;
        const ssize_t peeked = ::recv(client, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
        if (peeked == 0) return -ECONNRESET;
        if (peeked < 0) return errno == EAGAIN || errno == EINTR ? 0 : -errno;
        const std::string_view seen(bytes.data(), static_cast<std::size_t>(peeked));
        const std::size_t end = seen.find('\n');
        const std::size_t size = end == seen.npos ? seen.size() : end + 1;
        const ssize_t taken = ::recv(client, bytes.data(), size, MSG_DONTWAIT);
        if (taken != static_cast<ssize_t>(size)) return -EBADMSG;
        _line += seen.substr(0, size);
        if (end != seen.npos) return 1;
        if (_line.size() > kMaximumLineBytes) return -ENOBUFS;
    }
}

int BusAuthentication::handOver(sd_bus* bus, int client) {
    const std::string line = std::exchange(_line, {});
    if (line == "NEGOTIATE_UNIX_FD\r\n") return send(client, "AGREE_UNIX_FD\r\n");
    return give(bus, line);
}

int BusAuthentication::give(sd_bus* bus, std::string_view bytes) {
    if (const int result = send(_toBus.get(), bytes); result < 0) return result;
    int processed = 0;
    do processed = ::sd_bus_process(bus, nullptr);
    while (processed > 0);
    return processed;
}

int BusAuthentication::skip(sd_bus* bus) {
    if (const int result = give(bus, "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"sv); result < 0) return result;
    return ::sd_bus_is_ready(bus) > 0 ? 0 : -EPROTO;
}

}  // namespace quorvane::platform
