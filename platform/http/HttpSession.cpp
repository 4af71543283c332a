#include "platform/http/HttpSession.h"

#include "platform/base/MemoryBudget.h"
#include "platform/http/HttpThread.h"
#include "platform/value/Url.h"

#include <semaphore>
#include <utility>

namespace quorvane::platform {

namespace {

/// About what a request takes beside what its owner put in.
constexpr std::size_t kRequestBytes = 1024;

MemoryBudget::Limits budgetOf(const HttpLimits& limits) {
    return {.each = limits.bytesPerServer,
            .inAll = limits.bytesInAll,
            .share = limits.bytesGuaranteed,
            .holders = limits.servers};
}

/// Neither of these ends before the process does, since the thread never ends.
MemoryBudget& roomForPosts() {
    static auto* const shared = new MemoryBudget(budgetOf(HttpLimits()));
    return *shared;
}

HttpThread& httpThread() {
    static auto* const shared = new HttpThread();
    return *shared;
}

bool isStarted() {
    static const bool started = httpThread().start();
    return started;
}

std::size_t bytesOf(const HttpRequest& request) {
    std::size_t bytes = kRequestBytes + request.url.size() + request.body.size();
    for (const HttpHeader& header : request.headers) bytes += header.name.size() + header.value.size();
    return bytes;
}

HttpTask taskOf(HttpRequest request, HttpCompletion completion) {
    std::string server = serverOfUrl(request.url);
    return {.request = std::move(request), .completion = std::move(completion), .server = std::move(server)};
}

HttpResult notStarted() {
    return {.error = "the HTTP session could not be started"};
}

}  // namespace

void startDataTask(HttpRequest request, HttpCompletion completion) {
    if (!isStarted()) {
        if (completion) completion(notStarted());
        return;
    }
    const HttpLimits limits = httpThread().limits();
    HttpTask task = taskOf(std::move(request), std::move(completion));
    auto room = roomForPosts().acquire(task.server, bytesOf(task.request),
                                       {.standstill = limits.senderPatience, .inAll = limits.waitingTime});
    if (!room) return httpThread().drop(std::move(task));
    task.room.emplace(*std::move(room));
    httpThread().submit(std::move(task));
}

HttpResult performDataTask(HttpRequest request) {
    if (!isStarted()) return notStarted();
    HttpResult result;
    std::binary_semaphore completed(0);
    HttpTask task = taskOf(std::move(request), [&](HttpResult received) {
        result = std::move(received);
        completed.release();
    });
    task.isAwaited = true;
    httpThread().submit(std::move(task));
    completed.acquire();
    return result;
}

void cancelAwaitedDataTasks() {
    httpThread().cancelAwaited();
}

void setHttpLimits(const HttpLimits& limits) {
    httpThread().setLimits(limits);
    roomForPosts().setLimits(budgetOf(limits));
}

std::uint64_t droppedDataTasks() {
    return httpThread().dropped();
}

bool drainHttpSession(std::chrono::milliseconds atMost) {
    return httpThread().waitForNone(atMost);
}

}  // namespace quorvane::platform
