#include "platform/http/HttpSession.h"

#include "platform/base/MemoryBudget.h"
#include "platform/base/Thread.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/http/HttpTransfer.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <climits>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <semaphore>
#include <utility>
#include <variant>

namespace quorvane::platform {

namespace {

/// Requests under way to one server at once. The others of that server wait in their order and cost no more
/// than they hold, and a server that stalls keeps no other waiting.
constexpr std::size_t kTransfersPerServer = 8;
constexpr long kIdleConnections = 16;
/// About what a waiting request takes beside its body.
constexpr std::size_t kRequestBytes = 1024;
constexpr std::size_t kWaitingBytes = 16u << 20;

struct Task {
    HttpRequest request;
    HttpCompletion completion;
    /// What it takes of the room for waiting bodies, if it counts there.
    std::optional<MemoryBudget::Reservation> room = {};
    bool isAwaited = false;  ///< A thread does nothing else until the request is done.
};

/// Scheme, host and port as they stand in the URL.
std::string serverOf(const std::string& url) {
    const std::size_t scheme = url.find("://");
    return url.substr(0, scheme == std::string::npos ? 0 : url.find('/', scheme + 3));
}

/// How many requests have not completed.
class Unfinished {
  public:
    void add() {
        const MutexLock lock(_mutex);
        ++_count;
    }

    void remove() {
        const MutexLock lock(_mutex);
        if (--_count == 0) _changed.notify_all();
    }

    bool waitForNone(std::chrono::milliseconds atMost) {
        const auto end = std::chrono::steady_clock::now() + atMost;
        const MutexLock lock(_mutex);
        bool inTime = true;
        while (inTime && _count > 0) inTime = _changed.wait_until(_mutex, end) == std::cv_status::no_timeout;
        return _count == 0;
    }

  private:
    Mutex _mutex;
    std::condition_variable_any _changed;
    std::size_t _count GUARDED_BY(_mutex) = 0;
};

/// The one thread that carries all requests out.
class SessionThread {
  public:
    explicit SessionThread(Unfinished& unfinished) : _unfinished(unfinished) {}

    /// False when libcurl or the kernel refuses.
    bool start() {
        // The library stays usable in this thread while the process ends.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
        _multi = curl_multi_init();
        if (_multi == nullptr) return false;
        curl_multi_setopt(_multi, CURLMOPT_MAXCONNECTS, kIdleConnections);
        auto thread = startThread("quorvane-http", [this] { run(); });
        if (thread) thread->detach();
        return thread.has_value();
    }

    /// From any thread.
    void submit(Task task) {
        {
            const MutexLock lock(_mutex);
            _submitted.push_back(std::move(task));
        }
        curl_multi_wakeup(_multi);
    }

  private:
    struct Server {
        std::size_t active = 0;
        std::deque<Task> waiting;
    };
    using ServerEntry = std::map<std::string, Server>::iterator;
    struct Active {
        std::unique_ptr<HttpTransfer> transfer;
        Task task;  ///< Its request is the transfer's.
        ServerEntry server;
    };

    void run() {
        while (true) {
            takeSubmitted();
            int running = 0;
            curl_multi_perform(_multi, &running);
            finishTransfers();
            curl_multi_poll(_multi, nullptr, 0, INT_MAX, nullptr);
        }
    }

    void takeSubmitted() {
        std::deque<Task> submitted;
        {
            const MutexLock lock(_mutex);
            submitted.swap(_submitted);
        }
        for (Task& task : submitted) {
            const ServerEntry server = _servers.try_emplace(serverOf(task.request.url)).first;
            // The time limit of what someone waits for counts from its start, so it does not queue.
            if (task.isAwaited)
                startTransfer(std::move(task), server);
            else
                server->second.waiting.push_back(std::move(task));
            startWaiting(server);
        }
    }

    /// Starts what the server's share allows; a server with nothing under way is forgotten.
    void startWaiting(ServerEntry entry) {
        Server& server = entry->second;
        while (server.active < kTransfersPerServer && !server.waiting.empty()) {
            Task task = std::move(server.waiting.front());
            server.waiting.pop_front();
            startTransfer(std::move(task), entry);
        }
        if (server.active == 0) _servers.erase(entry);
    }

    void startTransfer(Task task, ServerEntry server) {
        auto made = HttpTransfer::initWithRequest(std::move(task.request));
        if (auto* fault = std::get_if<std::string>(&made)) {
            complete(std::move(task), {.error = std::move(*fault)});
            return;
        }
        auto& transfer = std::get<std::unique_ptr<HttpTransfer>>(made);
        CURL* handle = transfer->handle();
        if (curl_multi_add_handle(_multi, handle) != CURLM_OK) {
            complete(std::move(task), {.error = "the HTTP library refused the request"});
            return;
        }
        ++server->second.active;
        _active.emplace(handle, Active{std::move(transfer), std::move(task), server});
    }

    void finishTransfers() {
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(_multi, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            const CURLcode code = message->data.result;
            const auto found = _active.find(message->easy_handle);
            Active active = std::move(found->second);
            _active.erase(found);
            curl_multi_remove_handle(_multi, active.transfer->handle());
            complete(std::move(active.task), active.transfer->takeResult(code));
            --active.server->second.active;
            startWaiting(active.server);
        }
    }

    void complete(Task task, HttpResult result) {
        if (task.completion) task.completion(std::move(result));
        // What it holds ends before anyone who drains is told.
        task.completion = nullptr;
        task.room.reset();
        _unfinished.remove();
    }

    Unfinished& _unfinished;
    CURLM* _multi = nullptr;
    Mutex _mutex;
    std::deque<Task> _submitted GUARDED_BY(_mutex);
    // The thread's own.
    std::map<std::string, Server> _servers;
    std::map<CURL*, Active> _active;
};

/// None of these ends before the process does, since the thread never ends.
MemoryBudget& waitingBytes() {
    static auto* const shared = new MemoryBudget(kWaitingBytes);
    return *shared;
}

Unfinished& unfinished() {
    static auto* const shared = new Unfinished();
    return *shared;
}

/// Null when it could not be started.
SessionThread* sessionThread() {
    static SessionThread* const shared = [] {
        auto thread = std::make_unique<SessionThread>(unfinished());
        return thread->start() ? thread.release() : nullptr;
    }();
    return shared;
}

void start(Task task) {
    SessionThread* const thread = sessionThread();
    if (thread == nullptr) {
        if (task.completion) task.completion({.error = "the HTTP session could not be started"});
        return;
    }
    unfinished().add();
    thread->submit(std::move(task));
}

}  // namespace

void startDataTask(HttpRequest request, HttpCompletion completion) {
    const std::size_t bytes = kRequestBytes + request.body.size();
    start({.request = std::move(request),
           .completion = std::move(completion),
           .room = waitingBytes().acquire(bytes)});
}

HttpResult performDataTask(HttpRequest request) {
    HttpResult result;
    std::binary_semaphore completed(0);
    const auto keep = [&](HttpResult received) {
        result = std::move(received);
        completed.release();
    };
    start({.request = std::move(request), .completion = keep, .isAwaited = true});
    completed.acquire();
    return result;
}

void setHttpWaitingBytesBound(std::size_t bytes) {
    waitingBytes().setBytes(bytes);
}

bool drainHttpSession(std::chrono::milliseconds atMost) {
    return unfinished().waitForNone(atMost);
}

}  // namespace quorvane::platform
