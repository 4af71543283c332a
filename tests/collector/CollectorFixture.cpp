#include "tests/collector/CollectorFixture.h"

#include "platform/formats/Json.h"
#include "platform/value/Bytes.h"
#include "util/Compression.h"

#include <poll.h>
#include <csignal>

#include <sstream>

namespace quorvane::test {

CollectorTest::CollectorTest() {
    // Clients write to connections that the collector has ended.
    std::signal(SIGPIPE, SIG_IGN);
    std::filesystem::create_directory(bags());
}

void CollectorTest::start(const std::vector<std::string>& further) {
    std::vector<std::string> args{QUORVANE_COLLECTOR, "--port", "0", "--bags", bags(),
                                  "--trust-out",      trust()};
    if (std::find(further.begin(), further.end(), "--events") == further.end())
        args.insert(args.end(), {"--events", events()});
    args.insert(args.end(), further.begin(), further.end());
    _collector = ChildProcess::start(args);
    ASSERT_TRUE(_collector);
    // It is told in one piece.
    ASSERT_TRUE(_collector->waitForOutput("\n")) << _collector->errors();
    _port = portAfter("Listening on https://127.0.0.1:");
    ASSERT_GT(_port, 0);
}

int CollectorTest::portAfter(const std::string& text) const {
    const std::string output = _collector->output();
    const std::size_t found = output.find(text);
    return found == std::string::npos ? 0 : std::atoi(output.c_str() + found + text.size());
}

std::unique_ptr<httplib::SSLClient> CollectorTest::client() const {
    auto client = std::make_unique<httplib::SSLClient>("127.0.0.1", _port);
    client->set_ca_cert_path(trust().c_str());
    client->enable_server_certificate_verification(true);
    client->set_tcp_nodelay(true);
    client->set_read_timeout(std::chrono::seconds(20));
    return client;
}

httplib::Response CollectorTest::post(const std::string& body, const httplib::Headers& headers,
                                      const std::string& type, const std::string& path) const {
    return answered(client()->Post(path, headers, body, type));
}

httplib::Response CollectorTest::get(const std::string& path, const httplib::Headers& headers) const {
    return answered(client()->Get(path, headers));
}

std::string CollectorTest::exchange(std::string_view bytes) const {
    RawConnection connection(_port);
    connection.send(bytes);
    return connection.readToEnd();
}

std::vector<Dictionary> CollectorTest::lines() const {
    std::vector<Dictionary> result;
    std::istringstream text(read(events()));
    for (std::string line; std::getline(text, line);) {
        auto parsed = platform::parseJson(line);
        if (parsed && parsed->dictionary() != nullptr)
            result.push_back(std::move(*parsed->dictionary()));
        else
            ADD_FAILURE() << "no JSON object: " << line;
    }
    return result;
}

std::string CollectorTest::withoutReceipt(Dictionary line) {
    EXPECT_TRUE(line.string("peer")->starts_with("127.0.0.1:"));
    EXPECT_GT(line.find("receivedTime")->real(), 1e9);
    line.remove("peer");
    line.remove("receivedTime");
    return json(line);
}

httplib::Response answered(const httplib::Result& result) {
    return result ? result.value() : httplib::Response();
}

RawConnection::RawConnection(int port) {
    BIO_set_conn_hostname(_connection.get(), fmt::format("127.0.0.1:{}", port).c_str());
}

void RawConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const int count = BIO_write(_connection.get(), bytes.data(),
                                    static_cast<int>(std::min<std::size_t>(bytes.size(), 16384)));
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::string RawConnection::readToEnd() {
    std::string answer;
    char buffer[4096];
    pollfd waited{static_cast<int>(BIO_get_fd(_connection.get(), nullptr)), POLLIN, 0};
    while (BIO_pending(_connection.get()) > 0 || ::poll(&waited, 1, 20000) > 0) {
        const int count = BIO_read(_connection.get(), buffer, sizeof buffer);
        if (count <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(count));
    }
    return answer;
}

std::string gzip(std::string_view bytes) {
    const auto packed = gzipDeflate(platform::bytesOf(bytes));
    return {packed.value().begin(), packed.value().end()};
}

Dictionary eventRecord(int number) {
    Dictionary record =
        *platform::parseJson(R"({"_startTS": 1763280000, "_sender": "CFX", "_clientVersion": 3,
        "_sessionID": "abc.def", "_method": 12, "_status": 3, "_clientTS": 1763280004.6,
        "eventTime": 1763280004.6, "_productFamily": "Board", "_productModel": "B1", "_osVersion": "12",
        "_build": "12.1", "_internal": 0, "_reportVers": "7.0", "_timezoneOffset": -3600, "note": "lüge"})")
             ->dictionary();
    record.set("_eventNumber", number);
    return record;
}

std::string json(const Value& value) {
    const auto bytes = platform::compactJson(value).value();
    return {bytes.begin(), bytes.end()};
}

std::string message(int count, int first) {
    Array events;
    for (int index = 0; index < count; ++index) events.emplace_back(eventRecord(first + index));
    return json(
        Dictionary{{"clientId", "c-1"}, {"events", std::move(events)}, {"postTime", 1'763'280'005.25}});
}

}  // namespace quorvane::test
