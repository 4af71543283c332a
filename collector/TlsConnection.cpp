#include "collector/TlsConnection.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string_view>

namespace quorvane::collector {

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kWriteTime{30};
constexpr seconds kLingerTime{2};
constexpr std::size_t kLingerBytes = 64u << 20;

void prepare(int socket) {
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void readAddress(const sockaddr_storage& from, socklen_t size, std::string& address, int& port) {
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> service{};
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&from), size, host.data(), host.size(),
                      service.data(), service.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return;
    address = host.data();
    const std::string_view digits = service.data();
    std::from_chars(digits.data(), digits.data() + digits.size(), port);
}

int bounded(std::size_t size) {
    return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

}  // namespace

TlsConnection::TlsConnection(int socket, SSL_CTX& context, const StopSignal& stop)
    : _socket(socket), _stop(stop), _ssl(SSL_new(&context)) {
    prepare(socket);
    if (_ssl) SSL_set_fd(_ssl.get(), socket);
}

TlsConnection::~TlsConnection() = default;

/// Repeats the operation until it is done, waiting for what it waits for. The number of bytes, or -1.
template <typename Operation>
int TlsConnection::perform(Operation operation, TimePoint deadline, bool stoppable) {
    for (;;) {
        ERR_clear_error();
        const int count = operation(_ssl.get());
        if (count > 0) return count;
        const int wanted = SSL_get_error(_ssl.get(), count);
        if (wanted != SSL_ERROR_WANT_READ && wanted != SSL_ERROR_WANT_WRITE) return -1;
        const auto events = static_cast<short>(wanted == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT);
        if (!_stop.waitFor(_socket.get(), events, deadline, stoppable)) return -1;
    }
}

bool TlsConnection::handshake(seconds atMost) {
    return _ssl && perform([](SSL* ssl) { return SSL_accept(ssl); }, steady_clock::now() + atMost, true) == 1;
}

bool TlsConnection::waitForRequest(seconds atMost) {
    if (_readingEnded) return false;
    return SSL_has_pending(_ssl.get()) == 1 ||
           _stop.waitFor(_socket.get(), POLLIN, steady_clock::now() + atMost);
}

void TlsConnection::allow(std::uint64_t bytes, seconds atMost) {
    _allowance = bytes;
    _deadline = steady_clock::now() + atMost;
}

void TlsConnection::close() {
    if (!_socket) return;
    if (_ssl && SSL_is_init_finished(_ssl.get()) == 1) SSL_shutdown(_ssl.get());
    ::shutdown(_socket.get(), SHUT_WR);
    const auto deadline = steady_clock::now() + kLingerTime;
    std::array<char, 16384> ignored;
    for (std::size_t total = 0; total < kLingerBytes && _stop.waitFor(_socket.get(), POLLIN, deadline);) {
        const ssize_t count = ::recv(_socket.get(), ignored.data(), ignored.size(), 0);
        if (count <= 0) break;
        total += static_cast<std::size_t>(count);
    }
    _ssl.reset();
    _socket.reset();
}

bool TlsConnection::is_readable() const {
    return !_readingEnded;
}

bool TlsConnection::is_writable() const {
    return true;
}

ssize_t TlsConnection::read(char* bytes, size_t size) {
    const std::size_t most = std::min<std::uint64_t>(size, _allowance);
    int count = -1;
    if (most > 0 && !_readingEnded)
        count = perform([&](SSL* ssl) { return SSL_read(ssl, bytes, bounded(most)); }, _deadline, true);
    if (count > 0)
        _allowance -= static_cast<std::uint64_t>(count);
    else
        _readingEnded = true;
    return count;
}

ssize_t TlsConnection::write(const char* bytes, size_t size) {
    if (size == 0) return 0;
    return perform([&](SSL* ssl) { return SSL_write(ssl, bytes, bounded(size)); },
                   steady_clock::now() + kWriteTime, false);
}

void TlsConnection::get_remote_ip_and_port(std::string& address, int& port) const {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    if (::getpeername(_socket.get(), reinterpret_cast<sockaddr*>(&peer), &size) == 0)
        readAddress(peer, size, address, port);
}

void TlsConnection::get_local_ip_and_port(std::string& address, int& port) const {
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (::getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&own), &size) == 0)
        readAddress(own, size, address, port);
}

}  // namespace quorvane::collector
