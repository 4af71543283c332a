#include "service/ClientSessionEndpoint.h"

#include "framework/EventPacking.h"
#include "framework/Keys.h"
#include "platform/base/Clock.h"
#include "platform/base/Log.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"
#include "service/ServeCall.h"

#include <cerrno>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane {

namespace {

/// Largest session info, user info, and framework names: they stay for the session's life.
constexpr std::size_t kMaximumKeptBytes = 64u << 10;

const Dictionary* orNone(const std::optional<Dictionary>& dictionary) {
    return dictionary ? &*dictionary : nullptr;
}

}  // namespace

// Setting up.

void ClientSessionEndpoint::exportSession(platform::BusConnection& connection,
                                          std::shared_ptr<ClientSessionInterface> session,
                                          std::shared_ptr<const ClientProxy> client) {
    const std::shared_ptr<ClientSessionEndpoint> endpoint(
        new ClientSessionEndpoint(connection, std::move(session), std::move(client)));
    if (!connection.setExportedObject(kQuorvaneObjectPath, kClientSessionInterface, sessionVtable,
                                      endpoint) ||
        !connection.setExportedObject(kQuorvaneObjectPath, kEventBatchInterface, batchVtable, endpoint) ||
        !connection.setExportedObject(kQuorvaneObjectPath, kSandboxExtensionInterface, extensionVtable,
                                      endpoint))
        platform::logError("listener: a session could not be exported on the {}", connection.description());
    connection.setFileHandler({kQuorvaneObjectPath, kSandboxExtensionInterface, "Issue"},
                              [endpoint](sd_bus_message* call, platform::UniqueDescriptor file) {
                                  endpoint->issueForFile(call, std::move(file));
                              });
    connection.setDictionaryHandler(
        {kQuorvaneObjectPath, kClientSessionInterface, "SendMessageWithDictionary"},
        [endpoint](const platform::BusCall& call, const Dictionary& message) {
            endpoint->sendPlainMessage(call, message);
        });
}

ClientSessionEndpoint::ClientSessionEndpoint(platform::BusConnection& connection,
                                             std::shared_ptr<ClientSessionInterface> session,
                                             std::shared_ptr<const ClientProxy> client)
    : _connection(connection),
      _session(std::move(session)),
      _client(std::move(client)),
      _extensionOwner(platform::newExtensionOwner(connection.peer().uid)) {}

ClientSessionEndpoint::~ClientSessionEndpoint() {
    platform::revokeSandboxExtensions(_extensionOwner);
}

#define METHOD(name, in, inNames, out, outNames, method)                                                   \
    SD_BUS_METHOD_WITH_NAMES(name, in, inNames, out, outNames, &serveCall<&ClientSessionEndpoint::method>, \
                             SD_BUS_VTABLE_UNPRIVILEGED)
#define P(name) SD_BUS_PARAM(name)

