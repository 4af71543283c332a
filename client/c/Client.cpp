#include "client/c/Guard.h"
#include "client/c/Handles.h"

#include <optional>
#include <string>
#include <utility>

using quorvane::AggregatedEvent;
using quorvane::Answer;
using quorvane::Client;
using quorvane::ConnectOptions;
using quorvane::Error;
using quorvane::Event;
using quorvane::Result;
using quorvane::Status;
using quorvane::UploadProgress;
using quorvane::client::guarded;
using quorvane::client::handOut;
using quorvane::client::nullArgument;
using quorvane::client::payloadOf;
using quorvane::client::telling;
using quorvane::client::timeoutOf;
using quorvane::client::userInfoOf;

namespace {

static_assert(static_cast<int>(UploadProgress::Step::Opened) == QUORVANE_UPLOAD_OPENED);
static_assert(static_cast<int>(UploadProgress::Step::Lent) == QUORVANE_UPLOAD_LENT);
static_assert(static_cast<int>(UploadProgress::Step::Finished) == QUORVANE_UPLOAD_FINISHED);

Event eventOf(uint16_t category, uint16_t type, const QuorvaneDictionary* payload, uint32_t flags) {
    Event event{.category = category, .type = type, .flag = flags};
    if (payload != nullptr) event.payload = payload->held;
    return event;
}

/// Asks a client, and hands out what it answers.
template <typename Ask, typename Out>
int ask(const QuorvaneClient* client, char** message, Out* out, const Ask& ask) {
    if (out != nullptr) *out = Out();
    return telling(message, [&]() -> Status {
        if (client == nullptr) return nullArgument();
        const auto answer = ask();
        if (!answer) return answer.error();
        handOut(*answer, out);
        return std::monostate{};
    });
}

}  // namespace

// Options.

QuorvaneClientOptions* quorvane_client_options_new() {
    return quorvane::client::newOrNull<QuorvaneClientOptions>();
}

void quorvane_client_options_free(QuorvaneClientOptions* options) {
    delete options;
}

int quorvane_client_options_set_socket_path(QuorvaneClientOptions* options, const char* path) {
    if (options == nullptr || path == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        options->held.socketPath = path;
        return QUORVANE_OK;
    });
}

void quorvane_client_options_set_timeout(QuorvaneClientOptions* options, int64_t timeout) {
    if (options != nullptr) options->held.timeout = timeoutOf(timeout, ConnectOptions().timeout);
}

void quorvane_client_options_set_close_timeout(QuorvaneClientOptions* options, int64_t timeout) {
    if (options != nullptr) options->held.closeTimeout = timeoutOf(timeout, ConnectOptions().closeTimeout);
}

void quorvane_client_options_set_disconnected_callback(QuorvaneClientOptions* options,
                                                       QuorvaneDisconnectedCallback callback, void* context) {
    if (options == nullptr) return;
    options->held.disconnected = nullptr;
    if (callback != nullptr)
        options->held.disconnected = [=](const Error& error) {
            callback(context, quorvane::client::codeOf(error.code), error.message.c_str());
        };
}

// The connection and its session.

int quorvane_client_connect(const QuorvaneClientOptions* options, QuorvaneClient** client, char** message) {
    if (client != nullptr) *client = nullptr;
    return telling(message, [&]() -> Status {
        if (client == nullptr) return nullArgument();
        Result<Client> connected = Client::connect(options != nullptr ? options->held : ConnectOptions());
        if (!connected) return connected.error();
        *client = new QuorvaneClient{*std::move(connected)};
        return std::monostate{};
    });
}

void quorvane_client_free(QuorvaneClient* client) {
    delete client;
}

