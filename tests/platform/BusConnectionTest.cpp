#include "platform/BusConnection.h"
#include "tests/platform/BusFixture.h"

#include <poll.h>

#include <gmock/gmock.h>

#include <map>
#include <string_view>

namespace quorvane::platform {
namespace {

using test::BusClient;
using test::BusReply;
using testing::ElementsAre;
using namespace std::string_view_literals;

constexpr std::string_view kAuthentication = "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"sv;

void writeAll(const UniqueDescriptor& socket, std::string_view bytes) {
    ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

std::uint32_t echo(const BusClient& client, std::uint32_t number) {
    const BusReply reply = client.call(kTestInterface, "Echo", "u", number);
    std::uint32_t answer = 0;
    if (reply.message) ::sd_bus_message_read(reply.message.get(), "u", &answer);
    return answer;
}

/// A connection whose client has called once.
struct ConnectedClient : ServedConnection {
    ConnectedClient() { EXPECT_EQ(echo(busClient, 1), 1u); }

    BusClient busClient{std::move(client)};
};

/// The next message that comes to the client, after at most 30 seconds; null for none.
test::Message nextMessage(const BusClient& client) {
    for (int processed = 1; processed > 0;) {
        sd_bus_message* message = nullptr;
        processed = ::sd_bus_process(client.bus(), &message);
        if (message != nullptr) return test::Message(message);
        if (processed == 0) processed = ::sd_bus_wait(client.bus(), 30'000'000);
    }
    return nullptr;
}

/// Sends calls for answers of the size, to be read later.
void askWithoutReading(const BusClient& client, int calls, std::uint32_t size) {
    for (int i = 0; i < calls; ++i) {
        const test::Message call = client.newCall(kTestInterface, "Answer");
        ::sd_bus_message_append(call.get(), "u", size);
        std::uint64_t cookie = 0;
        ASSERT_GE(::sd_bus_send(client.bus(), call.get(), &cookie), 0);
    }
}

TEST(BusConnection, AnswersAMessageThatArrivesWithTheEndOfTheAuthentication) {
    // What a client of the bus library writes, when everything is answered in advance.
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const UniqueDescriptor recorder(ends[0]);
    writeAll(recorder, "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n");
    const BusClient recorded{UniqueDescriptor(ends[1])};
    const test::Message call = recorded.newCall(kTestInterface, "Echo");
    std::uint64_t cookie = 0;
    ASSERT_GE(::sd_bus_message_append(call.get(), "u", 0x01020304), 0);
    ASSERT_GE(::sd_bus_send(recorded.bus(), call.get(), &cookie), 0);
    ASSERT_GE(::sd_bus_flush(recorded.bus()), 0);
    char bytes[1024];
    const ssize_t written = ::recv(recorder.get(), bytes, sizeof bytes, 0);
    ASSERT_GT(written, 100);

    const ServedConnection served;
    writeAll(served.client, {bytes, static_cast<std::size_t>(written)});
    std::string received;
    while (received.find("\x04\x03\x02\x01") == std::string::npos) {
        pollfd readable{served.client.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, 30'000), 1) << "no answer came";
        const ssize_t size = ::recv(served.client.get(), bytes, sizeof bytes, 0);
        ASSERT_GT(size, 0);
        received.append(bytes, static_cast<std::size_t>(size));
    }
    EXPECT_EQ(served.object->calls(), 1u);
}

TEST(BusConnection, SendsQueuedCallsOfEveryThreadInItsOrder) {
    constexpr std::uint32_t kThreads = 4;
    constexpr std::uint32_t kCalls = 200;
    const ConnectedClient served;
    std::vector<std::jthread> threads;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (std::uint32_t number = 0; number < kCalls; ++number)
                EXPECT_TRUE(served.connection->queueCall(100, [=](sd_bus* bus) {
                    ::sd_bus_emit_signal(bus, "/", kTestInterface, "Note", "uu", thread, number);
                }));
        });
    std::map<std::uint32_t, std::uint32_t> next;
    for (std::uint32_t received = 0; received < kThreads * kCalls; ++received) {
        const test::Message message = nextMessage(served.busClient);
        ASSERT_NE(message, nullptr);
        std::uint32_t thread = 0;
        std::uint32_t number = 0;
        ASSERT_GT(::sd_bus_message_read(message.get(), "uu", &thread, &number), 0);
        EXPECT_EQ(number, next[thread]++);
    }
}

TEST(BusConnection, WhatItsOwnThreadSendsPrecedesTheAnswer) {
    const ConnectedClient served;
    const test::Message call = served.busClient.newCall(kTestInterface, "Note");
    std::uint64_t cookie = 0;
    ASSERT_GE(::sd_bus_send(served.busClient.bus(), call.get(), &cookie), 0);
    for (const int type : {SD_BUS_MESSAGE_SIGNAL, SD_BUS_MESSAGE_METHOD_RETURN}) {
        const test::Message message = nextMessage(served.busClient);
        ASSERT_NE(message, nullptr);
        std::uint8_t received = 0;
        ::sd_bus_message_get_type(message.get(), &received);
        EXPECT_EQ(received, type);
    }
}

TEST(BusConnection, RefusesQueuedCallsPastTheirBoundAndAfterItsEnd) {
    constexpr std::size_t kHalf = BusConnection::kQueuedCallBytes / 2;
    const ConnectedClient served;
    const test::Message wait = served.busClient.newCall(kTestInterface, "Wait");
    ASSERT_GE(::sd_bus_send(served.busClient.bus(), wait.get(), nullptr), 0);
    ASSERT_GE(::sd_bus_flush(served.busClient.bus()), 0);
    while (served.object->calls() < 2) std::this_thread::yield();

    std::atomic<int> ran = 0;
    const auto call = [&](sd_bus*) { ++ran; };
    EXPECT_TRUE(served.connection->queueCall(kHalf, call));
    EXPECT_TRUE(served.connection->queueCall(kHalf, call));
    EXPECT_FALSE(served.connection->queueCall(1, call));
    served.object->release();
    ASSERT_EQ(echo(served.busClient, 2), 2u);
    EXPECT_EQ(ran, 2);
    EXPECT_TRUE(served.connection->queueCall(10 * kHalf, call)) << "there is room again, for one of any size";

    served.connection->invalidate();
    served.endings->wait();
    EXPECT_FALSE(served.connection->queueCall(1, call));
}

TEST(BusConnection, OnlyAClientThatVanishesWithUnreadAnswersInterrupts) {
    for (const bool unread : {false, true}) {
        ConnectedClient served;
        if (unread) {
            askWithoutReading(served.busClient, 1, 1000);
            ASSERT_GE(::sd_bus_flush(served.busClient.bus()), 0);
            while (served.object->calls() < 2) std::this_thread::yield();
            ASSERT_GT(::sd_bus_wait(served.busClient.bus(), 30'000'000), 0) << "the answer is here, unread";
        }
        served.busClient.close();
        std::vector<std::string> expected{"invalidated", "ended"};
        if (unread) expected.insert(expected.begin(), "interrupted");
        EXPECT_EQ(served.endings->wait(), expected);
    }
}

TEST(BusConnection, BytesThatAreNoDBusAndAHalfAuthenticationCostTheirConnectionOnly) {
    const ConnectedClient other;
    const std::string authentication(kAuthentication);
    for (const std::string& bytes :
         {std::string("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), std::string(5000, '\xff'),
          authentication + std::string(64, 'B'),
          authentication + std::string("l\1\0\1\xff\xff\xff\xff", 8) + std::string(64, '\xff'),
          // Ended when the time to authenticate is up, which is none of the other connection's concern.
          std::string("\0AUTH EXTER", 11)}) {
        const ServedConnection served;
        writeAll(served.client, bytes);
        EXPECT_THAT(served.endings->wait(), ElementsAre("interrupted", "invalidated", "ended"));
        EXPECT_EQ(served.object->calls(), 0u);
    }
    EXPECT_EQ(echo(other.busClient, 2), 2u);
}

TEST(BusConnection, AClientThatDoesNotReadIsSlowedAloneAndLosesNothing) {
    constexpr int kCalls = 400;
    constexpr std::uint32_t kSize = 50'000;
    const ConnectedClient slow;
    askWithoutReading(slow.busClient, kCalls, kSize);

    const ConnectedClient fast;
    for (std::uint32_t number = 1; number <= 1000; ++number) ASSERT_EQ(echo(fast.busClient, number), number);
    // Answers of a few times the bound, with what the kernel holds, and not of 20 MB.
    EXPECT_LT(slow.object->calls(), 100u);

    for (int answers = 0; answers < kCalls; ++answers) {
        const test::Message message = nextMessage(slow.busClient);
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(::sd_bus_message_is_method_error(message.get(), nullptr), 0);
    }
    EXPECT_EQ(slow.object->calls(), kCalls + 1u);
}

TEST(BusConnection, CanBeEndedWhileItWaitsForItsClientToReadAndTellsItsQueuedCalls) {
    const ConnectedClient served;
    askWithoutReading(served.busClient, 100, 100'000);
    std::size_t calls = 0;
    do {
        calls = served.object->calls();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } while (calls < 2 || served.object->calls() > calls);
    std::atomic<bool> told = false;
    EXPECT_TRUE(served.connection->queueCall(1, [&](sd_bus* bus) { told = bus == nullptr; }));
    served.connection->invalidate();
    EXPECT_EQ(served.endings->wait().back(), "ended");
    EXPECT_LT(served.object->calls(), 100u);
    EXPECT_TRUE(told);
}

}  // namespace
}  // namespace quorvane::platform
