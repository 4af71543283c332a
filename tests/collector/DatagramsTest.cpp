#include "platform/value/Bytes.h"
#include "tests/collector/CollectorFixture.h"
#include "tests/support/UdpPeer.h"

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
class Device : public UdpPeer {
  public:
    using UdpPeer::UdpPeer;

    void sendText(const std::string& bytes) const { send(platform::bytesOf(bytes)); }
    /// Sends a datagram that is answered when it is stored, and tells the answer.
    std::string ask(const std::string& text, int eventNumber, std::uint16_t flags = 0) {
        sendText(datagram(text, eventNumber, flags | kReliable));
        const Data answer = receive().value_or(Data());
        return {answer.begin(), answer.end()};
    }
};

class DatagramsTest : public CollectorTest {
  protected:
    void startTaking(std::vector<std::string> further = {}) {
        further.insert(further.end(), {"--udp-port", "0"});
        start(further);
        _udpPort = static_cast<std::uint16_t>(portAfter("\nTaking datagrams on 127.0.0.1 port "));
        ASSERT_GT(_udpPort, 0);
    }

    std::uint16_t _udpPort = 0;
};

}  // namespace

TEST_F(DatagramsTest, TellsEveryFieldWithItsComplementUndoneAndAcknowledgesToThoseWhoWait) {
    startTaking();
    Device device(_udpPort);
    device.sendText(datagram(" plain=1", 1));
    EXPECT_EQ(device.ask(" key=value", 65535, kExplicitAddress),
              datagram(" key=value", 65535, kReliable | kExplicitAddress).substr(0, 64));
    EXPECT_EQ(device.receive(std::chrono::milliseconds(50)), std::nullopt) << "the other does not wait";
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

TEST_F(DatagramsTest, ADatagramThatIsSentAgainCountsOnceAndAMalformedOneNever) {
    startTaking();
    Device device(_udpPort);
    Device other(_udpPort);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(device.ask(" a=1", 5).size(), 64u);
    // Another sender's is another one, and so is a later event whose number came round again.
    EXPECT_EQ(other.ask(" a=1", 5).size(), 64u);
    EXPECT_EQ(device.ask(" a=2", 5).size(), 64u);
    EXPECT_EQ(lines().size(), 3u);

    // What is malformed does not count.
    std::string otherFormat = datagram(" a=1", 1, kReliable);
    otherFormat[2] = 2;
    for (const std::string& bytes :
         {std::string(), std::string("x"), datagram("", 1, kReliable).substr(0, 63), otherFormat,
          datagram(" a=1", 1, kReliable) + "x", datagram(" a=\xff", 1, kReliable),
          datagram(" a=" + std::string(1021, 'x'), 1, kReliable), std::string(60'000, '\xff')})
        device.sendText(bytes);
    EXPECT_EQ(device.ask(" good=1", 77).substr(60, 2), bigEndian(77, 2));
    EXPECT_EQ(lines().size(), 4u);
    EXPECT_TRUE(collector().waitForErrors("A malformed datagram from 127.0.0.1:"));
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_THAT(collector().errors(),
                testing::HasSubstr("4 datagrams, 2 more that were sent again, 8 malformed"));
}

TEST_F(DatagramsTest, WhatCannotBeStoredIsNotAcknowledged) {
    startTaking({"--events", "/dev/full"});
    Device device(_udpPort);
    device.sendText(datagram(" a=1", 1, kReliable));
    ASSERT_TRUE(collector().waitForErrors("Cannot write"));
    device.sendText(datagram(" a=1", 1, kReliable));
    EXPECT_EQ(device.receive(std::chrono::milliseconds(50)), std::nullopt);
}

}  // namespace quorvane::test
