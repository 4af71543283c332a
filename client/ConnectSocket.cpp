#include "client/ConnectSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace quorvane::client {

Result<platform::UniqueDescriptor> connectSocket(const std::string& path, Timeout timeout) {
    const auto failure = [&path](ErrorCode code, int error) {
        return Error{code, "cannot connect to " + path + ": " + std::strerror(error)};
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return failure(ErrorCode::InvalidArgument, ENAMETOOLONG);
    path.copy(address.sun_path, path.size());
    platform::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) return failure(ErrorCode::System, errno);
    if (timeout != kNoTimeout) {
        const auto count = std::chrono::ceil<std::chrono::microseconds>(timeout).count();
        const timeval limit{count / 1'000'000, count > 0 ? count % 1'000'000 : 1};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return errno == EAGAIN ? failure(ErrorCode::TimedOut, ETIMEDOUT)
                               : failure(ErrorCode::Disconnected, errno);
    const int flags = ::fcntl(socket.get(), F_GETFL);
    if (::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) return failure(ErrorCode::System, errno);
    return socket;
}

}  // namespace quorvane::client
