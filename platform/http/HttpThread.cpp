#include "platform/http/HttpThread.h"

#include "platform/base/Thread.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <iterator>
#include <utility>

namespace quorvane::platform {

namespace {

constexpr long kIdleConnections = 16;

HttpResult droppedResult() {
    return {.error = "the server takes too little", .wasDropped = true};
}

}  // namespace

bool HttpThread::start() {
    // The library stays usable in this thread while the process ends.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    _multi = curl_multi_init();
    if (_multi == nullptr) return false;
    _isOpen = true;
    curl_multi_setopt(_multi, CURLMOPT_MAXCONNECTS, kIdleConnections);
    auto thread = startThread("quorvane-http", [this] { run(); });
    if (thread) thread->detach();
    return thread.has_value();
}

void HttpThread::submit(HttpTask task) {
    {
        const MutexLock lock(_mutex);
        _submitted.push_back(std::move(task));
        ++_unfinished;
    }
    curl_multi_wakeup(_multi);
}

void HttpThread::drop(HttpTask task) {
    if (_drops.add(task.server)) curl_multi_wakeup(_multi);
    if (task.completion) task.completion(droppedResult());
}

void HttpThread::cancelAwaited() {
    _isAwaitedCancelled = true;
    if (_isOpen) curl_multi_wakeup(_multi);
}

void HttpThread::setLimits(const HttpLimits& limits) {
    const MutexLock lock(_mutex);
    _limits = limits;
}

HttpLimits HttpThread::limits() {
    const MutexLock lock(_mutex);
    return _limits;
}

bool HttpThread::waitForNone(std::chrono::milliseconds atMost) {
    const auto end = Clock::now() + atMost;
    const MutexLock lock(_mutex);
    bool inTime = true;
    while (inTime && _unfinished > 0)
        inTime = _allCompleted.wait_until(_mutex, end) == std::cv_status::no_timeout;
    return _unfinished == 0;
}

void HttpThread::run() {
    while (true) {
        takeSubmitted();
        int running = 0;
        curl_multi_perform(_multi, &running);
        notePhases();
        finishTransfers();
        giveUpOverdue();
        if (_isAwaitedCancelled) cancelAwaitedNow();
        const auto now = Clock::now();
        _queue.letGo(now);
        startWaiting();
        _drops.writeDue(now);
        curl_multi_poll(_multi, nullptr, 0, millisecondsToWait(), nullptr);
    }
}

void HttpThread::takeSubmitted() {
    std::vector<HttpTask> submitted;
    {
        const MutexLock lock(_mutex);
        submitted.swap(_submitted);
    }
    for (HttpTask& task : submitted) {
        // The time limit of what someone waits for counts from its start, so it does not queue.
        if (task.isAwaited)
            startTransfer(std::move(task));
        else
            _queue.add(std::move(task));
    }
    startWaiting();
}

void HttpThread::startWaiting() {
    const auto oldest = Clock::now() - limits().waitingTime;
    while (auto task = _queue.takeNext()) {
        if (task->since >= oldest) {
            startTransfer(*std::move(task));
            continue;
        }
        const HttpQueue::Place place = HttpQueue::placeOf(*task);
        _drops.add(task->server);
        complete(*task, droppedResult());
        leave(place);
    }
}

void HttpThread::startTransfer(HttpTask task) {
    const auto kind = task.isAwaited ? HttpTransfer::Kind::Awaited : HttpTransfer::Kind::Post;
    std::optional<HttpQueue::Place> place;
    if (!task.isAwaited) place = HttpQueue::placeOf(task);
    auto made = HttpTransfer::initWithRequest(
        std::move(task.request), kind, limits(),
        [this](HttpTransfer& transfer) { _phaseChanged.push_back(transfer.handle()); });
    const bool isTaken = made && curl_multi_add_handle(_multi, (*made)->handle()) == CURLM_OK;
    if (!isTaken) {
        complete(task, {.error = made ? "the HTTP library refused the request" : made.error().message});
        if (place) leave(*place);
        return;
    }
    CURL* const handle = (*made)->handle();
    const auto deadline = _deadlines.emplace((*made)->deadline(), handle);
    _active.emplace(handle, Active{*std::move(made), std::move(task), std::move(place), deadline});
}

void HttpThread::notePhases() {
    for (CURL* const handle : std::exchange(_phaseChanged, {})) {
        Active& active = _active.at(handle);
        if (active.place && active.transfer->phase() == HttpTransfer::Phase::Sent)
            _queue.wasSent(*active.place, Clock::now() + limits().orderSpacing);
        if (active.transfer->phase() == HttpTransfer::Phase::Answered && !active.isCompleted) {
            active.isCompleted = true;
            complete(active.task, active.transfer->takeResult(CURLE_OK));
            if (active.place) _queue.isDone(*active.place);
        }
        _deadlines.erase(active.deadline);
        active.deadline = _deadlines.emplace(active.transfer->deadline(), handle);
    }
}

void HttpThread::finishTransfers() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(_multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode code = message->data.result;
        const auto entry = _active.find(message->easy_handle);
        finish(entry, entry->second.isCompleted ? HttpResult() : entry->second.transfer->takeResult(code));
    }
}

void HttpThread::giveUpOverdue() {
    const auto now = Clock::now();
    while (!_deadlines.empty() && _deadlines.begin()->first <= now) {
        const auto entry = _active.find(_deadlines.begin()->second);
        Active& active = entry->second;
        if (active.transfer->deadline() <= now) {
            finish(entry, active.isCompleted ? HttpResult() : active.transfer->takeOverdueResult());
            continue;
        }
        _deadlines.erase(active.deadline);
        active.deadline = _deadlines.emplace(active.transfer->deadline(), entry->first);
    }
}

void HttpThread::cancelAwaitedNow() {
    for (auto entry = _active.begin(); entry != _active.end();) {
        const auto next = std::next(entry);
        if (entry->second.task.isAwaited) finish(entry, {.error = "the request was cancelled"});
        entry = next;
    }
}

/// Ends the transfer, and with it its connection when it has not come to its end.
void HttpThread::finish(ActiveEntry entry, HttpResult result) {
    Active active = std::move(entry->second);
    _deadlines.erase(active.deadline);
    _active.erase(entry);
    curl_multi_remove_handle(_multi, active.transfer->handle());
    if (!active.isCompleted) complete(active.task, std::move(result));
    if (active.place) leave(*active.place);
}

void HttpThread::leave(const HttpQueue::Place& place) {
    _queue.isDone(place);
    _queue.leave(place);
}

void HttpThread::complete(HttpTask& task, HttpResult result) {
    if (task.completion) task.completion(std::move(result));
    // What it holds ends before anyone who drains is told.
    task.completion = nullptr;
    task.room.reset();
    const MutexLock lock(_mutex);
    if (--_unfinished == 0) _allCompleted.notify_all();
}

int HttpThread::millisecondsToWait() {
    std::optional<Clock::time_point> next = _queue.nextLetGo();
    const auto orAt = [&next](Clock::time_point time) { next = std::min(next.value_or(time), time); };
    if (!_deadlines.empty()) orAt(_deadlines.begin()->first);
    if (const auto due = _drops.nextDue()) orAt(*due);
    if (!next) return INT_MAX;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(wait, 0, INT_MAX));
}

}  // namespace quorvane::platform
