#include "framework/EventPacking.h"
#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"

#include <quorvane/Reporter.h>

namespace quorvane::test {
namespace {

constexpr std::uint16_t kOurs = 12;

std::vector<std::uint8_t> packed(const Dictionary& payload, std::uint64_t age) {
    std::vector<std::uint8_t> bytes(packedSize(&payload).value());
    packEvent(bytes.data(), bytes.size(), kOurs, 3, 0, age, &payload);
    return bytes;
}

TEST(EventBatchTest, EventsOfOneCallAreReportedEachAtItsTime) {
    DaemonFixture device;
    device.serveStorebag(device.httpPostSection());
    device.start();
    const BusClient client(device.socketPath());
    const auto sendMessages = [&](const std::vector<std::uint8_t>& events) {
        const Message call = client.newCall(kEventBatchInterface, "SendMessages");
        ::sd_bus_message_append_array(call.get(), 'y', events.data(), events.size());
        const BusReply reply = client.call(call);
        std::uint32_t accepted = 0;
        std::optional<std::string> failure;
        EXPECT_GE(::sd_bus_message_read(reply.message.get(), "u", &accepted), 0) << reply.error;
        platform::readOptionalString(reply.message.get(), failure);
        return std::pair(accepted, failure.value_or("none"));
    };
    client.call(kClientSessionInterface, "SetSessionInfo", "a{sv}aa{sv}asb", 2, "SessionID", "u", 41,
                "ClientType", "u", 5, 0, 0, 0);
    EXPECT_EQ(sendMessages(packed({{"n", 0}}, 0)), std::pair(1u, std::string("none"))) << "not started";
    EXPECT_EQ(client.call(kClientSessionInterface, "StartConfig").error, "");

    std::vector<std::uint8_t> events = packed({{"n", 1}}, 90'000'000);
    events.insert(events.end(), {1, 0, 0, 0, 77});
    const std::vector<std::uint8_t> last = packed({{"n", 2}}, 0);
    events.insert(events.end(), last.begin(), last.end());
    EXPECT_EQ(sendMessages({}), std::pair(0u, std::string("none")));
    EXPECT_EQ(sendMessages(events), std::pair(2u, std::string("event 1: its values go past its end")));
    client.call(kClientSessionInterface, "SendMessageWithCategory", "qqaa{sv}", kOurs, 3, 1, 1, "n", "i", 3);

    ASSERT_TRUE(device.waitForEvents(kOurs, 3));
    std::map<std::int64_t, Dictionary> posted;
    for (const Dictionary& event : device.postedEvents(kOurs)) posted[event.integer("n")] = event;
    ASSERT_EQ(posted.size(), 3u);
    const auto time = [&](std::int64_t n) { return posted[n].find("_clientTS")->real(); };
    EXPECT_NEAR(time(2) - time(1), 90, 0.001);
    EXPECT_LE(time(2), time(3));
    for (auto& [n, event] : posted)
        for (const char* its : {"n", "_eventNumber", "_clientTS", "eventTime"}) event.remove(its);
    EXPECT_EQ(posted[1], posted[3]) << "but for its time, as if it had been sent by itself";
}

TEST(EventBatchTest, AReporterOutlivesItsDaemon) {
    DaemonFixture device;
    device.serveStorebag(device.httpPostSection());
    auto reporter = Reporter::start({.sessionInfo = {.sessionID = 1, .clientType = 5},
                                     .socketPath = device.socketPath(),
                                     .longestRetry = std::chrono::milliseconds(100)});
    ASSERT_TRUE(reporter);
    for (int life = 1; life <= 3; ++life) {
        device.start();
        for (int number = 0; number < 10; ++number)
            reporter->report({kOurs, 3, Dictionary{{"life", life}, {"number", number}}});
        ASSERT_TRUE(reporter->flush());
        ASSERT_TRUE(device.waitForEvents(kOurs, static_cast<std::size_t>(10 * life)));
        device.daemon().terminate();
    }
    const ReporterStatistics statistics = reporter->close(std::chrono::seconds(1));
    EXPECT_EQ(statistics.taken, 30u);
    EXPECT_EQ(statistics.dropped(), 0u);
}

}  // namespace
}  // namespace quorvane::test
