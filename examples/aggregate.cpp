// Receives the events of its own session and of every session below it, and prints them until it is
// interrupted.

#include <quorvane/Client.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

void print(const quorvane::AggregatedEvent& event) {
    std::printf("%.6f category %u type %u %s\n", event.timestamp, event.category, event.type,
                event.payload ? event.payload->description().c_str() : "(no payload)");
    std::fflush(stdout);
}

template <typename T>
T orExit(quorvane::Result<T> result, const char* what) {
    if (result) return *std::move(result);
    std::cerr << "aggregate: " << what << ": " << result.error().message << '\n';
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    quorvane::SessionInfo sessionInfo{
        .sessionID = 1, .clientType = 5, .clientVersion = 1, .requireUserInfo = true};
    quorvane::UserInfo userInfo{.clientName = "example", .serviceName = "aggregate"};
    CLI::App app("Prints the events of a group of sessions as the quorvaned daemon relays them.");
    app.add_option("--session-id", sessionInfo.sessionID, "The session's number");
    app.add_option("--client-type", sessionInfo.clientType, "5 to 11");
    app.add_option("--client-name", userInfo.clientName, "Client name of the group");
    app.add_option("--service-name", userInfo.serviceName, "Service name of the group");
    CLI11_PARSE(app, argc, argv);

    // Blocked before the library starts its threads, so that sigwait() below gets them.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const auto wakeMain = [main = pthread_self()] { pthread_kill(main, SIGUSR1); };

    quorvane::ConnectOptions options;
    options.disconnected = [wakeMain](const quorvane::Error& error) {
        std::cerr << "aggregate: " << error.message << '\n';
        wakeMain();
    };
    const quorvane::AggregationBlock block{.event = print, .ended = [wakeMain](const quorvane::SessionInfo&) {
                                               std::puts("aggregation has ended");
                                               wakeMain();
                                           }};

    quorvane::Client client = orExit(quorvane::Client::connect(options), "no connection");
    orExit(client.setSessionInfo(sessionInfo, userInfo, {}, block), "set up");
    orExit(client.start(), "start");
    std::puts("listening");
    std::fflush(stdout);

    int signal = 0;
    sigwait(&signals, &signal);
}
