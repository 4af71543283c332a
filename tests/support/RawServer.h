#pragma once

#include "platform/UniqueDescriptor.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <utility>

namespace quorvane::test {

/// A socket bound to a free port of 127.0.0.1.
struct LocalSocket {
    LocalSocket() {
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
/// closes it, or goes on sending the bytes without an end.
class RawServer {
  public:
    explicit RawServer(std::string answer, bool endless = false) {
        ::listen(_listener.socket.get(), 8);
        _thread = std::thread([this, answer = std::move(answer), endless] { serve(answer, endless); });
    }

    ~RawServer() {
        ::shutdown(_listener.socket.get(), SHUT_RDWR);
        _thread.join();
    }

    std::string url() const { return fmt::format("http://127.0.0.1:{}/", _listener.port()); }

  private:
    void serve(const std::string& answer, bool endless) const {
        while (true) {
            const platform::UniqueDescriptor client(::accept(_listener.socket.get(), nullptr, nullptr));
            if (!client) return;
            char request[4096];
            if (::recv(client.get(), request, sizeof request, 0) <= 0) continue;
            while (::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL) > 0 && endless) continue;
        }
    }

    LocalSocket _listener;
    std::thread _thread;
};

}  // namespace quorvane::test
