#include "backends/EventRecord.h"
#include "backends/HTTPSPostBackend.h"
#include "backends/MessageFlags.h"
#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/formats/Json.h"
#include "util/Compression.h"
#include "util/Conversions.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <fmt/format.h>

namespace quorvane {

namespace {

/// Takes about as long as an event, whose answer shall not wait for more.
constexpr std::size_t kCompressedStep = 3u << 10;

/// The text with blanks for control characters, which would end a header or start another.
std::string headerSafe(std::string text) {
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    std::replace_if(text.begin(), text.end(), isControl, ' ');
    return text;
}

}  // namespace

std::optional<HTTPSPostBackend::Message> HTTPSPostBackend::createMessageForPostAndLogging(
    Records records, OptionalString* prettyJsonString) {
    const double postTime = finiteOrMinusOne(secondsFromTimeValue(platform::timeOfDay()));
    for (Value& record : records.records) removeUnserialisable(*record.dictionary());
    EventGroup& events = records.events;

    Dictionary envelope;
    // Receivers know a message without "clientId": it has no events either.
    if (OptionalString client = clientID()) {
        envelope.set("clientId", *std::move(client));
        envelope.set("events", std::move(records.records));
    } else {
        ledger().drop(DropReason::NoIdentifier, std::exchange(events, {.count = 0}));
    }
    envelope.set("postTime", postTime);

    const Value message(std::move(envelope));
    std::optional<Data> json = platform::compactJson(message);
    if (!json) {
        platform::logError(
            "HTTPSPostBackend(createMessageForPostAndLogging): Dropping {} events, one of which holds a number that is not finite or a text that is not UTF-8",
            events.count);
        ledger().drop(DropReason::NotSerialisable, events);
    }
    if (prettyJsonString != nullptr && _dnuType == DnuType::None && _dnuEnabled)
        *prettyJsonString = platform::prettyJson(message);
    return json ? std::optional(Message{*std::move(json), std::move(events)}) : std::nullopt;
}

QuorvaneBackend::OptionalString HTTPSPostBackend::clientID() const {
    if (tellsIdentifier()) return udid() != nullptr ? OptionalString(udid()) : std::nullopt;
    return _dnuType == DnuType::None ? _uuidRespectDnu : _uuidOverrideDnu;
}

void HTTPSPostBackend::postJSONMessage(Message message, MessageFlag flag, std::optional<std::uint16_t> method,
                                       std::optional<std::uint16_t> responseCode, Order order) {
    const std::string* url = isRealtime(flag) ? _targets.realtime() : _targets.ordinary();
    if (url == nullptr) return ledger().drop(DropReason::NoURL, message.events);
    // A failed compression counts as the shorter form and goes out as an empty body.
    Data compressed = gzipDeflate(message.json).value_or(Data());
    postBody(std::move(message), std::move(compressed), *url, postHeaders(method, responseCode), order);
}

bool HTTPSPostBackend::compressStep() {
    auto& [message, deflater, compressed] = *_unfinished;
    const std::size_t piece = std::min(kCompressedStep, message.json.size() - compressed);
    if (piece > 0 && deflater.append({message.json.data() + compressed, piece})) {
        compressed += piece;
        return true;
    }
    Data body = deflater.finish().value_or(Data());
    postBody(std::move(message), std::move(body), *_targets.ordinary(),
             postHeaders(std::nullopt, std::nullopt), Order::Started);
    _unfinished.reset();
    return false;
}

void HTTPSPostBackend::postBody(Message message, Data compressed, const std::string& url,
                                std::vector<platform::HttpHeader> headers, Order order) {
    const bool isCompressed = compressed.size() < message.json.size();
    platform::HttpRequest request;
    request.url = url;
    request.method = "POST";
    request.body = isCompressed ? std::move(compressed) : std::move(message.json);
    request.headers = std::move(headers);
    request.headers.push_back({"Content-Length", fmt::format("{}", request.body.size())});
    if (isCompressed) request.headers.push_back({"Content-Encoding", "gzip"});
    request.wantsBody = false;
    request.orderKey = this;
    request.isBarrier = order == Order::Ended;
    ledger().handOver(message.events);
    platform::startDataTask(
        std::move(request),
        [self = shared_from_this(), name = name(), events = std::move(message.events)](
            const platform::HttpResult& result) { self->postCompleted(name, result, events); });
}

std::vector<platform::HttpHeader> HTTPSPostBackend::postHeaders(
    std::optional<std::uint16_t> method, std::optional<std::uint16_t> responseCode) const {
    std::vector<platform::HttpHeader> headers;
    headers.reserve(9);
    const auto addUserInfo = [&](const char* header, std::string_view key) {
        const std::string* text = userInfoDict() != nullptr ? userInfoDict()->string(key) : nullptr;
        if (text != nullptr) headers.push_back({header, headerSafe(*text)});
    };
    addUserInfo("X-QVN-Client-Name", kQuorvaneUserInfoClientName);
    addUserInfo("X-QVN-Service-Name", kQuorvaneUserInfoServiceName);
    if (isInternal()) headers.push_back({"X-QVN-Internal-Build", "1"});
    headers.push_back({"X-QVN-Sender", std::string(senderCode(compType()))});
    if (method && responseCode)
        headers.push_back({"X-QVN-Event-Map", fmt::format("{} {}", *method, *responseCode)});
    headers.push_back({"Accept", "application/json"});
    headers.push_back({"Content-Type", "application/json"});
    return headers;
}

/// On the HTTP session's thread: touches nothing but the state and the ledger.
void HTTPSPostBackend::postCompleted(const std::string& name, const platform::HttpResult& result,
                                     const EventGroup& events) {
    noteFate(result, events);
    if (result.error && !result.wasDropped)
        platform::logError("HTTPSPostBackend(postJsonMessage): post error: {}", *result.error);
    const int status = result.response.statusCode;
    if (status < 500 || status > 599) return;
    platform::logInfo("postJSONMessage: backend {} disabled by server {} return code", name, status);
    setState(BackendState::Disabled, ReportingReason::StoppedByServer);
}

void HTTPSPostBackend::noteFate(const platform::HttpResult& result, const EventGroup& events) {
    using Fate = EventLedger::Fate;
    if (result.wasDropped) return ledger().dropHandedOver(DropReason::ServerTooSlow, events);
    const int status = result.error ? 0 : result.response.statusCode;
    ledger().countPost(status);
    const bool isTaken = status >= 200 && status <= 299;
    const Fate fate = status == 0 ? Fate::Failed : isTaken ? Fate::Posted : Fate::Refused;
    const std::string_view error = result.error ? std::string_view(*result.error) : "";
    ledger().finish(fate, events, {.status = status, .error = error});
}

}  // namespace quorvane
