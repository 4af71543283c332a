#include "client/ConnectSocket.h"
#include "client/Connection.h"
#include "client/LentFiles.h"
#include "client/ReplyInterface.h"
#include "client/Serialization.h"
#include "framework/Keys.h"
#include "platform/base/Root.h"
#include "platform/bus/BusValue.h"

#include <quorvane/Client.h>

#include <utility>

namespace quorvane {

using client::Connection;
using client::orNull;

namespace {

constexpr Connection::Method kIssue{kSandboxExtensionInterface, "Issue"};

constexpr Connection::Method operation(const char* name) {
    return {kClientSessionInterface, name};
}

int appendNothing(sd_bus_message*) {
    return 0;
}

int readNothing(sd_bus_message*) {
    return 0;
}

int readString(sd_bus_message* message, std::string& out) {
    const char* text = nullptr;
    const int result = ::sd_bus_message_read(message, "s", &text);
    if (result >= 0) out = text;
    return result;
}

int readBoolean(sd_bus_message* message, bool& out) {
    int flag = 0;
    const int result = ::sd_bus_message_read(message, "b", &flag);
    out = flag != 0;
    return result;
}

template <typename T>
using Read = int (*)(sd_bus_message*, T&);

/// Waits for the answer and reads it.
template <typename T>
Result<T> ask(Connection& connection, const Connection::Method& method, const Connection::Encoder& encode,
              Read<T> read, Timeout timeout) {
    T answer{};
    const auto decode = [read, &answer](sd_bus_message* message) { return read(message, answer); };
    if (const Status status = connection.callAndWait(method, encode, decode, timeout); !status)
        return status.error();
    return answer;
}

/// A reply that reads the answer and hands it to the completion on the executor.
template <typename T>
Connection::Reply completing(Connection& connection, Completion<T> completion, Read<T> read) {
    return [&connection, completion = std::move(completion),
            read](const Result<sd_bus_message*>& reply) mutable {
        T answer{};
        Result<T> result = answer;
        if (!reply)
            result = reply.error();
        else if (read(*reply, answer) < 0)
            result = Error{ErrorCode::Refused, "the daemon's answer is malformed"};
        else
            result = std::move(answer);
        if (!completion) return;
        connection.deliverLater(
            {[completion = std::move(completion), result = std::move(result)] { completion(result); }, 0});
    };
}

int appendSingleShot(sd_bus_message* message, const Dictionary& sessionInfo,
                     const std::optional<Dictionary>& userInfo, const Event& event) {
    int result = platform::appendDictionary(message, sessionInfo);
    if (result >= 0) result = platform::appendOptionalDictionary(message, orNull(userInfo));
    return result < 0 ? result : client::appendEvent(message, event);
}

}  // namespace

class Client::Implementation {
  public:
    Implementation() : replyInterface(lentFiles) {}

