#include "service/InspectionAnswers.h"

#include "backends/ReasonTexts.h"
#include "framework/Keys.h"
#include "framework/QuorvaneBundle.h"
#include "platform/base/Clock.h"
#include "platform/base/UserAccount.h"
#include "platform/device/Consent.h"
#include "platform/device/Locale.h"
#include "platform/http/HttpSession.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxExtension.h"
#include "platform/value/Text.h"
#include "storebag/StorebagNames.h"
#include "util/Conversions.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

namespace {

constexpr std::size_t kMaximumTextBytes = 256;
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

Value dateOf(platform::TimeValue time) {
    return platform::Date{time.seconds * kMicrosecondsPerSecond + time.microseconds};
}

double secondsSince(platform::TimeValue time) {
    return std::max(0.0, secondsFromTimeValue(platform::timeOfDay()) - secondsFromTimeValue(time));
}

/// A client's text as far as an answer may carry it.
std::string shortened(const std::string& text) {
    std::string safe = platform::escapedControls(text, "");
    if (safe.size() <= kMaximumTextBytes && platform::isUtf8(safe)) return safe;
    std::string start = safe.substr(0, kMaximumTextBytes);
    for (int cut = 0; cut < 4 && !platform::isUtf8(start); ++cut) start.pop_back();
    return platform::isUtf8(start) ? start + "..." : "(no UTF-8)";
}

void setIfPresent(Dictionary& into, std::string_view key, const std::optional<std::string>& text) {
    if (text) into.set(key, shortened(*text));
}

Dictionary eventsAnswer(const EventTotals& events) {
    Dictionary byReason;
    for (std::size_t at = 0; at < kDropReasons; ++at)
        if (events.dropped[at] > 0) byReason.set(keyOf(static_cast<DropReason>(at)), events.dropped[at]);
    return {{"accepted", events.accepted},      {"posted", events.posted},
            {"refused", events.refused},        {"failed", events.failed},
            {"underWay", events.underWay},      {"held", events.held},
            {"dropped", events.droppedInAll()}, {"droppedBy", std::move(byReason)}};
}

Dictionary postsAnswer(const EventTotals& events) {
    static constexpr std::array<std::string_view, 6> keys{"noAnswer", "1xx", "2xx", "3xx", "4xx", "5xx"};
    Dictionary posts;
    for (std::size_t at = 0; at < keys.size(); ++at) posts.set(keys[at], events.posts[at]);
    return posts;
}

Dictionary countsAnswer(const SessionTotals& totals) {
    return {{"events", eventsAnswer(totals.events)},
            {"posts", postsAnswer(totals.events)},
            {"unserved", totals.unserved},
            {"incomplete", totals.incomplete},
            {"relayed", totals.relayed},
            {"uploads", totals.uploads},
            {"failedUploads", totals.failedUploads}};
}

Dictionary backendAnswer(const QuorvaneBackend& backend) {
    const Standing standing = backend.standing();
    const EventTotals totals = backend.ledger().totals();
    return {{"name", backend.name()},           {"state", keyOf(standing.state)},
            {"reason", keyOf(standing.reason)}, {"reasonText", textOf(standing.reason)},
            {"events", eventsAnswer(totals)},   {"posts", postsAnswer(totals)}};
}

/// The identifier before the session's own in the combined one.
std::optional<std::string> parentOf(const SessionView& session) {
    if (session.backends == nullptr || session.backends->empty()) return std::nullopt;
    const auto combined = session.backends->begin()->second->combinedSessionIDString();
    const std::string own = "." + session.identifier;
    if (!combined || !combined->ends_with(own)) return std::nullopt;
    const std::string above = combined->substr(0, combined->size() - own.size());
    return above.substr(above.rfind('.') + 1);
}

void tellStorebag(Dictionary& answer, const SessionView& session, std::int32_t clientType,
                  const std::vector<StorebagStatus>& storebags) {
    const auto name = storebagNameForClientType(clientType);
    setIfPresent(answer, "storebag", name);
    if (session.identity == nullptr || !session.identity->storebagVersion) return;
    setIfPresent(answer, "storebagVersion", session.identity->storebagVersion);
    for (const StorebagStatus& bag : storebags)
        if (bag.name == name && bag.confirmed && bag.version == session.identity->storebagVersion)
            answer.set("storebagAge", secondsSince(*bag.confirmed));
}

void tellInfo(Dictionary& answer, const Dictionary& info) {
    answer.set("clientType", info.integer(kQuorvaneSessionInfoClientType));
    answer.set("requiresUserInfo", info.boolean(kQuorvaneSessionInfoRequireUserInfo));
    answer.set("batches", info.boolean(kQuorvaneSessionInfoBatchEvent));
}

/// What decides about reporting and only this process can say.
Dictionary deviceAnswer() {
    Dictionary device{{"consent", platform::diagnosticsSubmissionAllowed()},
                      {"confined", platform::isConfined()},
                      {"process", static_cast<std::int64_t>(::getpid())}};
    setIfPresent(device, "country", platform::currentCountryCode());
    return device;
}

std::string_view keyOf(FetchAttempt::Outcome outcome) {
    static constexpr std::array<std::string_view, 4> keys{"received", "unchanged", "builtIn", "failed"};
    return keys.at(static_cast<std::size_t>(outcome));
}

}  // namespace

