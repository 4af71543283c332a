#pragma once

#include "platform/Value.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::test {

/// Runs the collector in a folder of its own.
class CollectorTest : public ::testing::Test {
  protected:
    CollectorTest();
    ~CollectorTest() override;

    std::filesystem::path folder() const { return _folder; }
    std::filesystem::path bags() const { return _folder / "bags"; }
    std::filesystem::path events() const { return _folder / "events.jsonl"; }
    std::filesystem::path trust() const { return _folder / "root/etc/quorvane/trust/collector.pem"; }

    /// Starts the collector on a free port with the folder's bags, events and trust, and waits until it
    /// listens.
    void start(const std::vector<std::string>& further = {});
    /// The command line of start().
    std::vector<std::string> commandLine(const std::vector<std::string>& further = {}) const;
    ChildProcess& collector() { return *_collector; }
    int port() const { return _port; }

    /// A client that trusts the collector's certificate and no other.
    std::unique_ptr<httplib::SSLClient> client(const std::string& host = "127.0.0.1") const;

    /// Sends the bytes and tells what comes back until the collector ends the connection.
    std::string exchange(std::string_view bytes) const;

    /// The lines written so far, parsed; a line that is not JSON fails the test.
    std::vector<Dictionary> lines() const;

  private:
    std::filesystem::path _folder;
    std::unique_ptr<ChildProcess> _collector;
    int _port = 0;
};

/// A TLS connection to the port of 127.0.0.1 that sends what it is told, HTTP or not.
class RawConnection {
  public:
    explicit RawConnection(int port);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    /// A peer that has had enough stops taking what is sent; what it answered is still there to be read.
    void send(std::string_view bytes);
    /// What comes until the peer ends the connection.
    std::string readToEnd();

  private:
    SSL_CTX* _context;
    BIO* _connection;
};

void writeFile(const std::filesystem::path& path, std::string_view text);
std::string readFile(const std::filesystem::path& path);

/// The bytes as a gzip stream.
std::string gzip(std::string_view bytes);

/// A record as a device writes it, with the event number.
Dictionary eventRecord(int number);
std::string json(const Value& value);
/// A message of records numbered from the first.
std::string message(int count = 1, int first = 0);

}  // namespace quorvane::test
