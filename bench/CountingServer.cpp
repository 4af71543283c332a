#include "bench/CountingServer.h"

#include "bench/Load.h"
#include "tests/support/TestCertificate.h"

#include <httplib.h>
#include <sched.h>

#include <condition_variable>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

std::uint64_t occurrences(std::string_view text, std::string_view sought) {
    std::uint64_t count = 0;
    for (std::size_t at = text.find(sought); at != std::string_view::npos;
         at = text.find(sought, at + sought.size()))
        ++count;
    return count;
}

/// A kept-alive connection occupies a thread as long as it lasts.
constexpr std::size_t kThreads = 32;

}  // namespace

struct CountingServer::Held {
    explicit Held(const test::TestCertificate& certificate)
        : server([&](SSL_CTX& context) { return test::useCertificate(context, certificate); }) {
        if (!server.is_valid()) throw std::runtime_error("the collector's certificate was not taken");
        server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
        server.set_keep_alive_timeout(60);
        server.set_tcp_nodelay(true);
        server.set_payload_max_length(std::numeric_limits<std::size_t>::max());
        server.Post("/upload.*", [](const httplib::Request&, httplib::Response& response,
                                    const httplib::ContentReader& content) {
            content([](const char*, std::size_t) { return true; });
            response.set_content("ok", "text/plain");
        });
        server.Post(".*",
                    [this](const httplib::Request& request, httplib::Response&) { countPost(request.body); });
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] {
            // It stands for another machine: its threads, which inherit this, take only what others leave.
            const sched_param none{};
            ::sched_setscheduler(0, SCHED_IDLE, &none);
            server.listen_after_bind();
        });
        while (!server.is_running()) std::this_thread::yield();
    }

    ~Held() {
        setStalled(false);
        server.stop();
        thread.join();
    }

    void countPost(const std::string& body) {
        static const std::string mark = fmt::format("\"_method\":{},", kCategory);
        const std::uint64_t found = occurrences(body, mark);
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return !stalled; });
        events += found;
        ++posts;
        if (kept.size() < mostKept) kept.emplace_back(body.begin(), body.end());
        changed.notify_all();
    }

    void setStalled(bool on) {
        const std::lock_guard lock(mutex);
        stalled = on;
        changed.notify_all();
    }

    httplib::SSLServer server;
    int port = 0;
    std::thread thread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    // Guarded by the mutex.
    std::uint64_t events = 0;
    std::uint64_t posts = 0;
    bool stalled = false;
    std::size_t mostKept = 0;
    std::vector<Data> kept;
};

CountingServer::CountingServer(const std::filesystem::path& root) {
    const test::TestCertificate certificate = test::makeTestCertificate();
    _held = std::make_unique<Held>(certificate);
    test::trustCertificate(certificate, root, "collector");
}

CountingServer::~CountingServer() = default;

std::string CountingServer::url(std::string_view path) const {
    return fmt::format("https://127.0.0.1:{}{}", _held->port, path);
}

std::uint64_t CountingServer::events() const {
    const std::lock_guard lock(_held->mutex);
    return _held->events;
}

std::uint64_t CountingServer::posts() const {
    const std::lock_guard lock(_held->mutex);
    return _held->posts;
}

bool CountingServer::waitForEvents(std::uint64_t count, std::chrono::seconds limit) const {
    std::unique_lock lock(_held->mutex);
    return _held->changed.wait_for(lock, limit, [&] { return _held->events >= count; });
}

void CountingServer::setStalled(bool stalled) {
    _held->setStalled(stalled);
}

void CountingServer::keepMessages(std::size_t most) {
    const std::lock_guard lock(_held->mutex);
    _held->mostKept = most;
    _held->kept.clear();
}

std::vector<Data> CountingServer::keptMessages() const {
    const std::lock_guard lock(_held->mutex);
    return _held->kept;
}

}  // namespace quorvane::bench
