#include "platform/UniqueDescriptor.h"
#include "tests/collector/CollectorFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <set>
#include <thread>

namespace quorvane::test {

namespace {

constexpr std::uint16_t kReliable = 1;
constexpr std::uint16_t kExplicitAddress = 2;

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
    return text;
}

/// A datagram as a device sends it.
std::string datagram(const std::string& text, int eventNumber, std::uint16_t flags = 0) {
    std::string bytes{7, 6, 1, '\xa9'};  // 0xa9 * 4 = 676 ms
    bytes += bigEndian(1'763'280'000, 4);
    bytes += bigEndian(~std::uint32_t{4'000'000'001}, 4);
    bytes += bigEndian(static_cast<std::uint16_t>(~300), 2);
    bytes += bigEndian(static_cast<std::uint16_t>(~(64 + text.size())), 2);
    bytes += bigEndian(12, 2) + bigEndian(3, 2);
    bytes += std::string("0123456789abcdef0123456789abcdef01234567");
    bytes += bigEndian(static_cast<std::uint64_t>(eventNumber), 2) + bigEndian(flags, 2);
    return bytes + text;
}

/// One device's socket.
class Device {
  public:
    explicit Device(int port) : _socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    void send(const std::string& bytes) {
        EXPECT_EQ(::send(_socket.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    /// Sends a datagram that is answered when it is stored, and tells the answer.
    std::string ask(const std::string& text, int eventNumber, std::uint16_t flags = 0) {
        send(datagram(text, eventNumber, flags | kReliable));
        return answer();
    }

    /// The next answer; empty when none comes in the time.
    std::string answer(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        pollfd waited{_socket.get(), POLLIN, 0};
        if (::poll(&waited, 1, static_cast<int>(limit.count())) <= 0) return {};
        char buffer[2048];
        const ssize_t count = ::recv(_socket.get(), buffer, sizeof buffer, 0);
        return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

  private:
    platform::UniqueDescriptor _socket;
};

class DatagramsTest : public CollectorTest {
  protected:
    void startTaking(std::vector<std::string> further = {}) {
        further.insert(further.end(), {"--udp-port", "0"});
        start(further);
        _udpPort = portAfter("\nTaking datagrams on 127.0.0.1 port ");
        ASSERT_GT(_udpPort, 0);
    }

    int _udpPort = 0;
};

}  // namespace

TEST_F(DatagramsTest, TellsEveryFieldWithItsComplementUndoneAndAcknowledgesToThoseWhoWait) {
    startTaking();
    Device device(_udpPort);
    device.send(datagram(" plain=1", 1));
    EXPECT_EQ(device.ask(" key=value", 65535, kExplicitAddress),
              datagram(" key=value", 65535, kReliable | kExplicitAddress).substr(0, 64));
    EXPECT_EQ(device.answer(std::chrono::milliseconds(50)), "") << "the other does not wait";
    const auto kept = lines();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(*kept[0].find("reliable"), Value(false));
    EXPECT_EQ(
        withoutReceipt(kept[1]),
        R"({"clientType":6,"clientVersion":300,"cut":false,)"
        R"("deviceID":"0123456789abcdef0123456789abcdef01234567","eventNumber":65535,)"
        R"("eventTime":1763280000.676,"explicitAddress":true,"kind":"datagram","method":12,)"
        R"("reliable":true,"sessionID":4000000001,"status":3,"values":{"key":"value"},"versionMajor":7})");
}

TEST_F(DatagramsTest, FindsKeysAndValuesWhateverIsInTheValues) {
    startTaking();
    // The first character of the last value takes three bytes, of which the cut leaves two.
    const std::string cut = " a=1 b=" + std::string(1023 - 7 - 2, 'x') + "\xe2\x82";
    const std::vector<std::pair<std::string, Dictionary>> texts{
        {"", {}},
        {" a=1", {{"a", "1"}}},
        {" a=1 bb=two words  here c=", {{"a", "1"}, {"bb", "two words  here"}, {"c", ""}}},
        {R"( sum=a\=b path=c:\\d\\ last=\=)", {{"sum", "a=b"}, {"path", R"(c:\d\)"}, {"last", "="}}},
        {R"( a=\)", {{"a", "\\"}}},
        {" no pair", {}},
        {"===", {{"", ""}}},
        {cut, {{"a", "1"}, {"b", std::string(1023 - 7 - 2, 'x')}}}};
    Device device(_udpPort);
    for (int number = 0; const auto& [text, values] : texts)
        EXPECT_EQ(device.ask(text, number++).size(), 64u);
    const auto kept = lines();
    ASSERT_EQ(kept.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(json(*kept[i].dictionary("values")), json(texts[i].second)) << texts[i].first;
        EXPECT_EQ(kept[i].boolean("cut"), texts[i].first.size() == 1023) << i;
    }
}

TEST_F(DatagramsTest, ADatagramThatIsSentAgainCountsOnce) {
    startTaking();
    Device device(_udpPort);
    Device other(_udpPort);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(device.ask(" a=1", 5).size(), 64u);
    // Another sender's is another one, and so is a later event whose number came round again.
    EXPECT_EQ(other.ask(" a=1", 5).size(), 64u);
    EXPECT_EQ(device.ask(" a=2", 5).size(), 64u);
    EXPECT_EQ(lines().size(), 3u);
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_NE(collector().errors().find("3 datagrams, 2 more that were sent again, 0 malformed"),
              std::string::npos)
        << collector().errors();
}

TEST_F(DatagramsTest, DropsWhatIsMalformed) {
    startTaking();
    Device device(_udpPort);
    std::string otherFormat = datagram(" a=1", 1, kReliable);
    otherFormat[2] = 2;
    for (const std::string& bytes :
         {std::string(), std::string("x"), datagram("", 1, kReliable).substr(0, 63), otherFormat,
          datagram(" a=1", 1, kReliable) + "x", datagram(" a=\xff", 1, kReliable),
          datagram(" a=" + std::string(1021, 'x'), 1, kReliable), std::string(60'000, '\xff')})
        device.send(bytes);
    EXPECT_EQ(device.ask(" good=1", 77).substr(60, 2), bigEndian(77, 2));
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_TRUE(collector().waitForErrors("A malformed datagram from 127.0.0.1:"));
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_NE(collector().errors().find("8 malformed"), std::string::npos) << collector().errors();
}

TEST_F(DatagramsTest, WhatCannotBeStoredIsNotAcknowledged) {
    startTaking({"--events", "/dev/full"});
    Device device(_udpPort);
    device.send(datagram(" a=1", 1, kReliable));
    ASSERT_TRUE(collector().waitForErrors("Cannot write"));
    device.send(datagram(" a=1", 1, kReliable));
    EXPECT_EQ(device.answer(std::chrono::milliseconds(50)), "");
}

TEST_F(DatagramsTest, LinesOfConcurrentDatagramsAndPostsStayWhole) {
    startTaking();
    constexpr int kSenders = 6;
    constexpr int kDatagrams = 200;
    constexpr int kPosts = 10;
    constexpr int kEvents = 40;
    {
        std::vector<std::jthread> senders;
        for (int sender = 0; sender < kSenders; ++sender) {
            senders.emplace_back([this] {
                Device device(_udpPort);
                for (int number = 0; number < kDatagrams; ++number)
                    EXPECT_EQ(device.ask(" n=" + std::to_string(number), number).size(), 64u);
            });
            senders.emplace_back([this, sender] {
                const auto connection = client();
                connection->set_keep_alive(true);
                for (int number = 0; number < kPosts; ++number) {
                    const int first = (sender * kPosts + number) * kEvents;
                    const auto answer =
                        connection->Post("/events", message(kEvents, first), "application/json");
                    EXPECT_EQ(answered(answer).status, 200);
                }
            });
        }
    }
    const auto kept = lines();
    EXPECT_EQ(kept.size(), std::size_t{kSenders * (kDatagrams + kPosts * kEvents)});
    std::set<std::int64_t> numbers;
    for (const Dictionary& line : kept)
        if (const Dictionary* event = line.dictionary("event"))
            numbers.insert(event->integer("_eventNumber"));
    EXPECT_EQ(numbers.size(), std::size_t{kSenders * kPosts * kEvents});
}

}  // namespace quorvane::test
