#include "client/ConnectSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace quorvane::client {

namespace {

/// Waits while the listener's backlog is full, and goes on after signals. Returns an errno value, EAGAIN when
/// the deadline has passed.
int connectUntil(const Deadline& deadline, int socket, const sockaddr_un& address) {
    for (;;) {
        if (deadline) {
            const std::uint64_t rest = microsecondsUntil(deadline);
            const timeval limit{static_cast<time_t>(rest / 1'000'000),
                                static_cast<suseconds_t>(rest % 1'000'000)};
            ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        }
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return 0;
        if (errno != EINTR) return errno;
    }
}

}  // namespace

Result<platform::UniqueDescriptor> connectSocket(const std::string& path, const Deadline& deadline) {
    const auto failure = [&path](ErrorCode code, int error) {
        return Error{code, "cannot connect to " + path + ": " + std::strerror(error)};
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return failure(ErrorCode::InvalidArgument, ENAMETOOLONG);
    path.copy(address.sun_path, path.size());
    platform::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) return failure(ErrorCode::System, errno);
    if (const int error = connectUntil(deadline, socket.get(), address); error != 0)
        return failure(error == EAGAIN ? ErrorCode::TimedOut : ErrorCode::Disconnected,
                       error == EAGAIN ? ETIMEDOUT : error);
    const int flags = ::fcntl(socket.get(), F_GETFL);
    if (::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) return failure(ErrorCode::System, errno);
    return socket;
}

}  // namespace quorvane::client
