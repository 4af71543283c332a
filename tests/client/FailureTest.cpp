#include "platform/bus/BusMessage.h"
#include "tests/client/ClientFixture.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

namespace quorvane::test {
namespace {

using std::chrono::milliseconds;

const Event kEvent{.category = 1, .type = 2};

/// Answers nothing.
int silent(sd_bus_message*) {
    return 1;
}

/// The answer to an event that is not waited for.
std::future<Result<Answer>> later(Client& client, const Event& event, Timeout timeout = kAnswerTimeout) {
    const auto answer = std::make_shared<std::promise<Result<Answer>>>();
    EXPECT_TRUE(client.sendAsync(
        event, [answer](Result<Answer> given) { answer->set_value(std::move(given)); }, timeout));
    return answer->get_future();
}

TEST(Failures, WhereNobodyListensOrSpeaksDBusThereIsNoClient) {
    const auto client = Client::connect({.socketPath = "/nowhere/nothing"});
    EXPECT_EQ(client.error().code, ErrorCode::Disconnected);
    EXPECT_NE(client.error().message.find("/nowhere/nothing"), std::string::npos);
    const auto tooLong = Client::connect({.socketPath = std::string(200, 'x')});
    EXPECT_EQ(tooLong.error().code, ErrorCode::InvalidArgument);

    const auto folder = makeFolder();
    const std::string path = folder / "socket";
    const auto listener = listenAt(path);
    const auto unanswered = Client::connect({.socketPath = path, .timeout = milliseconds(50)});
    EXPECT_EQ(unanswered.error().code, ErrorCode::TimedOut);
    std::thread other([&] {
        // The first connection has been given up, but waits to be accepted.
        for (int connection = 0; connection < 2; ++connection) {
            const platform::UniqueDescriptor socket(::accept(listener.get(), nullptr, nullptr));
            const std::string garbage(1000, '\x80');
            ::send(socket.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL);
        }
    });
    EXPECT_EQ(Client::connect({.socketPath = path}).error().code, ErrorCode::Disconnected);
    other.join();
    std::filesystem::remove_all(folder);
}

TEST(Failures, TheDaemonsErrorsAndMalformedAnswersComeBack) {
    BusPeer peer([](sd_bus_message* message) {
        if (std::strcmp(::sd_bus_message_get_member(message), "StartConfig") == 0)
            return ::sd_bus_reply_method_return(message, "u", 7);
        return ::sd_bus_reply_method_errorf(message, "com.velmora.Busy", "no %s today", "events");
    });
    Client client = connectTo(peer);
    const auto refused = client.send(kEvent);
    EXPECT_EQ(refused.error().code, ErrorCode::Refused);
    EXPECT_EQ(refused.error().message, "no events today");
    EXPECT_EQ(later(client, kEvent).get().error().message, "no events today");
    EXPECT_EQ(client.start().error().code, ErrorCode::Refused);
}

TEST(Failures, AValueThatCannotBeSentCostsOnlyItsCall) {
    BusPeer peer(answerNil);
    Client client = connectTo(peer);
    Value deep = Array{};
    for (int i = 0; i < 70; ++i) deep = Array{std::move(deep)};
    for (const Value& value : {deep, Value("no \xFF text"), Value(std::string("a\0b", 3))}) {
        const Event event{.payload = Dictionary{{"value", value}}};
        EXPECT_EQ(client.send(event).error().code, ErrorCode::InvalidArgument);
        EXPECT_EQ(client.sendAndForget(event).error().code, ErrorCode::InvalidArgument);
    }
    EXPECT_TRUE(client.send(kEvent));
}

TEST(Failures, AnAnswerThatNeverComesEndsWithItsTime) {
    std::atomic<bool> answers = false;
    BusPeer peer([&](sd_bus_message* message) { return answers ? answerNil(message) : silent(message); });
    Client client = connectTo(peer);
    EXPECT_EQ(client.send(kEvent, milliseconds(30)).error().code, ErrorCode::TimedOut);
    const auto single =
        client.sendMessageWithSessionInfo({.clientType = 5}, std::nullopt, kEvent, milliseconds(30));
    EXPECT_EQ(single.error().code, ErrorCode::TimedOut);

    auto patient = later(client, kEvent, milliseconds(60));
    EXPECT_EQ(later(client, kEvent, milliseconds(10)).get().error().code, ErrorCode::TimedOut);
    EXPECT_EQ(patient.get().error().code, ErrorCode::TimedOut);

    std::promise<Result<std::string>> completed;
    ASSERT_TRUE(client.sendMessageWithSessionInfoAsync(
        {.sessionID = 1}, std::nullopt, kEvent,
        [&](Result<std::string> answer) { completed.set_value(std::move(answer)); }, milliseconds(30)));
    EXPECT_EQ(completed.get_future().get().error().code, ErrorCode::TimedOut);

    answers = true;
    EXPECT_TRUE(client.send(kEvent));
}

TEST(Failures, AnAnswerFindsItsEventInAnyOrder) {
    platform::BusMessage held;
    BusPeer peer([&](sd_bus_message* message) {
        if (held == nullptr) return held.reset(::sd_bus_message_ref(message)), 1;
        const platform::BusMessage earlier = std::move(held);
        ::sd_bus_reply_method_return(message, "as", 1, "second");
        return ::sd_bus_reply_method_return(earlier.get(), "as", 1, "first");
    });
    Client client = connectTo(peer);
    auto first = later(client, kEvent);
    // More than is written past the bus library.
    auto second = later(client, {.payload = Dictionary{{"text", std::string(20'000, 'x')}}});
    EXPECT_EQ(*first.get(), "first");
    EXPECT_EQ(*second.get(), "second");
    first = later(client, kEvent);
    second = later(client, kEvent);
    EXPECT_EQ(*first.get(), "first");
    EXPECT_EQ(*second.get(), "second");
}

TEST(Failures, ALostConnectionFailsWhatWaitsAndTellsOnce) {
    BusPeer peer(silent);
    std::atomic<int> notices = 0;
    Client client = connectTo(peer, {.disconnected = [&](const Error& error) {
                                  EXPECT_EQ(error.code, ErrorCode::Disconnected);
                                  ++notices;
                              }});
    auto completed = later(client, kEvent);
    auto waiting = std::async(std::launch::async, [&] { return client.send(kEvent); });
    peer.run([](sd_bus*) {});
    peer.disconnect();

    EXPECT_EQ(waiting.get().error().code, ErrorCode::Disconnected);
    EXPECT_EQ(completed.get().error().code, ErrorCode::Disconnected);
    EXPECT_TRUE(eventually([&] { return notices == 1; }));
    EXPECT_EQ(client.send(kEvent).error().code, ErrorCode::Disconnected);
    EXPECT_EQ(client.sendAndForget(kEvent).error().code, ErrorCode::Disconnected);
    EXPECT_EQ(client.sendAsync(kEvent, nullptr).error().code, ErrorCode::Disconnected);

    // Reconnecting is a new client.
    Client again = connectTo(peer);
    client = std::move(again);
    EXPECT_EQ(client.send(kEvent, milliseconds(10)).error().code, ErrorCode::TimedOut);
    EXPECT_EQ(notices, 1);

    // Bytes that are no message end it too.
    peer.disconnect();
    client = connectTo(peer, {.disconnected = [&](const Error&) { ++notices; }});
    peer.run([](sd_bus* bus) {
        const std::string garbage(64, '\xEE');
        ASSERT_EQ(::write(::sd_bus_get_fd(bus), garbage.data(), garbage.size()), 64);
    });
    EXPECT_TRUE(eventually([&] { return notices == 2; }));
    EXPECT_EQ(client.send(kEvent).error().code, ErrorCode::Disconnected);
}

}  // namespace
}  // namespace quorvane::test
