// Reports events in every way there is: answered and unanswered, at once, batched and held until user info
// comes.

#include <quorvane/Client.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
    std::uint32_t sessionID = 1;
    std::uint32_t clientType = 5;
    bool batchEvent = false;
    bool namesLater = false;
    std::string clientName;
    std::string serviceName;
    unsigned count = 3;
    std::uint16_t category = 1;
    bool sendNow = false;
    bool showAnswers = false;
    unsigned stay = 0;
};

std::optional<quorvane::UserInfo> userInfo(const Options& options) {
    if (options.clientName.empty() && options.serviceName.empty()) return std::nullopt;
    return quorvane::UserInfo{.clientName = options.clientName, .serviceName = options.serviceName};
}

quorvane::Event event(const Options& options, unsigned number) {
    return {
        .category = options.category,
        .type = 200,
        .payload = quorvane::Dictionary{{"number", number}, {"url", "https://example.org/a"}, {"took", 0.25}},
        .flag = options.sendNow ? quorvane::kFlagSendNow : 0};
}

template <typename T>
T orExit(quorvane::Result<T> result, const char* what) {
    if (result) return *std::move(result);
    std::cerr << "report-events: " << what << ": " << result.error().message << '\n';
    std::exit(EXIT_FAILURE);
}

/// An answer is the message that was posted, as readable JSON, where the device's settings let it be shown.
void print(const char* what, const Options& options, const std::optional<std::string>& answer) {
    std::cout << what << ": ";
    if (!answer)
        std::cout << "(none)\n";
    else if (options.showAnswers)
        std::cout << *answer << '\n';
    else
        std::cout << "posted " << answer->size() << " bytes of JSON\n";
}

void print(const char* what, const quorvane::ReportingStates& states) {
    std::cout << what << ':';
    if (!states) std::cout << " no storebag";
    if (states && states->empty()) std::cout << " none";
    for (const std::string& backend : states.value_or(std::vector<std::string>{}))
        std::cout << ' ' << backend;
    std::cout << '\n';
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Reports events to the quorvaned daemon.");
    app.add_option("--session-id", options.sessionID, "The session's number")->capture_default_str();
    app.add_option("--client-type", options.clientType, "5 to 11")->capture_default_str();
    app.add_flag("--batch", options.batchEvent, "Let events be collected and posted together");
    app.add_flag("--require-user-info", options.namesLater,
                 "Give the names after the events, held until then");
    app.add_option("--client-name", options.clientName, "Client name of the user info");
    app.add_option("--service-name", options.serviceName, "Service name of the user info");
    app.add_option("--count", options.count, "How many events")->capture_default_str();
    app.add_option("--category", options.category, "The events' category")->capture_default_str();
    app.add_flag("--now", options.sendNow, "Real-time events: unbatched, to the real-time URL");
    app.add_flag("--show-answers", options.showAnswers, "Print what was posted, as the daemon tells it");
    app.add_option("--stay", options.stay, "Seconds to stay connected after the last event");
    CLI11_PARSE(app, argc, argv);

    quorvane::Client client = orExit(quorvane::Client::connect(), "no connection");
    const quorvane::SessionInfo sessionInfo{.sessionID = options.sessionID,
                                            .clientType = options.clientType,
                                            .clientVersion = 1,
                                            .batchEvent = options.batchEvent,
                                            .requireUserInfo = options.namesLater || userInfo(options)};
    orExit(client.setSessionInfo(sessionInfo, options.namesLater ? std::nullopt : userInfo(options)),
           "set up");
    print("reporting", orExit(client.start(), "start"));

    // The first event's answer is waited for; the others are on their way when the call returns.
    for (unsigned number = 0; number < options.count; ++number) {
        if (number == 0)
            print("answer", options, orExit(client.send(event(options, number)), "send"));
        else
            orExit(client.sendAndForget(event(options, number)), "send");
    }
    if (options.namesLater)
        print("with user info", orExit(client.fetchStates(userInfo(options)), "user info"));
    print("flushed", options, orExit(client.flush(), "flush"));
    std::cout << "see " << orExit(client.displayURL(), "display URL") << std::endl;
    std::this_thread::sleep_for(std::chrono::seconds(options.stay));
}
