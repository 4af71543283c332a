#include "platform/formats/Json.h"
#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/OpenSession.h"
#include "tools/ctl/Payload.h"
#include "tools/ctl/PrintStates.h"

#include <utility>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

/// Answers are JSON objects, or plain words.
Value valueOf(const std::string& answer) {
    auto value = platform::parseJson(answer);
    return value && value->dictionary() != nullptr ? *std::move(value) : Value(answer);
}

void printAnswer(bool json, Dictionary fact, const std::string& what, const Answer& answer) {
    if (answer) fact.set("answer", valueOf(*answer));
    tools::printFact(json, fact, fmt::format("{}: {}", what, answer.value_or("(no answer)")));
}

void flush(Client& client, const SessionOptions& options) {
    const Answer answer = orFail(client.flush(timeoutOf(options)));
    printAnswer(options.json, {{"flushed", true}}, "flushed", answer);
}

}  // namespace

void run(const Send& command) {
    const SessionOptions& session = command.session;
    const Event event =
        eventOf(command.event, (command.now ? kFlagSendNow : 0) | (command.promote ? kFlagPromote : 0));
    Client client = connect(session);
    printStates(session.json, startWithStorebag(client, session));
    for (std::uint32_t number = 1; number <= command.count; ++number) {
        const Answer answer = orFail(client.send(event, timeoutOf(session)));
        printAnswer(session.json, {{"event", number}}, fmt::format("event {}", number), answer);
    }
    if (command.flush) flush(client, session);
}

void run(const Single& command) {
    const SessionOptions& session = command.session;
    const Event event = eventOf(command.event);
    Client client = connect(session);
    const std::string answer = orFail(client.sendMessageWithSessionInfo(
        session.sessionInfo, userInfoOf(session), event, timeoutOf(session)));
    if (answer != "finished") throw tools::Failure(answer);
    tools::printFact(session.json, {{"answer", answer}}, answer);
}

void run(const Flush& command) {
    Client client = connect(command.session);
    startWithStorebag(client, command.session);
    flush(client, command.session);
}

}  // namespace quorvane::ctl
