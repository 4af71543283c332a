#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <list>
#include <string>
#include <string_view>
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

/// One connection of a RawServer, in the hands of a test's script.
class RawConnection {
  public:
    explicit RawConnection(platform::UniqueDescriptor socket) : _socket(std::move(socket)) {}

    /// The next request from its first line to the end of its body; empty when the client closes first.
    std::string readRequest() {
        std::string request;
        std::size_t wanted = std::string::npos;
        while (request.size() < wanted) {
            char piece[65536];
            const ssize_t got = ::recv(_socket.get(), piece, sizeof piece, 0);
            if (got <= 0) return {};
            request.append(piece, static_cast<std::size_t>(got));
            const std::size_t head = request.find("\r\n\r\n");
            if (head == std::string::npos || wanted != std::string::npos) continue;
            const std::size_t length = request.find("Content-Length: ");
            wanted = head + 4 + (length < head ? std::stoul(request.substr(length + 16)) : 0);
        }
        return request;
    }
    /// False once the client has closed.
    bool send(std::string_view bytes) {
        return ::send(_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
    }
    void waitForClose() {
        while (!readRequest().empty()) continue;
    }
    void shutdown() { ::shutdown(_socket.get(), SHUT_RDWR); }

  private:
    platform::UniqueDescriptor _socket;
};

/// A server on 127.0.0.1 that does to each connection, on a thread of its own, what the script says, and then
/// closes it.
class RawServer {
  public:
    using Script = std::function<void(RawConnection&)>;

    explicit RawServer(Script script) : _script(std::move(script)) {
        ::listen(_listener.socket.get(), 128);
        _thread = std::thread([this] { serve(); });
    }
    /// Answers every connection with the same bytes, whatever it is asked, and goes on sending the further
    /// ones without an end, if there are any.
    explicit RawServer(std::string answer, std::string endless = "")
        : RawServer([answer = std::move(answer), endless = std::move(endless)](RawConnection& connection) {
              if (connection.readRequest().empty()) return;
              connection.send(answer);
              while (!endless.empty() && connection.send(endless)) continue;
          }) {}

    ~RawServer() {
        ::shutdown(_listener.socket.get(), SHUT_RDWR);
        _thread.join();
        for (Served& served : _served) served.connection.shutdown();
        for (Served& served : _served) served.thread.join();
    }

    std::string url() const { return fmt::format("http://127.0.0.1:{}/", _listener.port()); }

  private:
    struct Served {
        RawConnection connection;
        std::thread thread;
    };

    void serve() {
        while (true) {
            platform::UniqueDescriptor client(::accept(_listener.socket.get(), nullptr, nullptr));
            if (!client) return;
            Served& served = _served.emplace_back(Served{RawConnection(std::move(client)), {}});
            served.thread = std::thread([this, &connection = served.connection] {
                _script(connection);
                connection.shutdown();
            });
        }
    }

    const Script _script;
    LocalSocket _listener;
    std::list<Served> _served;
    std::thread _thread;
};

}  // namespace quorvane::test
