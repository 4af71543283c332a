#pragma once

#include "platform/value/Value.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RootFixture.h"

#include <httplib.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane::test {

/// Runs the collector in a folder of its own.
class CollectorTest : public RootFixture {
  protected:
    CollectorTest();

    std::filesystem::path bags() const { return _root / "bags"; }
    std::filesystem::path events() const { return _root / "events.jsonl"; }
    std::filesystem::path trust() const { return _root / "etc/quorvane/trust/collector.pem"; }

    /// Starts the collector on a free port with the folder's bags, events and trust, and waits until it
    /// listens.
    void start(const std::vector<std::string>& further = {});
    ChildProcess& collector() { return *_collector; }
    int port() const { return _port; }
    /// The number behind the text in what the collector has printed; 0 for none.
    int portAfter(const std::string& text) const;

    /// A client that trusts the collector's certificate and no other.
    std::unique_ptr<httplib::SSLClient> client() const;

    /// The answer to a post or a get; one of status -1 when none came.
    httplib::Response post(const std::string& body, const httplib::Headers& headers = {},
                           const std::string& type = "application/json",
                           const std::string& path = "/events") const;
    httplib::Response get(const std::string& path, const httplib::Headers& headers = {}) const;

    /// Sends the bytes and tells what comes back until the collector ends the connection.
    std::string exchange(std::string_view bytes) const;

    /// The lines written so far, parsed; a line that is not JSON fails the test.
    std::vector<Dictionary> lines() const;
    /// The line as JSON, without its peer and time of receipt, which must be plausible.
    static std::string withoutReceipt(Dictionary line);

  private:
    std::unique_ptr<ChildProcess> _collector;
    int _port = 0;
};

httplib::Response answered(const httplib::Result& result);

/// A TLS connection to the port of 127.0.0.1 that sends what it is told, HTTP or not.
class RawConnection {
  public:
    explicit RawConnection(int port);

    /// A peer that has had enough stops taking what is sent; what it answered is still there to be read.
    void send(std::string_view bytes);
    /// What comes until the peer ends the connection.
    std::string readToEnd();

  private:
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> _context{SSL_CTX_new(TLS_client_method()), SSL_CTX_free};
    std::unique_ptr<BIO, void (*)(BIO*)> _connection{BIO_new_ssl_connect(_context.get()), BIO_free_all};
};

/// The bytes as a gzip stream, and the header that tells of it.
std::string gzip(std::string_view bytes);
inline const httplib::Headers kPacked{{"Content-Encoding", "gzip"}};

/// A record as a device writes it, with the event number.
Dictionary eventRecord(int number);
std::string json(const Value& value);
/// A message of records numbered from the first.
std::string message(int count = 1, int first = 0);

}  // namespace quorvane::test
