#include "client/c/Guard.h"
#include "client/c/Handles.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

using quorvane::Reporter;
using quorvane::ReporterOptions;
using quorvane::ReporterStatus;
using quorvane::Result;
using quorvane::Status;
using quorvane::client::guarded;
using quorvane::client::nullArgument;
using quorvane::client::telling;
using quorvane::client::timeoutOf;

namespace {

static_assert(static_cast<int>(quorvane::ReporterState::Connecting) == QUORVANE_REPORTER_CONNECTING);
static_assert(static_cast<int>(quorvane::ReporterState::Connected) == QUORVANE_REPORTER_CONNECTED);
static_assert(static_cast<int>(quorvane::ReporterState::Disconnected) == QUORVANE_REPORTER_DISCONNECTED);

void tell(QuorvaneStateCallback callback, void* context, const ReporterStatus& status) {
    std::vector<const char*> names;
    const bool hasNames = status.backends && guarded([&]() -> int {
                                                 for (const std::string& name : *status.backends)
                                                     names.push_back(name.c_str());
                                                 names.push_back(nullptr);
                                                 return QUORVANE_OK;
                                             }) == QUORVANE_OK;
    const int code = status.error ? quorvane::client::codeOf(status.error->code) : QUORVANE_OK;
    callback(context, static_cast<int>(status.state), hasNames ? names.data() : nullptr, code,
             status.error ? status.error->message.c_str() : nullptr);
}

}  // namespace

// Options.

QuorvaneReporterOptions* quorvane_reporter_options_new() {
    return quorvane::client::newOrNull<QuorvaneReporterOptions>();
}

void quorvane_reporter_options_free(QuorvaneReporterOptions* options) {
    delete options;
}

int quorvane_reporter_options_set_session_info(QuorvaneReporterOptions* options,
                                               const QuorvaneSessionInfo* info) {
    if (options == nullptr || info == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        options->held.frameworksToCheck = info->frameworks;
        options->held.sessionInfo = info->held;
        return QUORVANE_OK;
    });
}

int quorvane_reporter_options_set_user_info(QuorvaneReporterOptions* options, const QuorvaneUserInfo* info) {
    if (options == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        options->held.userInfo = quorvane::client::userInfoOf(info);
        return QUORVANE_OK;
    });
}

int quorvane_reporter_options_set_socket_path(QuorvaneReporterOptions* options, const char* path) {
    if (options == nullptr || path == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        options->held.socketPath = path;
        return QUORVANE_OK;
    });
}

void quorvane_reporter_options_set_queue(QuorvaneReporterOptions* options, size_t events, size_t bytes) {
    if (options == nullptr) return;
    options->held.queueEvents = events;
    options->held.queueBytes = bytes;
}

void quorvane_reporter_options_set_retry(QuorvaneReporterOptions* options, uint32_t first, uint32_t longest) {
    if (options == nullptr) return;
    options->held.firstRetry = std::chrono::milliseconds(first);
    options->held.longestRetry = std::chrono::milliseconds(longest);
}

void quorvane_reporter_options_set_close_timeout(QuorvaneReporterOptions* options, int64_t timeout) {
    if (options != nullptr) options->held.closeTimeout = timeoutOf(timeout, ReporterOptions().closeTimeout);
}

void quorvane_reporter_options_set_state_callback(QuorvaneReporterOptions* options,
                                                  QuorvaneStateCallback callback, void* context) {
    if (options == nullptr) return;
    options->held.stateChanged = nullptr;
    if (callback != nullptr)
        options->held.stateChanged = [=](const ReporterStatus& status) { tell(callback, context, status); };
}

// The reporter.

int quorvane_reporter_start(const QuorvaneReporterOptions* options, QuorvaneReporter** reporter,
                            char** message) {
    if (reporter != nullptr) *reporter = nullptr;
    return telling(message, [&]() -> Status {
        if (options == nullptr || reporter == nullptr) return nullArgument();
        Result<Reporter> started = Reporter::start(options->held);
        if (!started) return started.error();
        *reporter = new QuorvaneReporter{*std::move(started)};
        return std::monostate{};
    });
}

void quorvane_reporter_free(QuorvaneReporter* reporter) {
    delete reporter;
}

bool quorvane_reporter_report(QuorvaneReporter* reporter, uint16_t category, uint16_t type,
                              const QuorvaneDictionary* payload, uint32_t flags) {
    return reporter != nullptr &&
           reporter->held.report(category, type, quorvane::client::payloadOf(payload), flags);
}

int quorvane_reporter_set_user_info(QuorvaneReporter* reporter, const QuorvaneUserInfo* info,
                                    char** message) {
    return telling(message, [&]() -> Status {
        if (reporter == nullptr) return nullArgument();
        return reporter->held.setUserInfo(quorvane::client::userInfoOf(info));
    });
}

int quorvane_reporter_flush(QuorvaneReporter* reporter, int64_t timeout, char** message) {
    return telling(message, [&]() -> Status {
        if (reporter == nullptr) return nullArgument();
        return reporter->held.flush(timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

int quorvane_reporter_close(QuorvaneReporter* reporter, int64_t timeout) {
    if (reporter == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        reporter->held.close(timeoutOf(timeout, ReporterOptions().closeTimeout));
        return QUORVANE_OK;
    });
}

int quorvane_reporter_statistics(const QuorvaneReporter* reporter, QuorvaneReporterStatistics* statistics,
                                 size_t size) {
    if (reporter == nullptr || statistics == nullptr) return QUORVANE_INVALID_ARGUMENT;
    const quorvane::ReporterStatistics counted = reporter->held.statistics();
    const QuorvaneReporterStatistics known{
        .reported = counted.reported,
        .waiting = counted.waiting,
        .taken = counted.taken,
        .dropped_full = counted.droppedFull,
        .dropped_unsendable = counted.droppedUnsendable,
        .dropped_too_large = counted.droppedTooLarge,
        .dropped_refused = counted.droppedRefused,
        .dropped_lost = counted.droppedLost,
        .dropped_at_end = counted.droppedAtEnd,
        .sessions = counted.sessions,
    };
    std::memset(static_cast<void*>(statistics), 0, size);
    std::memcpy(static_cast<void*>(statistics), &known, std::min(size, sizeof known));
    return QUORVANE_OK;
}
