#include "client/ReporterLink.h"

#include "client/Serialization.h"
#include "framework/EventPacking.h"
#include "framework/Keys.h"
#include "platform/bus/BusValue.h"

#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <iterator>
#include <utility>

namespace quorvane::client {

namespace {

/// So many parcels are sent before the first is answered: the daemon always has the next one at hand.
constexpr std::size_t kParcelsAtATime = 4;

/// Longest wait for an answer, in microseconds. Setting up may take a download of 15 s, and others' before
/// it.
constexpr std::uint64_t kAnswerTime = 60'000'000;

/// Send buffer of the socket, in bytes.
constexpr int kSocketBuffer = 256 << 10;

constexpr Connection::Method kSetSessionInfo{kClientSessionInterface, "SetSessionInfo"};
constexpr Connection::Method kStartConfig{kClientSessionInterface, "StartConfig"};
constexpr Connection::Method kFetchStates{kClientSessionInterface, "FetchStatesWithUserInfo"};
constexpr Connection::Method kSendMessage{kClientSessionInterface, "SendMessageWithDictionary"};
constexpr Connection::Method kFlushMessages{kClientSessionInterface, "FlushMessages"};
constexpr Connection::Method kSendMessages{kEventBatchInterface, "SendMessages"};

bool isRefusal(sd_bus_message* answer) {
    return ::sd_bus_message_is_method_error(answer, nullptr) > 0;
}

/// The bus library makes this error up itself, when a call times out or the connection ends.
bool isNoAnswer(sd_bus_message* answer) {
    return ::sd_bus_message_is_method_error(answer, SD_BUS_ERROR_NO_REPLY) > 0;
}

int appendSession(sd_bus_message* message, const ReporterSession& session,
                  const std::optional<Dictionary>& userInfo) {
    int result = platform::appendDictionary(message, session.sessionInfo);
    if (result >= 0) result = platform::appendOptionalDictionary(message, orNull(userInfo));
    if (result >= 0) result = platform::appendStrings(message, session.frameworksToCheck);
    return result < 0 ? result : ::sd_bus_message_append(message, "b", 0);
}

int appendNothing(sd_bus_message*) {
    return 0;
}

}  // namespace

Result<std::unique_ptr<ReporterLink>> ReporterLink::open(platform::UniqueDescriptor socket,
                                                         ReportQueue& queue, const ReporterSession& session,
                                                         const std::optional<Dictionary>& userInfo) {
    std::unique_ptr<ReporterLink> link(new ReporterLink(queue));
    if (const int result = link->begin(std::move(socket), session, userInfo); result < 0)
        return Error{ErrorCode::Disconnected, std::string("no daemon answers: ") + std::strerror(-result)};
    return link;
}

int ReporterLink::begin(platform::UniqueDescriptor socket, const ReporterSession& session,
                        const std::optional<Dictionary>& userInfo) {
    sd_bus* raw = nullptr;
    int result = ::sd_bus_new(&raw);
    _bus.reset(raw);
    if (result >= 0) result = ::sd_bus_set_fd(raw, socket.get(), socket.get());
    if (result < 0) return result;
    socket.release();
    if (result = ::sd_bus_start(raw); result < 0) return result;
    ::setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);

    call(kSetSessionInfo, {&ReporterLink::noteConfigured},
         [&](sd_bus_message* message) { return appendSession(message, session, userInfo); });
    startAgain();
    // No events at all, to see whether the daemon knows the call.
    call(kSendMessages, {&ReporterLink::noteBatches},
         [](sd_bus_message* message) { return ::sd_bus_message_append(message, "ay", 0); });
    return 0;
}

void ReporterLink::startAgain() {
    _starts = true;
    call(kStartConfig, {&ReporterLink::noteStarted}, appendNothing);
}

ReporterLink::~ReporterLink() {
    _bus.reset();
    for (Call& call : _calls) forsake(call);
}

Status ReporterLink::process() {
    int result = 0;
    do {
        result = ::sd_bus_process(_bus.get(), nullptr);
    } while (result > 0);
    if (result < 0) lose(result == -ECONNRESET ? "the daemon closed it" : std::strerror(-result));
    if (_lost) return *_lost;
    return std::monostate{};
}

short ReporterLink::awaitedEvents() const {
    const int events = ::sd_bus_get_events(_bus.get());
    return static_cast<short>(events < 0 ? 0 : events);
}

std::uint64_t ReporterLink::longestWait() const {
    if (_lost) return 0;
    std::uint64_t until = UINT64_MAX;
    ::sd_bus_get_timeout(_bus.get(), &until);
    return microsecondsUntilPoint(until);
}

void ReporterLink::lose(const std::string& why) {
    if (!_lost) _lost = Error{ErrorCode::Disconnected, "the connection is lost: " + why};
}

// Calls.

template <typename Append>
platform::BusMessage ReporterLink::newCall(const Method& method, Append&& append) {
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_call(_bus.get(), &raw, nullptr, kQuorvaneObjectPath,
                                                  method.interface, method.name);
    platform::BusMessage message(raw);
    if (result >= 0) result = append(raw);
    check(result);
    return message;
}

