#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <thread>
#include <utility>

namespace quorvane::test {

/// A socket bound to a free port of 127.0.0.1. Until it listens, a server may be told to take the port.
struct LocalSocket {
    LocalSocket() {
        const int on = 1;
        ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size);
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
    }
    int port() const { return ntohs(address.sin_port); }

    platform::UniqueDescriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    socklen_t size = sizeof address;
};

/// A server that answers every connection on 127.0.0.1 with the same bytes, whatever it is asked, and then
/// closes it, or goes on sending further bytes without an end.
class RawServer {
  public:
    explicit RawServer(std::string answer, std::string endless = "")
        : _answer(std::move(answer)), _endless(std::move(endless)) {
        ::listen(_listener.socket.get(), 8);
        _thread = std::thread([this] { serve(); });
    }

    ~RawServer() {
        ::shutdown(_listener.socket.get(), SHUT_RDWR);
        _thread.join();
    }

    std::string url() const { return fmt::format("http://127.0.0.1:{}/", _listener.port()); }

  private:
    void serve() const {
        while (true) {
            const platform::UniqueDescriptor client(::accept(_listener.socket.get(), nullptr, nullptr));
            if (!client) return;
            char request[4096];
            if (::recv(client.get(), request, sizeof request, 0) <= 0) continue;
            const auto send = [&](const std::string& bytes) {
                return ::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
            };
            send(_answer);
            while (send(_endless)) continue;
        }
    }

    const std::string _answer;
    const std::string _endless;
    LocalSocket _listener;
    std::thread _thread;
};

}  // namespace quorvane::test
