#include "platform/http/HttpQueue.h"

#include <utility>

namespace quorvane::platform {

namespace {

/// Posts under way to one server at once.
constexpr std::size_t kPlacesPerServer = 8;

}  // namespace

HttpQueue::Place HttpQueue::placeOf(const HttpTask& task) {
    return {task.server, task.request.orderKey, task.request.isBarrier, task.turn};
}

void HttpQueue::add(HttpTask task) {
    const void* const key = task.request.orderKey;
    if (key == nullptr) {
        _servers[task.server].waiting.push_back(std::move(task));
        return;
    }
    const auto [order, isFree] = _orders.try_emplace(key);
    if (isFree)
        startTurn(order->second, std::move(task));
    else
        order->second.waiting.push_back(std::move(task));
}

void HttpQueue::startTurn(Order& order, HttpTask task) {
    order.turn = task.turn = ++_lastTurn;
    _servers[task.server].waiting.push_back(std::move(task));
}

std::optional<HttpTask> HttpQueue::takeNext() {
    for (auto& [name, server] : _servers) {
        if (server.active >= kPlacesPerServer || server.waiting.empty()) continue;
        ++server.active;
        HttpTask task = std::move(server.waiting.front());
        server.waiting.pop_front();
        return task;
    }
    return std::nullopt;
}

void HttpQueue::wasSent(const Place& place, Time nextMayGo) {
    if (place.orderKey != nullptr && !place.isBarrier)
        _sent.emplace(nextMayGo, Sent{place.orderKey, place.turn});
}

void HttpQueue::isDone(const Place& place) {
    if (place.orderKey != nullptr) letNextGo(place.orderKey, place.turn);
}

void HttpQueue::leave(const Place& place) {
    const auto server = _servers.find(place.server);
    --server->second.active;
    if (server->second.active == 0 && server->second.waiting.empty()) _servers.erase(server);
}

/// Once for each turn, however often it is told.
void HttpQueue::letNextGo(const void* orderKey, std::uint64_t turn) {
    const auto order = _orders.find(orderKey);
    if (order == _orders.end() || order->second.turn != turn) return;
    if (order->second.waiting.empty()) {
        _orders.erase(order);
        return;
    }
    HttpTask next = std::move(order->second.waiting.front());
    order->second.waiting.pop_front();
    startTurn(order->second, std::move(next));
}

void HttpQueue::letGo(Time now) {
    while (!_sent.empty() && _sent.begin()->first <= now) {
        const Sent sent = _sent.extract(_sent.begin()).mapped();
        letNextGo(sent.orderKey, sent.turn);
    }
}

std::optional<HttpQueue::Time> HttpQueue::nextLetGo() const {
    return _sent.empty() ? std::nullopt : std::optional(_sent.begin()->first);
}

}  // namespace quorvane::platform
