#include "tests/collector/CollectorFixture.h"

#include "platform/Json.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <stdlib.h>
#include <zlib.h>
#include <csignal>

#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include <fmt/format.h>

namespace quorvane::test {

namespace fs = std::filesystem;

CollectorTest::CollectorTest() {
    // Clients write to connections that the collector has ended.
    std::signal(SIGPIPE, SIG_IGN);
    std::string pattern = fs::temp_directory_path() / "collectorXXXXXX";
    _folder = ::mkdtemp(pattern.data());
    fs::create_directory(bags());
}

CollectorTest::~CollectorTest() {
    _collector.reset();
    fs::remove_all(_folder);
}

std::vector<std::string> CollectorTest::commandLine(const std::vector<std::string>& further) const {
    std::vector<std::string> args{QUORVANE_COLLECTOR, "--port", "0", "--bags", bags(),
                                  "--trust-out",      trust()};
    if (std::find(further.begin(), further.end(), "--events") == further.end())
        args.insert(args.end(), {"--events", events()});
    args.insert(args.end(), further.begin(), further.end());
    return args;
}

void CollectorTest::start(const std::vector<std::string>& further) {
    _collector = ChildProcess::start(commandLine(further));
    ASSERT_TRUE(_collector);
    ASSERT_TRUE(_collector->waitForOutput("Listening on https://127.0.0.1:") &&
                _collector->waitForOutput("\n"))
        << _collector->errors();
    const std::string output = _collector->output();
    const std::size_t colon = output.find(':', output.find("127.0.0.1"));
    std::from_chars(output.data() + colon + 1, output.data() + output.size(), _port);
    ASSERT_GT(_port, 0);
}

std::unique_ptr<httplib::SSLClient> CollectorTest::client(const std::string& host) const {
    auto client = std::make_unique<httplib::SSLClient>(host, _port);
    client->set_ca_cert_path(trust().c_str());
    client->enable_server_certificate_verification(true);
    client->set_tcp_nodelay(true);
    client->set_read_timeout(std::chrono::seconds(20));
    return client;
}

std::string CollectorTest::exchange(std::string_view bytes) const {
    RawConnection connection(_port);
    connection.send(bytes);
    return connection.readToEnd();
}

std::vector<Dictionary> CollectorTest::lines() const {
    std::vector<Dictionary> result;
    std::istringstream text(readFile(events()));
    for (std::string line; std::getline(text, line);) {
        auto parsed = platform::parseJson(line);
        if (parsed && parsed->dictionary() != nullptr)
            result.push_back(std::move(*parsed->dictionary()));
        else
            ADD_FAILURE() << "no JSON object: " << line;
    }
    return result;
}

RawConnection::RawConnection(int port)
    : _context(SSL_CTX_new(TLS_client_method())), _connection(BIO_new_ssl_connect(_context)) {
    BIO_set_conn_hostname(_connection, fmt::format("127.0.0.1:{}", port).c_str());
}

RawConnection::~RawConnection() {
    BIO_free_all(_connection);
    SSL_CTX_free(_context);
}

void RawConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const int count = BIO_write(_connection, bytes.data(),
                                    static_cast<int>(std::min<std::size_t>(bytes.size(), 16384)));
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::string RawConnection::readToEnd() {
    std::string answer;
    char buffer[4096];
    pollfd waited{static_cast<int>(BIO_get_fd(_connection, nullptr)), POLLIN, 0};
    while (BIO_pending(_connection) > 0 || ::poll(&waited, 1, 20000) > 0) {
        const int count = BIO_read(_connection, buffer, sizeof buffer);
        if (count <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(count));
    }
    return answer;
}

void writeFile(const fs::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string gzip(std::string_view bytes) {
    z_stream state{};
    deflateInit2(&state, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string packed(deflateBound(&state, bytes.size()), '\0');
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    state.avail_in = static_cast<uInt>(bytes.size());
    state.next_out = reinterpret_cast<Bytef*>(packed.data());
    state.avail_out = static_cast<uInt>(packed.size());
    deflate(&state, Z_FINISH);
    packed.resize(state.total_out);
    deflateEnd(&state);
    return packed;
}

Dictionary eventRecord(int number) {
    return {{"_startTS", 1'763'280'000},
            {"_sender", "CFX"},
            {"_clientVersion", 3},
            {"_sessionID", "abc.def"},
            {"_eventNumber", number},
            {"_method", 12},
            {"_status", 3},
            {"_clientTS", 1'763'280'004.6},
            {"eventTime", 1'763'280'004.6},
            {"_productFamily", "Board"},
            {"_productModel", "B1"},
            {"_osVersion", "12"},
            {"_build", "12.1"},
            {"_internal", 0},
            {"_reportVers", "7.0"},
            {"_timezoneOffset", -3600},
            {"note", "lüge"}};
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