int quorvane_client_set_session_info(QuorvaneClient* client, const QuorvaneSessionInfo* session_info,
                                     const QuorvaneUserInfo* user_info, int64_t timeout, char** message) {
    return telling(message, [&]() -> Status {
        if (client == nullptr || session_info == nullptr) return nullArgument();
        return client->held.setSessionInfo(session_info->held, userInfoOf(user_info),
                                           session_info->frameworks, {},
                                           timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

int quorvane_client_set_aggregating_session_info(QuorvaneClient* client,
                                                 const QuorvaneSessionInfo* session_info,
                                                 const QuorvaneUserInfo* user_info,
                                                 QuorvaneEventCallback event, QuorvaneEndedCallback ended,
                                                 void* context, int64_t timeout, char** message) {
    return telling(message, [&]() -> Status {
        if (client == nullptr || session_info == nullptr || event == nullptr) return nullArgument();
        quorvane::AggregationBlock block{.event = [=](AggregatedEvent given) {
            QuorvaneDictionary payload;
            if (given.payload) payload.held = *std::move(given.payload);
            event(context, given.timestamp, given.category, given.type, given.payload ? &payload : nullptr);
        }};
        if (ended != nullptr) block.ended = [=](const quorvane::SessionInfo&) { ended(context); };
        return client->held.setSessionInfo(session_info->held, userInfoOf(user_info),
                                           session_info->frameworks, std::move(block),
                                           timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

uint64_t quorvane_client_dropped_events(const QuorvaneClient* client) {
    return client != nullptr ? client->held.droppedEvents() : 0;
}

int quorvane_client_start(QuorvaneClient* client, int64_t timeout, char*** backends, char** message) {
    return ask(client, message, backends,
               [&] { return client->held.start(timeoutOf(timeout, quorvane::kStartTimeout)); });
}

int quorvane_client_fetch_states(QuorvaneClient* client, const QuorvaneUserInfo* user_info, int64_t timeout,
                                 char*** backends, char** message) {
    return ask(client, message, backends, [&] {
        return client->held.fetchStates(userInfoOf(user_info), timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

int quorvane_client_display_url(QuorvaneClient* client, int64_t timeout, char** url, char** message) {
    return ask(client, message, url,
               [&] { return client->held.displayURL(timeoutOf(timeout, quorvane::kAnswerTimeout)); });
}

// Events.

int quorvane_client_send(QuorvaneClient* client, uint16_t category, uint16_t type,
                         const QuorvaneDictionary* payload, uint32_t flags, int64_t timeout, char** answer,
                         char** message) {
    return ask(client, message, answer, [&] {
        return client->held.send(eventOf(category, type, payload, flags),
                                 timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

int quorvane_client_send_async(QuorvaneClient* client, uint16_t category, uint16_t type,
                               const QuorvaneDictionary* payload, uint32_t flags, int64_t timeout,
                               QuorvaneAnswerCallback callback, void* context, char** message) {
    return telling(message, [&]() -> Status {
        if (client == nullptr || callback == nullptr) return nullArgument();
        const auto completion = [=](const Result<Answer>& answer) {
            if (!answer)
                callback(context, quorvane::client::codeOf(answer.error().code), nullptr,
                         answer.error().message.c_str());
            else
                callback(context, QUORVANE_OK, *answer ? (*answer)->c_str() : nullptr, nullptr);
        };
        return client->held.sendAsync(eventOf(category, type, payload, flags), completion,
                                      timeoutOf(timeout, quorvane::kAnswerTimeout));
    });
}

int quorvane_client_send_and_forget(QuorvaneClient* client, uint16_t category, uint16_t type,
                                    const QuorvaneDictionary* payload, uint32_t flags, char** message) {
    return telling(message, [&]() -> Status {
        if (client == nullptr) return nullArgument();
        return client->held.sendAndForget(category, type, payloadOf(payload), flags);
    });
}

int quorvane_client_try_send(QuorvaneClient* client, uint16_t category, uint16_t type,
                             const QuorvaneDictionary* payload, uint32_t flags, char** message) {
    return telling(message, [&]() -> Status {
        if (client == nullptr) return nullArgument();
        return client->held.trySend(category, type, payloadOf(payload), flags);
    });
}

int quorvane_client_flush(QuorvaneClient* client, int64_t timeout, char** answer, char** message) {
    return ask(client, message, answer,
               [&] { return client->held.flush(timeoutOf(timeout, quorvane::kAnswerTimeout)); });
}

int quorvane_client_send_single(QuorvaneClient* client, const QuorvaneSessionInfo* session_info,
                                const QuorvaneUserInfo* user_info, uint16_t category, uint16_t type,
                                const QuorvaneDictionary* payload, int64_t timeout, char** answer,
                                char** message) {
    return ask(client, message, answer, [&]() -> Result<std::string> {
        if (session_info == nullptr) return nullArgument();
        return client->held.sendMessageWithSessionInfo(session_info->held, userInfoOf(user_info),
                                                       eventOf(category, type, payload, 0),
                                                       timeoutOf(timeout, quorvane::kStartTimeout));
    });
}

// Uploads.

int quorvane_client_upload_file(QuorvaneClient* client, const char* path, QuorvaneProgressCallback callback,
                                void* context, int64_t timeout, bool* uploaded, char** message) {
    return ask(client, message, uploaded, [&]() -> Result<bool> {
        if (path == nullptr) return nullArgument();
        const auto report = [=](const UploadProgress& progress) {
            if (callback != nullptr) callback(context, static_cast<int>(progress.step), progress.fileBytes);
        };
        return client->held.uploadFile(path, report, timeoutOf(timeout, quorvane::kUploadTimeout));
    });
}

int quorvane_client_upload_log_data(QuorvaneClient* client, const QuorvaneArray* log_data, int64_t timeout,
                                    bool* uploaded, char** message) {
    return ask(client, message, uploaded, [&]() -> Result<bool> {
        if (log_data == nullptr) return nullArgument();
        return client->held.uploadLogData(log_data->held, timeoutOf(timeout, quorvane::kUploadTimeout));
    });
}
