// A client in a process of its own, for tests: ChainClient SOCKET COMMANDS TYPE ID [aggregate] [batch]
//
// Reads one command a line from the file COMMANDS and answers each with one line on standard output, which
// starts with the command's number: "#1 httppost". Between them it writes what its aggregation block gets of
// the tests' events, and the end of its aggregation.

#include <quorvane/Client.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace quorvane;

constexpr std::uint16_t kOurs = 12;

/// Whole lines, whichever thread writes them.
void say(const std::string& text) {
    const std::string line = text + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) std::_Exit(EXIT_FAILURE);
}

template <typename T>
T orDie(Result<T> result) {
    if (result) return *std::move(result);
    say("failed: " + result.error().message);
    std::_Exit(EXIT_FAILURE);
}

std::string textOf(const ReportingStates& states) {
    if (!states) return "nil";
    std::string text;
    for (const std::string& name : *states) text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "none" : text;
}

class ChainClient {
  public:
    ChainClient(std::string socketPath, SessionInfo sessionInfo, bool aggregates)
        : _socketPath(std::move(socketPath)), _sessionInfo(sessionInfo), _aggregates(aggregates) {}

    std::string answerTo(const std::string& command) {
        std::istringstream words(command);
        std::string verb;
        words >> verb;
        if (verb == "start") return start(namesIn(words));
        if (verb == "names") return textOf(orDie(_client->fetchStates(namesIn(words))));
        if (verb == "send") return send(words);
        if (verb == "flush") return orDie(_client->flush()) ? "answered" : "unanswered";
        if (verb == "leave") return leave();
        return "unknown";
    }

  private:
    static UserInfo namesIn(std::istringstream& words) {
        UserInfo names{.clientName = std::string(), .serviceName = std::string()};
        words >> *names.clientName >> *names.serviceName;
        return names;
    }

    /// A session on a connection of its own; the one before ends.
    std::string start(const UserInfo& names) {
        _client.reset();
        _client = orDie(Client::connect({.socketPath = _socketPath}));
        orDie(_client->setSessionInfo(_sessionInfo, names, {}, _aggregates ? block() : AggregationBlock()));
        return textOf(orDie(_client->start()));
    }

    static AggregationBlock block() {
        return {.event =
                    [](const AggregatedEvent& event) {
                        const std::string session = std::to_string(event.sessionInfo.sessionID.value_or(0));
                        if (event.category == kOurs)
                            say("event " + std::to_string(event.payload->integer("n")) + " for " + session);
                        else if (event.type == 1)
                            say("end of a session for " + session);
                    },
                .ended =
                    [](const SessionInfo& sessionInfo) {
                        say("ended for " + std::to_string(sessionInfo.sessionID.value_or(0)));
                    }};
    }

    /// "send FIRST [COUNT [BYTES]]": events of consecutive numbers, each answered before the next is sent.
    std::string send(std::istringstream& words) {
        std::int64_t number = 0;
        std::int64_t count = 1;
        std::size_t bytes = 0;
        words >> number >> count >> bytes;
        std::int64_t answered = 0;
        for (const std::int64_t end = number + count; number < end; ++number) {
            Dictionary payload{{"n", number}};
            if (bytes > 0) payload.set("fill", std::string(bytes, 'x'));
            if (orDie(_client->send({.category = kOurs, .type = 3, .payload = std::move(payload)})))
                ++answered;
        }
        return std::to_string(answered) + " answered";
    }

    std::string leave() {
        _client.reset();
        return "left";
    }

    const std::string _socketPath;
    const SessionInfo _sessionInfo;
    const bool _aggregates;
    std::optional<Client> _client;
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() < 5) return EXIT_FAILURE;
    const auto has = [&](const char* word) {
        return std::find(arguments.begin() + 5, arguments.end(), word) != arguments.end();
    };
    ChainClient client(arguments[1],
                       {.sessionID = static_cast<std::uint32_t>(std::stoul(arguments[4])),
                        .clientType = static_cast<std::uint32_t>(std::stoul(arguments[3])),
                        .batchEvent = has("batch"),
                        .requireUserInfo = true},
                       has("aggregate"));
    std::ifstream commands(arguments[2]);
    std::string command;
    for (int number = 1; std::getline(commands, command); ++number)
        say("#" + std::to_string(number) + " " + client.answerTo(command));
    return EXIT_SUCCESS;
}