template <typename Append>
void ReporterLink::send(const Method& method, Append&& append) {
    const platform::BusMessage message = newCall(method, append);
    if (_lost) return;
    ::sd_bus_message_set_expect_reply(message.get(), 0);
    check(::sd_bus_send(_bus.get(), message.get(), nullptr));
}

template <typename Append>
void ReporterLink::call(const Method& method, Call call, Append&& append) {
    Call& stored = _calls.emplace_back(std::move(call));
    stored.link = this;
    stored.at = std::prev(_calls.end());
    const platform::BusMessage message = newCall(method, append);
    if (!_lost)
        check(::sd_bus_call_async(_bus.get(), nullptr, message.get(), &takeAnswer, &stored, kAnswerTime));
}

void ReporterLink::check(int result) {
    if (result < 0) lose(std::strerror(-result));
}

bool ReporterLink::takesParcels() const {
    return _ready && !_lost && _parcelsOnTheirWay < kParcelsAtATime;
}

void ReporterLink::send(Parcel parcel) {
    if (parcel.userInfo)
        call(kFetchStates, {&ReporterLink::noteStates}, [&](sd_bus_message* message) {
            return platform::appendOptionalDictionary(message, orNull(*parcel.userInfo));
        });
    const std::uint64_t flush = parcel.flush;
    if (parcel.events > 0) {
        ++_parcelsOnTheirWay;
        replaceTimesByAges(parcel.packed(), elapsedMicroseconds());
        _knowsBatches ? sendTogether(std::move(parcel)) : sendOneByOne(std::move(parcel));
    }
    if (flush != 0) call(kFlushMessages, {.take = &ReporterLink::finishFlush, .flush = flush}, appendNothing);
}

void ReporterLink::sendTogether(Parcel parcel) {
    const std::span<const std::uint8_t> packed = parcel.packed();
    call(kSendMessages, {.take = &ReporterLink::settleBatch, .parcel = std::move(parcel)},
         [packed](sd_bus_message* message) {
             return ::sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, packed.data(), packed.size());
         });
}

/// Only the last call is answered: calls are served in their order.
void ReporterLink::sendOneByOne(Parcel parcel) {
    const std::uint32_t last = parcel.events - 1;
    PackedEventReader events(parcel.packed());
    const auto appendNext = [&events](sd_bus_message* message) {
        events.next();
        const PackedEvent& event = events.event();
        return appendMessage(message, {event.category, event.type, orNull(event.payload), event.flag});
    };
    for (std::uint32_t number = 0; number < last; ++number) send(kSendMessage, appendNext);
    call(kSendMessage, {.take = &ReporterLink::settleSingles, .parcel = std::move(parcel)}, appendNext);
}

int ReporterLink::takeAnswer(sd_bus_message* answer, void* userdata, sd_bus_error*) {
    Call& call = *static_cast<Call*>(userdata);
    ReporterLink& link = *call.link;
    std::list<Call> answered;
    answered.splice(answered.end(), link._calls, call.at);
    if (isNoAnswer(answer)) {
        link.lose("the daemon did not answer");
        link.forsake(call);
    } else {
        (link.*call.take)(call, answer);
    }
    return 1;
}

/// Nobody can tell whether the daemon has served the call.
void ReporterLink::forsake(Call& call) {
    if (call.parcel.events > 0) _queue.settle(std::move(call.parcel), 0, &ReporterStatistics::droppedLost);
    if (call.flush != 0) _queue.putBackFlush(call.flush);
}

// Answers.

void ReporterLink::noteConfigured(Call&, sd_bus_message* answer) {
    if (isRefusal(answer)) lose(::sd_bus_message_get_error(answer)->message);
}

void ReporterLink::noteStarted(Call& call, sd_bus_message* answer) {
    _starts = false;
    noteStates(call, answer);
}

void ReporterLink::noteStates(Call&, sd_bus_message* answer) {
    if (!isRefusal(answer) && platform::readOptionalStrings(answer, _backends) >= 0) return;
    if (!_ready) lose("the daemon set up no session");
}

void ReporterLink::noteBatches(Call&, sd_bus_message* answer) {
    _knowsBatches = !isRefusal(answer);
    _ready = !_lost;
    if (_ready) _queue.countSession();
}

void ReporterLink::settleBatch(Call& call, sd_bus_message* answer) {
    --_parcelsOnTheirWay;
    std::uint32_t taken = 0;
    if (!isRefusal(answer)) ::sd_bus_message_read(answer, "u", &taken);
    _queue.settle(std::move(call.parcel), taken, &ReporterStatistics::droppedRefused);
}

void ReporterLink::settleSingles(Call& call, sd_bus_message* answer) {
    --_parcelsOnTheirWay;
    const std::uint32_t taken = call.parcel.events - (isRefusal(answer) ? 1 : 0);
    _queue.settle(std::move(call.parcel), taken, &ReporterStatistics::droppedRefused);
}

void ReporterLink::finishFlush(Call& call, sd_bus_message*) {
    _queue.finishFlush(call.flush);
}

}  // namespace quorvane::client
