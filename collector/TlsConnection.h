#pragma once

#include "collector/StopSignal.h"
#include "platform/base/Owned.h"
#include "platform/base/UniqueDescriptor.h"

#include <httplib.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace quorvane::collector {

/// The server's end of one TLS connection, as a stream of the HTTP library's. Bounds what a peer can send and
/// how long it may take: a read past the allowance or the deadline fails, and so do all that follow. Reading
/// ends when the program does; writing does not, so that what has been taken is also answered. Used by one
/// thread.
class TlsConnection final : public httplib::Stream {
  public:
    /// Takes the socket over; the context and the signal must outlive the connection.
    TlsConnection(int socket, SSL_CTX& context, const StopSignal& stop);
    ~TlsConnection() override;
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;

    bool handshake(std::chrono::seconds atMost);

    /// Waits for the first byte of a request.
    bool waitForRequest(std::chrono::seconds atMost);

    /// From now on so many bytes may be read, within the time.
    void allow(std::uint64_t bytes, std::chrono::seconds atMost);

    /// Makes further reads fail; what is still to be written goes out.
    void endReading() { _readingEnded = true; }

    /// Ends the connection; reads on for a moment first, without looking at it, since a peer that is still
    /// sending when its connection breaks loses the answer.
    void close();

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* bytes, size_t size) override;
    ssize_t write(const char* bytes, size_t size) override;
    void get_remote_ip_and_port(std::string& address, int& port) const override;
    void get_local_ip_and_port(std::string& address, int& port) const override;
    socket_t socket() const override { return _socket.get(); }
    using httplib::Stream::write;

  private:
    using TimePoint = std::chrono::steady_clock::time_point;

    template <typename Operation>
    int perform(Operation operation, TimePoint deadline, bool stoppable);

    platform::UniqueDescriptor _socket;
    const StopSignal& _stop;
    platform::Owned<SSL, SSL_free> _ssl;
    std::uint64_t _allowance = 0;
    TimePoint _deadline;
    bool _readingEnded = false;
};

}  // namespace quorvane::collector