const sd_bus_vtable ClientSessionEndpoint::sessionVtable[] = {
    SD_BUS_VTABLE_START(0),
    METHOD("SetSessionInfo", "a{sv}aa{sv}asb",
           P(sessionInfo) P(userInfo) P(frameworksToCheck) P(hasAggregationBlock), "", , setSessionInfo),
    METHOD("StartConfig", "", , "aas", P(states), startConfig),
    METHOD("FetchStatesWithUserInfo", "aa{sv}", P(userInfo), "aas", P(states), fetchStatesWithUserInfo),
    METHOD("FetchDisplayURL", "", , "s", P(displayURL), fetchDisplayURL),
    METHOD("SendMessageWithCategory", "qqaa{sv}", P(category) P(type) P(payload), "as", P(answer),
           sendMessageWithCategory),
    METHOD("SendMessageWithDictionary", "a{sv}", P(message), "as", P(answer), sendMessageWithDictionary),
    METHOD("FlushMessages", "", , "as", P(answer), flushMessages),
    METHOD("UploadFileAtPath", "ss", P(fileURL) P(extensionToken), "b", P(success), uploadFileAtPath),
    METHOD("UploadLogData", "av", P(logData), "bas", P(success) P(error), uploadLogData),
    METHOD("SendMessageWithSessionInfo", "a{sv}aa{sv}qqaa{sv}",
           P(sessionInfo) P(userInfo) P(category) P(type) P(payload), "s", P(answer),
           sendMessageWithSessionInfo),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable ClientSessionEndpoint::batchVtable[] = {
    SD_BUS_VTABLE_START(0),
    METHOD("SendMessages", "ay", P(events), "uas", P(accepted) P(firstFailure), sendMessages),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable ClientSessionEndpoint::extensionVtable[] = {
    SD_BUS_VTABLE_START(0),
    METHOD("Issue", "h", P(file), "s", P(extensionToken), issue),
    SD_BUS_VTABLE_END,
};

#undef P
#undef METHOD

// The calls.

int ClientSessionEndpoint::setSessionInfo(sd_bus_message* call) {
    Dictionary sessionInfo;
    std::optional<Dictionary> userInfo;
    std::vector<std::string> frameworks;
    int aggregates = 0;
    int result = platform::readDictionary(call, sessionInfo);
    if (result >= 0) result = platform::readOptionalDictionary(call, userInfo);
    if (result >= 0) result = platform::readStrings(call, frameworks);
    if (result >= 0) result = ::sd_bus_message_read(call, "b", &aggregates);
    if (result >= 0) result = keepInfos(sessionInfo, userInfo);
    if (result >= 0) result = keepFrameworks(frameworks);
    if (result < 0) return result;
    _session->setSessionInfo(std::move(sessionInfo), std::move(userInfo), std::move(frameworks),
                             aggregates != 0);
    answerNothing(_connection, call);
    return 0;
}

int ClientSessionEndpoint::startConfig(sd_bus_message* call) {
    _session->startConfigWithCompletionHandler(
        [&](const ReportingStates& states) { answerStates(call, states); });
    return 0;
}

int ClientSessionEndpoint::fetchStatesWithUserInfo(sd_bus_message* call) {
    std::optional<Dictionary> userInfo;
    int result = platform::readOptionalDictionary(call, userInfo);
    if (result >= 0) result = keepUserInfo(userInfo);
    if (result < 0) return result;
    _session->fetchStatesWithUserInfo(std::move(userInfo),
                                      [&](const ReportingStates& states) { answerStates(call, states); });
    return 0;
}

int ClientSessionEndpoint::fetchDisplayURL(sd_bus_message* call) {
    _session->fetchDisplayURL([&](const std::string& url) { answerText(call, url); });
    return 0;
}

int ClientSessionEndpoint::sendMessageWithCategory(sd_bus_message* call) {
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::optional<Dictionary> payload;
    int result = ::sd_bus_message_read(call, "qq", &category, &type);
    if (result >= 0) result = platform::readOptionalDictionary(call, payload);
    if (result < 0) return result;
    _session->sendMessageWithCategory(category, type, orNone(payload),
                                      [&](const Answer& text) { answerOptionalText(call, text); });
    return 0;
}

int ClientSessionEndpoint::sendMessageWithDictionary(sd_bus_message* call) {
    Dictionary message;
    if (const int result = platform::readDictionary(call, message); result < 0) return result;
    _session->sendMessageWithDictionary(message, [&](const Answer& text) { answerOptionalText(call, text); });
    return 0;
}

/// The same for a message that has been read already.
void ClientSessionEndpoint::sendPlainMessage(const platform::BusCall& call,
                                             const Dictionary& message) noexcept {
    try {
        _session->sendMessageWithDictionary(message,
                                            [&](const Answer& text) { answerPlainMessage(call, text); });
    } catch (const std::exception& thrown) {
        logThrown("SendMessageWithDictionary", thrown);
        if (!call.expectsReply) return;
        if (const platform::BusMessage whole = _connection.messageOf(call))
            ::sd_bus_reply_method_errorf(whole.get(), SD_BUS_ERROR_FAILED, "%s", kNotServed);
    }
}

int ClientSessionEndpoint::sendMessages(sd_bus_message* call) {
    using Step = PackedEventReader::Step;
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (const int result = ::sd_bus_message_read_array(call, SD_BUS_TYPE_BYTE, &bytes, &size); result < 0)
        return result;
    const platform::TimeValue now = platform::timeOfDay();
    std::uint32_t accepted = 0;
    std::optional<std::string> firstFailure;
    PackedEventReader events({static_cast<const std::uint8_t*>(bytes), size});
    for (Step step = events.next(); step != Step::End; step = events.next()) {
        if (step == Step::Event) {
            const PackedEvent& event = events.event();
            _session->sendEarlierMessage(event.category, event.type, orNone(event.payload), event.flag,
                                         platform::earlier(now, event.age));
            ++accepted;
        } else if (!firstFailure) {
            // None has failed before it.
            firstFailure = fmt::format("event {}: {}", accepted, events.failure());
        }
    }
    answerCall(_connection, call, 0, [&](sd_bus_message* reply) {
        const int result = ::sd_bus_message_append(reply, "u", accepted);
        return result < 0 ? result
                          : platform::appendOptionalString(reply, firstFailure ? &*firstFailure : nullptr);
    });
    return 0;
}

int ClientSessionEndpoint::flushMessages(sd_bus_message* call) {
    _session->flushMessagesWithReply([&](const Answer& text) { answerOptionalText(call, text); });
    return 0;
}

int ClientSessionEndpoint::uploadFileAtPath(sd_bus_message* call) {
    const char* fileURL = nullptr;
    const char* named = nullptr;
    if (const int result = ::sd_bus_message_read(call, "ss", &fileURL, &named); result < 0) return result;
    // A token of another connection opens nothing here.
    std::string token = named;
    if (!platform::ownsSandboxExtension(_extensionOwner, token)) token.clear();
    _session->uploadFileAtPath(fileURL, token, [&](bool success) {
        answerCall(_connection, call, 0,
                   [=](sd_bus_message* reply) { return ::sd_bus_message_append(reply, "b", int{success}); });
    });
    // One that no backend asked for is used up all the same, or it would count as outstanding for good.
    platform::SandboxExtension::consume(token, {});
    return 0;
}

int ClientSessionEndpoint::uploadLogData(sd_bus_message* call) {
    Array logData;
    if (const int result = platform::readArray(call, logData); result < 0) return result;
    _session->uploadLogData(logData, [&](bool success, const Answer& error) {
        answerCall(_connection, call, error ? error->size() : 0, [&](sd_bus_message* reply) {
            const int result = ::sd_bus_message_append(reply, "b", int{success});
            return result < 0 ? result : platform::appendOptionalString(reply, error ? &*error : nullptr);
        });
    });
    return 0;
}

int ClientSessionEndpoint::sendMessageWithSessionInfo(sd_bus_message* call) {
    Dictionary sessionInfo;
    std::optional<Dictionary> userInfo;
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::optional<Dictionary> payload;
    int result = platform::readDictionary(call, sessionInfo);
    if (result >= 0) result = platform::readOptionalDictionary(call, userInfo);
    if (result >= 0) result = ::sd_bus_message_read(call, "qq", &category, &type);
    if (result >= 0) result = platform::readOptionalDictionary(call, payload);
    if (result >= 0) result = keepInfos(sessionInfo, userInfo);
    if (result < 0) return result;
    _session->sendMessageWithSessionInfo(sessionInfo, std::move(userInfo), category, type, orNone(payload),
                                         [&](const std::string& text) { answerText(call, text); });
    return 0;
}

/// Reached by a call without a file only.
int ClientSessionEndpoint::issue(sd_bus_message*) {
    return -EBADMSG;
}

void ClientSessionEndpoint::issueForFile(sd_bus_message* call, platform::UniqueDescriptor file) {
    const auto token = platform::issueSandboxExtension(
        _extensionOwner, std::move(file),
        [client = _client](const std::string& extensionToken) { client->removeFile(extensionToken); });
    if (token)
        answerText(call, *token);
    else
        ::sd_bus_reply_method_errorf(
            call, SD_BUS_ERROR_FAILED,
            "The file cannot be lent: it is not open for reading, or too many files are lent already");
}

// What is kept.

int ClientSessionEndpoint::keep(platform::UserAccount::Charge& charge, std::size_t bytes) {
    if (bytes > kMaximumKeptBytes) return -EMSGSIZE;
    auto charged = _connection.account().charge(platform::UserAccount::Slot::Bytes, bytes);
    if (!charged) return -ENOBUFS;
    charge = *std::move(charged);
    return 0;
}

int ClientSessionEndpoint::keepInfos(const Dictionary& sessionInfo,
                                     const std::optional<Dictionary>& userInfo) {
    const int result = keep(_sessionInfo, heldBytes(sessionInfo));
    return result < 0 ? result : keepUserInfo(userInfo);
}

int ClientSessionEndpoint::keepUserInfo(const std::optional<Dictionary>& userInfo) {
    return keep(_userInfo, userInfo ? heldBytes(*userInfo) : 0);
}

int ClientSessionEndpoint::keepFrameworks(const std::vector<std::string>& frameworks) {
    std::size_t bytes = 0;
    for (const std::string& name : frameworks) bytes += sizeof(std::string) + name.size();
    return keep(_frameworks, bytes);
}

// The answers.

void ClientSessionEndpoint::answerText(sd_bus_message* call, const std::string& text) {
    answerCall(_connection, call, text.size(),
               [&](sd_bus_message* reply) { return ::sd_bus_message_append(reply, "s", text.c_str()); });
}

void ClientSessionEndpoint::answerOptionalText(sd_bus_message* call, const Answer& text) {
    answerCall(_connection, call, text ? text->size() : 0, [&](sd_bus_message* reply) {
        return platform::appendOptionalString(reply, text ? &*text : nullptr);
    });
}

void ClientSessionEndpoint::answerPlainMessage(const platform::BusCall& call, const Answer& text) {
    if (!call.expectsReply || _connection.replyWithText(call, text ? &*text : nullptr)) return;
    if (const platform::BusMessage whole = _connection.messageOf(call)) answerOptionalText(whole.get(), text);
}

void ClientSessionEndpoint::answerStates(sd_bus_message* call, const ReportingStates& states) {
    answerCall(_connection, call, 0, [&](sd_bus_message* reply) {
        return platform::appendOptionalStrings(reply, states ? &*states : nullptr);
    });
}

}  // namespace quorvane
