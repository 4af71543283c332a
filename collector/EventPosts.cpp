#include "collector/EventPosts.h"

#include "collector/ReceivedTime.h"
#include "platform/base/Log.h"
#include "platform/formats/Json.h"

#include <algorithm>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace quorvane::collector {

namespace {

class Permit {
  public:
    explicit Permit(std::counting_semaphore<>& semaphore) : _semaphore(semaphore) { _semaphore.acquire(); }
    ~Permit() { _semaphore.release(); }
    Permit(const Permit&) = delete;
    Permit& operator=(const Permit&) = delete;

  private:
    std::counting_semaphore<>& _semaphore;
};

/// What all lines of one post share, as an open JSON object that an event can be put into; nothing when a
/// text in it is not UTF-8.
std::optional<std::string> lineStart(const PostFacts& facts, const EventEnvelope& envelope) {
    Dictionary common{{"kind", "event"},
                      {"receivedTime", receivedTime()},
                      {"path", facts.path},
                      {"peer", facts.peer},
                      {"clientId", envelope.clientID},
                      {"postTime", envelope.postTime},
                      {"internalBuild", facts.internalBuild}};
    const auto addText = [&](const char* key, const std::optional<std::string>& text) {
        if (text) common.set(key, *text);
    };
    addText("clientName", facts.clientName);
    addText("serviceName", facts.serviceName);
    addText("sender", facts.sender);
    addText("eventMap", facts.eventMap);
    const auto json = platform::compactJson(Value(std::move(common)));
    if (!json) return std::nullopt;
    return std::string(json->begin(), json->end() - 1) + ",\"event\":";
}

std::optional<std::string> linesOf(const PostFacts& facts, const EventEnvelope& envelope) {
    const auto start = lineStart(facts, envelope);
    if (!start) return std::nullopt;
    std::string lines;
    for (const Value& event : envelope.events) {
        const auto json = platform::compactJson(event);
        if (!json) return std::nullopt;
        lines += *start;
        lines.append(json->begin(), json->end());
        lines += "}\n";
    }
    return lines;
}

Response refused(const PostFacts& facts, std::string_view reason) {
    platform::logWarning("{} from {} refused: {}", facts.path, facts.peer, reason);
    return refusal(400, reason);
}

}  // namespace

EventPosts::EventPosts(EventSink& sink, RemovedKeys removed)
    : _sink(sink),
      _removed(std::move(removed)),
      _parsers(std::max(1u, std::thread::hardware_concurrency())) {}

Response EventPosts::take(const PostFacts& facts, std::string_view message) {
    const Permit permit(_parsers);
    auto parsed = platform::parseJson(message);
    if (!parsed) return refused(facts, "the message is not JSON, holds null or nests too deep");
    const auto envelope = checkEnvelope(*std::move(parsed), _removed);
    if (!envelope) return refused(facts, envelope.error().message);
    const auto lines = linesOf(facts, *envelope);
    if (!lines) return refused(facts, "a text is not UTF-8");
    if (!lines->empty() && !_sink.append(*lines)) return refusal(503, "nothing can be stored");
    platform::logInfo("{} from {}: {} events", facts.path, facts.peer, envelope->events.size());
    return {.body = fmt::format("{{\"events\":{}}}", envelope->events.size())};
}

}  // namespace quorvane::collector