Dictionary statisticsAnswer(std::optional<uid_t> user) {
    Dictionary answer = countsAnswer(SessionLedger::ofAll(user));
    answer.set("all", !user);
    answer.set("device", deviceAnswer());
    answer.set("version", bundleVersion().value_or(kDefaultBundleVersion));
    if (user) return answer;
    using platform::UserAccount;
    answer.set("heldBytes", std::uint64_t{UserAccount::takenInAll(UserAccount::Slot::EventBytes)});
    answer.set("lentFiles", std::uint64_t{platform::outstandingSandboxExtensions()});
    answer.set("droppedPosts", platform::droppedDataTasks());
    return answer;
}

Dictionary sessionAnswer(const SessionView& session, const std::vector<StorebagStatus>& storebags) {
    Dictionary answer = countsAnswer(session.ledger->totals());
    answer.set("user", std::uint64_t{session.ledger->user()});
    answer.set("process", static_cast<std::int64_t>(session.ledger->process()));
    answer.set("since", dateOf(session.ledger->since()));
    answer.set("identifier", session.identifier);
    answer.set("level", std::int64_t{session.level});
    answer.set("aggregates", session.aggregates);
    answer.set("started", session.backends != nullptr);
    if (const auto parent = parentOf(session)) answer.set("parent", *parent);
    if (session.identity != nullptr) {
        answer.set("sessionID", std::uint64_t{session.identity->sessionID});
        setIfPresent(answer, "clientName", session.identity->clientName);
        setIfPresent(answer, "serviceName", session.identity->serviceName);
    }
    if (session.sessionInfo != nullptr) {
        tellInfo(answer, *session.sessionInfo);
        tellStorebag(answer, session,
                     static_cast<std::int32_t>(session.sessionInfo->integer(kQuorvaneSessionInfoClientType)),
                     storebags);
    }
    Array backends;
    if (session.backends != nullptr)
        for (const auto& [name, backend] : *session.backends) backends.emplace_back(backendAnswer(*backend));
    answer.set("backends", std::move(backends));
    return answer;
}

Dictionary eventAnswer(const EventNews& news) {
    Dictionary answer{{"time", dateOf(news.time)},
                      {"user", std::uint64_t{news.user}},
                      {"process", static_cast<std::int64_t>(news.process)},
                      {"fate", news.fate},
                      {"count", news.count}};
    if (news.sessionID) answer.set("sessionID", std::uint64_t{*news.sessionID});
    setIfPresent(answer, "clientName", news.clientName);
    setIfPresent(answer, "serviceName", news.serviceName);
    if (!news.backend.empty()) answer.set("backend", news.backend);
    if (!news.numbers.empty()) answer.set("numbers", Array(news.numbers.begin(), news.numbers.end()));
    if (news.category) answer.set("category", std::int64_t{*news.category});
    if (news.type) answer.set("type", std::int64_t{*news.type});
    if (!news.reason.empty()) answer.set("reason", news.reason);
    if (!news.reasonText.empty()) answer.set("reasonText", shortened(news.reasonText));
    if (news.status != 0) answer.set("status", std::int64_t{news.status});
    if (news.milliseconds) answer.set("milliseconds", *news.milliseconds);
    if (news.held) answer.set("held", *news.held);
    return answer;
}

Dictionary storebagAnswer(const StorebagStatus& storebag) {
    const FetchAttempt& attempt = storebag.attempt;
    Dictionary answer{{"name", storebag.name},
                      {"lastAttempt", dateOf(attempt.time)},
                      {"url", shortened(attempt.url)},
                      {"httpStatus", std::int64_t{attempt.httpStatus}},
                      {"outcome", keyOf(attempt.outcome)},
                      {"nextAttempt", dateOf(storebag.nextAttempt)}};
    setIfPresent(answer, "version", storebag.version);
    if (storebag.confirmed) answer.set("age", secondsSince(*storebag.confirmed));
    if (!attempt.reason.empty()) answer.set("reason", shortened(attempt.reason));
    return answer;
}

}  // namespace quorvane
