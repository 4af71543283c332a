#include "platform/value/Text.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ListenScope.h"
#include "tools/ctl/OpenSession.h"

#include <pthread.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <cmath>
#include <exception>
#include <mutex>
#include <optional>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

/// Waits for SIGINT, SIGTERM or an end that another thread gives. Made before the first thread, so that all
/// of them leave the signals to wait().
class Ending {
  public:
    Ending() {
        sigemptyset(&_signals);
        for (const int number : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&_signals, number);
        pthread_sigmask(SIG_BLOCK, &_signals, nullptr);
    }

    /// Of several ends the first counts; nothing is an orderly one.
    void end(std::optional<tools::Failure> failure) {
        const std::scoped_lock lock(_guard);
        if (!_ended) _failure = std::move(failure);
        _ended = true;
        ::kill(::getpid(), SIGUSR1);
    }

    void wait() {
        int number = 0;
        sigwait(&_signals, &number);
        const std::scoped_lock lock(_guard);
        if (_failure) throw tools::Failure(*_failure);
    }

  private:
    sigset_t _signals{};
    std::mutex _guard;
    bool _ended = false;
    std::optional<tools::Failure> _failure;
};

std::string localTime(double timestamp) {
    const std::int64_t microseconds = std::llround(timestamp * 1e6);
    const std::time_t seconds = microseconds / 1'000'000;
    return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:06}", fmt::localtime(seconds), microseconds % 1'000'000);
}

void print(bool json, const AggregatedEvent& event) {
    Dictionary fact{{"timestamp", event.timestamp}, {"category", event.category}, {"type", event.type}};
    if (event.payload) fact.set("payload", *event.payload);
    tools::printFact(
        json, fact,
        fmt::format("{}  category {} type {}  {}", localTime(event.timestamp), event.category, event.type,
                    event.payload ? tools::compactJsonOf(Value(*event.payload)) : "(no payload)"));
}

/// Prints the events until there were enough of them, if there is such a number. Called by one thread.
class EventPrinter {
  public:
    EventPrinter(const Listen& command, Ending& ending)
        : _json(command.session.json), _left(command.count), _ending(ending) {}

    void operator()(const AggregatedEvent& event) {
        if (_left == 0) return;
        try {
            print(_json, event);
        } catch (const tools::Failure& failure) {
            _ending.end(failure);
        } catch (const std::exception& error) {
            _ending.end(tools::Failure(error.what()));
        }
        if (_left && --*_left == 0) _ending.end(std::nullopt);
    }

  private:
    bool _json;
    std::optional<std::uint64_t> _left;
    Ending& _ending;
};

}  // namespace

void run(const Listen& command) {
    if (!userInfoOf(command.session))
        throw tools::Failure("listen needs --client-name or --service-name", tools::kUsage);
    Ending ending;
    EventPrinter printer(command, ending);
    const AggregationBlock block{
        .event = [&](const AggregatedEvent& event) { printer(event); },
        .ended =
            [&](const SessionInfo&) {
                ending.end(tools::Failure("another client aggregates the events of these sessions now"));
            }};
    Client client = connect(command.session, [&](const Error& error) { ending.end(failureOf(error)); });
    startWithStorebag(client, command.session, block);
    fmt::print(stderr, "{}\n", platform::escapedControls(scopeOfListening(command.session), "\n"));
    ending.wait();
    if (const auto dropped = client.droppedEvents(); dropped > 0)
        fmt::print(stderr, "quorvanectl: {} events were dropped: they came faster than they were printed\n",
                   dropped);
}

}  // namespace quorvane::ctl
