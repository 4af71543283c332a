#include "platform/BusConnection.h"
#include "tests/platform/BusFixture.h"

#include <fcntl.h>
#include <poll.h>

#include <gmock/gmock.h>

#include <cstring>
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
    ServedConnection served;
    // One write: the authentication and a call of Echo(5) to the test's object.
    const auto padded = [](std::string bytes) {
        return bytes + std::string((8 - bytes.size() % 8) % 8, '\0');
    };
    const auto text = [](char code, char type, std::string_view held) {
        std::string bytes{code, '\1', type, '\0', static_cast<char>(held.size())};
        if (type != 'g') bytes += std::string(3, '\0');
        return bytes.append(held) + '\0';
    };
    const std::string fields = padded(text(1, 'o', kQuorvaneObjectPath)) +
                               padded(text(2, 's', kTestInterface)) + padded(text(3, 's', "Echo")) +
                               text(8, 'g', "u");
    const std::string head{'l', 1, 0, 1, 4, 0, 0, 0, 1, 0, 0, 0, static_cast<char>(fields.size()), 0, 0, 0};
    writeAll(served.client, std::string(kAuthentication) + padded(head + fields) + std::string{5, 0, 0, 0});

    std::string received;
    while (received.find(std::string{5, 0, 0, 0}) == std::string::npos) {
        char bytes[256];
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
    ServedConnection served;
    const BusClient client(std::move(served.client));
    ASSERT_EQ(echo(client, 1), 1u);
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (std::uint32_t number = 0; number < kCalls; ++number)
                EXPECT_TRUE(served.connection->queueCall(100, [=](sd_bus* bus) {
                    ::sd_bus_emit_signal(bus, "/", kTestInterface, "Note", "uu", thread, number);
                }));
        });
    std::map<std::uint32_t, std::uint32_t> next;
    for (std::uint32_t received = 0; received < kThreads * kCalls;) {
        sd_bus_message* raw = nullptr;
        const int processed = ::sd_bus_process(client.bus(), &raw);
        const test::Message message(raw);
        ASSERT_GE(processed, 0);
        if (processed == 0) {
            ASSERT_GT(::sd_bus_wait(client.bus(), 30'000'000), 0);
        }
        if (message == nullptr || ::sd_bus_message_is_signal(raw, kTestInterface, "Note") <= 0) continue;
        std::uint32_t thread = 0;
        std::uint32_t number = 0;
        ::sd_bus_message_read(raw, "uu", &thread, &number);
        EXPECT_EQ(number, next[thread]++);
        ++received;
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(BusConnection, RefusesQueuedCallsPastTheirBoundAndAfterItsEnd) {
    constexpr std::size_t kHalf = BusConnection::kQueuedCallBytes / 2;
    ServedConnection served;
    const BusClient client(std::move(served.client));
    const test::Message wait = client.newCall(kTestInterface, "Wait");
    ASSERT_GE(::sd_bus_send(client.bus(), wait.get(), nullptr), 0);
    ASSERT_GE(::sd_bus_flush(client.bus()), 0);
    while (served.object->calls() == 0) std::this_thread::yield();

    std::atomic<int> ran = 0;
    const auto call = [&](sd_bus*) { ++ran; };
    EXPECT_TRUE(served.connection->queueCall(kHalf, call));
    EXPECT_TRUE(served.connection->queueCall(kHalf, call));
    EXPECT_FALSE(served.connection->queueCall(1, call));
    served.object->release();
    ASSERT_EQ(echo(client, 2), 2u);
    EXPECT_EQ(ran, 2);
    EXPECT_TRUE(served.connection->queueCall(kHalf, call)) << "there is room again";

    served.connection->invalidate();
    served.endings->wait();
    EXPECT_FALSE(served.connection->queueCall(1, call));
}

TEST(BusConnection, AnOrderlyCloseIsNoInterruption) {
    ServedConnection served;
    BusClient client(std::move(served.client));
    ASSERT_EQ(echo(client, 3), 3u);
    client.close();
    EXPECT_THAT(served.endings->wait(), ElementsAre("invalidated", "ended"));
}

TEST(BusConnection, AClientThatVanishesWithUnreadAnswersInterrupts) {
    ServedConnection served;
    BusClient client(std::move(served.client));
    ASSERT_EQ(echo(client, 3), 3u);
    askWithoutReading(client, 1, 1000);
    ASSERT_GE(::sd_bus_flush(client.bus()), 0);
    while (served.object->calls() < 2) std::this_thread::yield();
    ASSERT_GT(::sd_bus_wait(client.bus(), 30'000'000), 0) << "the answer is here, unread";
    client.close();
    EXPECT_THAT(served.endings->wait(), ElementsAre("interrupted", "invalidated", "ended"));
}

TEST(BusConnection, BytesThatAreNoDBusCostTheirConnectionOnly) {
    ServedConnection other;
    const BusClient client(std::move(other.client));
    ASSERT_EQ(echo(client, 1), 1u);
    const std::string authentication(kAuthentication);
    for (const std::string& bytes :
         {std::string("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), std::string(5000, '\xff'),
          authentication + std::string(64, 'B'),
          authentication + std::string("l\1\0\1\xff\xff\xff\xff", 8) + std::string(64, '\xff')}) {
        const ServedConnection served;
        writeAll(served.client, bytes);
        EXPECT_THAT(served.endings->wait(), ElementsAre("interrupted", "invalidated", "ended"));
        EXPECT_EQ(served.object->calls(), 0u);
    }
    EXPECT_EQ(echo(client, 2), 2u);
}

TEST(BusConnection, AClientThatDoesNotReadIsSlowedAloneAndLosesNothing) {
    constexpr int kCalls = 400;
    constexpr std::uint32_t kSize = 50'000;
    ServedConnection slow;
    const BusClient lazy(std::move(slow.client));
    ASSERT_EQ(echo(lazy, 1), 1u);
    askWithoutReading(lazy, kCalls, kSize);

    ServedConnection fast;
    const BusClient client(std::move(fast.client));
    for (std::uint32_t number = 1; number <= 1000; ++number) ASSERT_EQ(echo(client, number), number);
    // Answers of a few times the bound, with what the kernel holds, and not of 20 MB.
    EXPECT_LT(slow.object->calls(), 100u);

    int answers = 0;
    while (answers < kCalls) {
        sd_bus_message* raw = nullptr;
        const int processed = ::sd_bus_process(lazy.bus(), &raw);
        ASSERT_GE(processed, 0);
        const test::Message message(raw);
        if (raw != nullptr && ::sd_bus_message_is_method_error(raw, nullptr) == 0) ++answers;
        if (processed == 0) {
            ASSERT_GT(::sd_bus_wait(lazy.bus(), 30'000'000), 0);
        }
    }
    EXPECT_EQ(slow.object->calls(), kCalls + 1u);
}

TEST(BusConnection, CanBeEndedWhileItWaitsForItsClientToRead) {
    ServedConnection served;
    const BusClient lazy(std::move(served.client));
    ASSERT_EQ(echo(lazy, 1), 1u);
    askWithoutReading(lazy, 100, 100'000);
    std::size_t calls = 0;
    do {
        calls = served.object->calls();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } while (calls < 2 || served.object->calls() > calls);
    served.connection->invalidate();
    EXPECT_EQ(served.endings->wait().back(), "ended");
    EXPECT_LT(served.object->calls(), 100u);
}

TEST(BusConnection, OnlyAConnectionThatDoesNotAuthenticateIsEndedAfterItsTime) {
    ServedConnection idle;
    const BusClient client(std::move(idle.client));
    ASSERT_EQ(echo(client, 1), 1u);
    const ServedConnection silent;
    writeAll(silent.client, "\0AUTH EXTER"sv);
    EXPECT_THAT(silent.endings->wait(), ElementsAre("interrupted", "invalidated", "ended"));
    EXPECT_EQ(echo(client, 2), 2u);
}

}  // namespace
}  // namespace quorvane::platform