    client::LentFiles lentFiles;
    client::ReplyInterface replyInterface;
    Timeout closeTimeout{};
    std::unique_ptr<Connection> connection;
};

Result<Client> Client::connect(ConnectOptions options) {
    const std::string path =
        options.socketPath.empty() ? platform::rooted(kQuorvaneSocketPath) : options.socketPath;
    const client::Deadline deadline = client::deadlineAfter(options.timeout);
    auto socket = client::connectSocket(path, deadline);
    if (!socket) return socket.error();

    auto implementation = std::make_unique<Implementation>();
    implementation->closeTimeout = options.closeTimeout;
    const auto exports = implementation->replyInterface.exports();
    auto connection = Connection::start(*std::move(socket), exports, std::move(options), deadline);
    if (!connection) return connection.error();
    implementation->connection = *std::move(connection);
    implementation->replyInterface.setConnection(implementation->connection.get());
    return Client(std::move(implementation));
}

Client::Client(std::unique_ptr<Implementation> implementation) : _implementation(std::move(implementation)) {}

Client::Client(Client&& other) noexcept = default;

Client& Client::operator=(Client&& other) noexcept {
    const Client former(std::move(*this));
    _implementation = std::move(other._implementation);
    return *this;
}

Client::~Client() {
    if (_implementation != nullptr) _implementation->connection->close(_implementation->closeTimeout);
}

Status Client::setSessionInfo(const SessionInfo& sessionInfo, const std::optional<UserInfo>& userInfo,
                              const std::vector<std::string>& frameworksToCheck,
                              AggregationBlock aggregationBlock, Timeout timeout) {
    const bool aggregates = static_cast<bool>(aggregationBlock);
    _implementation->replyInterface.setAggregationBlock(std::move(aggregationBlock));
    const auto encode = [&](sd_bus_message* message) {
        int result = platform::appendDictionary(message, client::sessionInfoDictionary(sessionInfo));
        const std::optional<Dictionary> user = client::userInfoDictionary(userInfo);
        if (result >= 0) result = platform::appendOptionalDictionary(message, orNull(user));
        if (result >= 0) result = platform::appendStrings(message, frameworksToCheck);
        return result < 0 ? result : ::sd_bus_message_append(message, "b", static_cast<int>(aggregates));
    };
    return _implementation->connection->callAndWait(operation("SetSessionInfo"), encode, readNothing,
                                                    timeout);
}

Result<ReportingStates> Client::start(Timeout timeout) {
    return ask(*_implementation->connection, operation("StartConfig"), appendNothing,
               platform::readOptionalStrings, timeout);
}

Result<ReportingStates> Client::fetchStates(const std::optional<UserInfo>& userInfo, Timeout timeout) {
    const std::optional<Dictionary> user = client::userInfoDictionary(userInfo);
    const auto encode = [&user](sd_bus_message* message) {
        return platform::appendOptionalDictionary(message, orNull(user));
    };
    return ask(*_implementation->connection, operation("FetchStatesWithUserInfo"), encode,
               platform::readOptionalStrings, timeout);
}

Result<std::string> Client::displayURL(Timeout timeout) {
    return ask(*_implementation->connection, operation("FetchDisplayURL"), appendNothing, readString,
               timeout);
}

namespace {

constexpr Connection::Method kSendMessage = operation("SendMessageWithDictionary");

auto appendingMessage(const Event& event) {
    return [&event](sd_bus_message* message) { return client::appendMessage(message, event); };
}

}  // namespace

Result<Answer> Client::send(const Event& event, Timeout timeout) {
    return ask(*_implementation->connection, kSendMessage, appendingMessage(event),
               platform::readOptionalString, timeout);
}

Status Client::sendAsync(const Event& event, Completion<Answer> completion, Timeout timeout) {
    Connection& connection = *_implementation->connection;
    return connection.call(
        event, completing<Answer>(connection, std::move(completion), platform::readOptionalString), timeout);
}

Status Client::sendAndForget(const Event& event) {
    return _implementation->connection->send(event, Connection::WhenFull::Wait);
}

Status Client::sendAndForget(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                             std::uint32_t flag) {
    return _implementation->connection->send({category, type, payload, flag}, Connection::WhenFull::Wait);
}

Status Client::trySend(const Event& event) {
    return _implementation->connection->send(event, Connection::WhenFull::Fail);
}

Status Client::trySend(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                       std::uint32_t flag) {
    return _implementation->connection->send({category, type, payload, flag}, Connection::WhenFull::Fail);
}

Result<Answer> Client::flush(Timeout timeout) {
    return ask(*_implementation->connection, operation("FlushMessages"), appendNothing,
               platform::readOptionalString, timeout);
}

Result<std::string> Client::sendMessageWithSessionInfo(const SessionInfo& sessionInfo,
                                                       const std::optional<UserInfo>& userInfo,
                                                       const Event& event, Timeout timeout) {
    const auto encode = [&](sd_bus_message* message) {
        return appendSingleShot(message, client::sessionInfoDictionary(sessionInfo),
                                client::userInfoDictionary(userInfo), event);
    };
    return ask(*_implementation->connection, operation("SendMessageWithSessionInfo"), encode, readString,
               timeout);
}

Status Client::sendMessageWithSessionInfoAsync(const SessionInfo& sessionInfo,
                                               const std::optional<UserInfo>& userInfo, const Event& event,
                                               Completion<std::string> completion, Timeout timeout) {
    Connection& connection = *_implementation->connection;
    const auto encode = [&](sd_bus_message* message) {
        return appendSingleShot(message, client::sessionInfoDictionary(sessionInfo),
                                client::userInfoDictionary(userInfo), event);
    };
    return connection.call(operation("SendMessageWithSessionInfo"), encode,
                           completing<std::string>(connection, std::move(completion), readString), timeout);
}

Result<bool> Client::uploadFile(const std::string& path,
                                const std::function<void(const UploadProgress&)>& progress, Timeout timeout) {
    Connection& connection = *_implementation->connection;
    const auto opened = client::openRegularFile(path);
    if (!opened) return opened.error();
    const client::OpenFile& file = **opened;
    const auto report = [&](UploadProgress::Step step) {
        if (progress) progress({step, file.bytes});
    };
    report(UploadProgress::Step::Opened);

    const auto token = ask(
        connection, kIssue,
        [&file](sd_bus_message* message) {
            return ::sd_bus_message_append(message, "h", file.descriptor.get());
        },
        readString, timeout);
    if (!token) return token.error();
    _implementation->lentFiles.add(*token, *opened);
    report(UploadProgress::Step::Lent);

    auto uploaded = ask(
        connection, operation("UploadFileAtPath"),
        [&](sd_bus_message* message) {
            return ::sd_bus_message_append(message, "ss", client::fileURL(file.path).c_str(), token->c_str());
        },
        readBoolean, timeout);
    // The daemon sends RemoveFile before its answer, so with an answer it has been handled by now.
    if (!uploaded && uploaded.error().code == ErrorCode::TimedOut)
        _implementation->lentFiles.keepLate(*token);
    else
        _implementation->lentFiles.forget(*token);
    if (uploaded) report(UploadProgress::Step::Finished);
    return uploaded;
}

Result<bool> Client::uploadLogData(const Array& logData, Timeout timeout) {
    struct Outcome {
        bool success = false;
        Answer error;
    };
    const auto read = [](sd_bus_message* message, Outcome& out) {
        const int result = readBoolean(message, out.success);
        return result < 0 ? result : platform::readOptionalString(message, out.error);
    };
    const auto encode = [&logData](sd_bus_message* message) {
        return platform::appendArray(message, logData);
    };
    const auto outcome =
        ask<Outcome>(*_implementation->connection, operation("UploadLogData"), encode, read, timeout);
    if (!outcome) return outcome.error();
    if (outcome->error) return Error{ErrorCode::Refused, *outcome->error};
    return outcome->success;
}

std::uint64_t Client::droppedEvents() const {
    return _implementation->replyInterface.droppedEvents();
}

}  // namespace quorvane
