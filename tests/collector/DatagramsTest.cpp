#include "platform/UniqueDescriptor.h"
#include "tests/collector/CollectorFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <charconv>
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
        ASSERT_TRUE(collector().waitForOutput("Taking datagrams on 127.0.0.1 port "));
        ASSERT_TRUE(collector().waitForOutput("\nTaking"));
        const std::string output = collector().output();
        const std::size_t digits = output.rfind("port ") + 5;
        std::from_chars(output.data() + digits, output.data() + output.size(), _udpPort);
        ASSERT_GT(_udpPort, 0);
    }

    int udpPort() const { return _udpPort; }

    /// The lines, as soon as there are so many.
    std::vector<Dictionary> waitForLines(std::size_t count) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        const auto written = [&] {
            const std::string text = readFile(events());
            return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        };
        while (written() < count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return lines();
    }

  private:
    int _udpPort = 0;
};

}  // namespace

TEST_F(DatagramsTest, TellsEveryFieldWithItsComplementUndone) {
    startTaking();
    Device(udpPort()).send(datagram(" key=value", 65535, kExplicitAddress));
    const auto kept = waitForLines(1);
    ASSERT_EQ(kept.size(), 1u);
    Dictionary line = kept[0];
    EXPECT_TRUE(line.string("peer")->starts_with("127.0.0.1:"));
    EXPECT_GT(line.find("receivedTime")->real(), 1e9);
    line.remove("peer");
    line.remove("receivedTime");
    EXPECT_EQ(json(line), json(Dictionary{{"kind", "datagram"},
                                          {"versionMajor", 7},
                                          {"clientType", 6},
                                          {"clientVersion", 300},
                                          {"eventTime", 1'763'280'000.676},
                                          {"sessionID", 4'000'000'001u},
                                          {"method", 12},
                                          {"status", 3},
                                          {"deviceID", "0123456789abcdef0123456789abcdef01234567"},
                                          {"eventNumber", 65535},
                                          {"reliable", false},
                                          {"explicitAddress", true},
                                          {"cut", false},
                                          {"values", Dictionary{{"key", "value"}}}}));
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
    Device device(udpPort());
    for (std::size_t i = 0; i < texts.size(); ++i) device.send(datagram(texts[i].first, static_cast<int>(i)));
    const auto kept = waitForLines(texts.size());
    ASSERT_EQ(kept.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(json(*kept[i].dictionary("values")), json(texts[i].second)) << texts[i].first;
        EXPECT_EQ(kept[i].boolean("cut"), texts[i].first.size() == 1023) << i;
    }
}

TEST_F(DatagramsTest, AcknowledgesToThoseWhoWaitForIt) {
    startTaking();
    Device device(udpPort());
    device.send(datagram(" plain=1", 1));
    device.send(datagram(" reliable=1", 0x1234, kReliable));
    // One answer, and it is the second datagram's.
    EXPECT_EQ(device.answer(), datagram(" reliable=1", 0x1234, kReliable).substr(0, 64));
    EXPECT_EQ(device.answer(std::chrono::milliseconds(50)), "");
}

TEST_F(DatagramsTest, ADatagramThatIsSentAgainCountsOnce) {
    startTaking();
    Device device(udpPort());
    Device other(udpPort());
    for (int i = 0; i < 3; ++i) {
        device.send(datagram(" a=1", 5, kReliable));
        EXPECT_EQ(device.answer().size(), 64u);
    }
    // Another sender's is another one, and so is a later event whose number came round again.
    other.send(datagram(" a=1", 5, kReliable));
    EXPECT_EQ(other.answer().size(), 64u);
    device.send(datagram(" a=2", 5, kReliable));
    EXPECT_EQ(device.answer().size(), 64u);
    EXPECT_EQ(lines().size(), 3u);
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_NE(collector().errors().find("3 datagrams, 2 more that were sent again, 0 malformed"),
              std::string::npos)
        << collector().errors();
}

TEST_F(DatagramsTest, DropsWhatIsMalformed) {
    startTaking();
    Device device(udpPort());
    std::string otherFormat = datagram(" a=1", 1, kReliable);
    otherFormat[2] = 2;
    std::string otherLength = datagram(" a=1", 1, kReliable) + "x";
    const std::string notUtf8 = datagram(" a=\xff", 1, kReliable);
    for (const std::string& bytes :
         {std::string(), std::string("x"), datagram("", 1, kReliable).substr(0, 63), otherFormat, otherLength,
          notUtf8, datagram(" a=" + std::string(1021, 'x'), 1, kReliable), std::string(60'000, '\xff')})
        device.send(bytes);
    device.send(datagram(" good=1", 77, kReliable));
    EXPECT_EQ(device.answer().substr(60, 2), bigEndian(77, 2));
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_TRUE(collector().waitForErrors("A malformed datagram from 127.0.0.1:"));
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_NE(collector().errors().find("8 malformed"), std::string::npos) << collector().errors();
}

TEST_F(DatagramsTest, WhatCannotBeStoredIsNotAcknowledged) {
    startTaking({"--events", "/dev/full"});
    Device device(udpPort());
    device.send(datagram(" a=1", 1, kReliable));
    ASSERT_TRUE(collector().waitForErrors("Cannot write"));
    device.send(datagram(" a=1", 1, kReliable));
    EXPECT_EQ(device.answer(std::chrono::milliseconds(50)), "");
}

TEST_F(DatagramsTest, TakesManyAtOnceAlongWithPosts) {
    startTaking();
    constexpr int kDevices = 4;
    constexpr int kEach = 200;
    std::vector<std::jthread> devices;
    for (int number = 0; number < kDevices; ++number)
        devices.emplace_back([this] {
            Device device(udpPort());
            for (int event = 0; event < kEach; ++event) {
                device.send(datagram(" n=" + std::to_string(event), event, kReliable));
                EXPECT_EQ(device.answer().size(), 64u);
            }
        });
    for (int number = 0; number < 20; ++number)
        EXPECT_EQ(client()->Post("/events", message(10), "application/json")->status, 200);
    devices.clear();
    EXPECT_EQ(lines().size(), std::size_t{kDevices * kEach + 200});
}

}  // namespace quorvane::test
