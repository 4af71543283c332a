#include "tests/support/HttpsServer.h"

#include "tests/support/TestCertificate.h"

#include <httplib.h>

#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <condition_variable>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace quorvane::test {

namespace {

ServerRequest received(const httplib::Request& request) {
    return {request.method,
            request.target,
            {request.headers.begin(), request.headers.end()},
            request.body,
            request.remote_port};
}

void put(const ServerAnswer& answer, httplib::Response& response) {
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);
    response.body = answer.body;
}

}  // namespace

std::vector<std::string> ServerRequest::headerValues(std::string_view name) const {
    std::vector<std::string> values;
    const std::string sought(name);
    for (const auto& [known, value] : headers)
        if (::strcasecmp(known.c_str(), sought.c_str()) == 0) values.push_back(value);
    return values;
}

std::string ServerRequest::header(std::string_view name) const {
    const auto values = headerValues(name);
    return values.empty() ? "absent" : values.front();
}

struct HttpsServer::Held {
    explicit Held(const TestCertificate& certificate)
        : server([&](SSL_CTX& context) { return useCertificate(context, certificate); }) {
        if (!server.is_valid()) throw std::runtime_error("HttpsServer: the certificate was not taken");
        // A kept-alive connection occupies a thread as long as it lasts.
        server.new_task_queue = [] { return new httplib::ThreadPool(32); };
        server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
        server.set_keep_alive_timeout(60);
        server.set_tcp_nodelay(true);
        const auto serve = [this](const httplib::Request& request, httplib::Response& response) {
            put(answerTo(received(request)), response);
        };
        server.Get(".*", serve);
        server.Post(".*", serve);
        server.Put(".*", serve);
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running()) std::this_thread::yield();
    }

    ~Held() {
        server.stop();
        endConnections();
        thread.join();
    }

    /// The library waits for kept-alive connections until they time out, and does not tell their descriptors.
    void endConnections() const {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            const int descriptor = std::stoi(entry.path().filename());
            sockaddr_in own{};
            socklen_t size = sizeof own;
            if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
                own.sin_family == AF_INET && ntohs(own.sin_port) == port)
                ::shutdown(descriptor, SHUT_RDWR);
        }
    }

    ServerAnswer answerTo(ServerRequest request) {
        Handler chosen;
        {
            const std::lock_guard lock(mutex);
            requests.push_back(request);
            chosen = handler;
            changed.notify_all();
        }
        return chosen(request);
    }

    httplib::SSLServer server;
    int port = 0;
    std::thread thread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<ServerRequest> requests;
    Handler handler = [](const ServerRequest&) { return ServerAnswer(); };
};

HttpsServer::HttpsServer(const std::filesystem::path& root) {
    const TestCertificate certificate = makeTestCertificate();
    _held = std::make_unique<Held>(certificate);
    if (!root.empty()) trustCertificate(certificate, root, "server-" + std::to_string(port()));
}

HttpsServer::~HttpsServer() = default;

int HttpsServer::port() const {
    return _held->port;
}

std::string HttpsServer::url(std::string_view path) const {
    return "https://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

void HttpsServer::setHandler(Handler handler) {
    const std::lock_guard lock(_held->mutex);
    _held->handler = std::move(handler);
}

void HttpsServer::answerWith(ServerAnswer answer) {
    setHandler([answer = std::move(answer)](const ServerRequest&) { return answer; });
}

std::vector<ServerRequest> HttpsServer::requests() const {
    const std::lock_guard lock(_held->mutex);
    return _held->requests;
}

std::size_t HttpsServer::requestCount() const {
    return requests().size();
}

void HttpsServer::forgetRequests() {
    const std::lock_guard lock(_held->mutex);
    _held->requests.clear();
}

bool HttpsServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock lock(_held->mutex);
    return _held->changed.wait_for(lock, limit, [&] { return _held->requests.size() >= count; });
}

}  // namespace quorvane::test
