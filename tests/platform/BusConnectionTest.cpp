#include "platform/bus/BusConnection.h"

#include "platform/base/UserAccount.h"
#include "platform/bus/BusInput.h"
#include "tests/platform/BusFixture.h"

#include <cstring>

namespace quorvane::platform {
namespace {

using test::BusClient;
using test::BusReply;
using testing::ElementsAre;
using namespace std::string_literals;
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
    explicit ConnectedClient(const std::function<void(BusConnection&)>& setUp = [](BusConnection&) {})
        : ServedConnection(setUp) {
        EXPECT_EQ(echo(busClient, 1), 1u);
    }

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

/// Sends a call whose answer is to be read later.
template <typename... Arguments>
void callWithoutReading(const BusClient& client, const char* member, const char* types = "",
                        Arguments... arguments) {
    const test::Message call = client.newCall(kTestInterface, member);
    ::sd_bus_message_append(call.get(), types, arguments...);
    std::uint64_t cookie = 0;
    ASSERT_GE(::sd_bus_send(client.bus(), call.get(), &cookie), 0);
}

/// Sends calls for answers of the size.
void askWithoutReading(const BusClient& client, int calls, std::uint32_t size) {
    for (int i = 0; i < calls; ++i) callWithoutReading(client, "Answer", "u", size);
}

/// Waits until a call after the first one is served.
void awaitSecondCall(const ServedConnection& served, const BusClient& client) {
    ASSERT_GE(::sd_bus_flush(client.bus()), 0);
    while (served.object->calls() < 2) std::this_thread::yield();
}

TEST(BusConnection, SendsQueuedCallsInTheirOrderAndThoseOfItsOwnThreadBeforeTheAnswer) {
    const ConnectedClient served;
    for (std::uint32_t number = 0; number < 200; ++number)
        EXPECT_TRUE(served.connection->queueCall(
            100, [=](sd_bus* bus) { ::sd_bus_emit_signal(bus, "/", kTestInterface, "Note", "u", number); }));
    for (std::uint32_t number = 0; number < 200; ++number) {
        const test::Message message = nextMessage(served.busClient);
        ASSERT_NE(message, nullptr);
        std::uint32_t received = 0;
        ASSERT_GT(::sd_bus_message_read(message.get(), "u", &received), 0);
        EXPECT_EQ(received, number);
    }

    callWithoutReading(served.busClient, "Note");
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
    callWithoutReading(served.busClient, "Wait");
    awaitSecondCall(served, served.busClient);

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
            awaitSecondCall(served, served.busClient);
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

/// The first bytes of a call of so many.
std::string beginningOfCall(std::uint32_t bodyBytes) {
    std::string bytes = "l\1\0\1"s + std::string(4, '\0') + "\1\0\0\0\0\0\0\0"s;
    std::memcpy(&bytes[4], &bodyBytes, sizeof bodyBytes);
    return bytes + "begun";
}

TEST(BusConnection, AMessageThatItsUserHasNoRoomForWaitsUntilHeHas) {
    const UserAccount::Bounds before = UserAccount::bounds(UserAccount::Slot::Bytes);
    UserAccount::setBounds(UserAccount::Slot::Bytes, {1 << 20, 8 << 20});
    const ConnectedClient second;
    {
        const ServedConnection first;
        writeAll(first.client, std::string(kAuthentication) + beginningOfCall(400 << 10));
        const auto account = UserAccount::of(first.connection->peer().uid);
        while (account->taken(UserAccount::Slot::Bytes) == 0) std::this_thread::yield();
        callWithoutReading(second.busClient, "Unknown", "s", std::string(400 << 10, 'x').c_str());
        EXPECT_EQ(::sd_bus_wait(second.busClient.bus(), 300'000), 0) << "it is answered though";
        EXPECT_LE(account->taken(UserAccount::Slot::Bytes), 1u << 20);
    }
    EXPECT_NE(nextMessage(second.busClient), nullptr);
    EXPECT_EQ(echo(second.busClient, 3), 3u);
    EXPECT_EQ(second.connection->account().taken(UserAccount::Slot::Bytes), 0u);
    UserAccount::setBounds(UserAccount::Slot::Bytes, before);
}

TEST(BusInput, EndsWhatTakesTooLongOrHasLongerNamesThanAnyCallAndKeepsNoDescriptor) {
    const auto next = [](const std::string& bytes) {
        std::array<int, 2> ends{};
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        const UniqueDescriptor client(ends[0]), served(ends[1]);
        writeAll(client, bytes);
        BusInput input(served.get(), UserAccount::of(1), std::chrono::milliseconds(20));
        std::vector<BusInput::Next> told{input.next()};
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        told.push_back(input.next());
        return told;
    };
    using Next = BusInput::Next;
    EXPECT_THAT(next(""), ElementsAre(Next::Nothing, Next::Nothing));
    EXPECT_THAT(next(beginningOfCall(100).substr(0, 15)), ElementsAre(Next::Part, Next::Refused));
    EXPECT_THAT(next(beginningOfCall(100)), ElementsAre(Next::Message, Next::Refused));
    std::string longNames = beginningOfCall(5);
    longNames[13] = '\x11';
    EXPECT_THAT(next(longNames), ElementsAre(Next::Refused, Next::Refused));
    EXPECT_THAT(next(beginningOfCall(128 << 20)), ElementsAre(Next::Refused, Next::Refused));
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

TEST(BusConnection, AClientThatReadsNothingForLongIsLeft) {
    const ConnectedClient served(
        [](BusConnection& connection) { connection.setPatience(std::chrono::milliseconds(200)); });
    askWithoutReading(served.busClient, 100, 100'000);
    EXPECT_THAT(served.endings->wait(), ElementsAre("interrupted", "invalidated", "ended"));
    EXPECT_EQ(served.object->calls(), 101u) << "what it had sent is served all the same";
}

TEST(BusConnection, CanBeEndedWhileItWaitsForItsClientToReadAndTellsItsQueuedCalls) {
    const ConnectedClient served;
    askWithoutReading(served.busClient, 100, 100'000);
    std::size_t calls = 0;
    do {
        calls = served.object->calls();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    } while (calls < 2 || served.object->calls() > calls);
    EXPECT_LT(calls, 100u);
    std::atomic<bool> told = false;
    EXPECT_TRUE(served.connection->queueCall(1, [&](sd_bus* bus) { told = bus == nullptr; }));
    served.connection->invalidate();
    EXPECT_EQ(served.endings->wait().back(), "ended");
    EXPECT_EQ(served.object->calls(), 101u) << "what it had sent is served all the same";
    EXPECT_TRUE(told);
}

}  // namespace
}  // namespace quorvane::platform
