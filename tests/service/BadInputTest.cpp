#include "framework/Keys.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusValue.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

namespace quorvane::test {
namespace {

using platform::UniqueDescriptor;

constexpr const char* kInvalidArguments = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr std::uint16_t kOurs = 12;

std::array<UniqueDescriptor, 2> socketPair() {
    std::array<int, 2> ends{};
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
    return {UniqueDescriptor(ends[0]), UniqueDescriptor(ends[1])};
}

void sendUnanswered(const BusClient& client, const Message& message) {
    ::sd_bus_message_set_expect_reply(message.get(), 0);
    ASSERT_GE(::sd_bus_send(client.bus(), message.get(), nullptr), 0);
    ASSERT_GE(::sd_bus_flush(client.bus()), 0);
}

/// What a client of the bus library writes when it sends so, authentication first.
std::string recorded(const std::function<void(const BusClient&)>& send) {
    auto [ours, theirs] = socketPair();
    constexpr std::string_view welcome = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";
    EXPECT_GT(::send(ours.get(), welcome.data(), welcome.size(), 0), 0);
    const BusClient client(std::move(theirs));
    send(client);
    std::string bytes;
    std::array<char, 4096> some{};
    ssize_t size = 0;
    while ((size = ::recv(ours.get(), some.data(), some.size(), MSG_DONTWAIT)) > 0)
        bytes.append(some.data(), static_cast<std::size_t>(size));
    EXPECT_GT(bytes.size(), 100u);
    return bytes;
}

/// Where the first message begins.
std::size_t endOfAuthentication(const std::string& bytes) {
    return bytes.find("BEGIN\r\n") + 7;
}

/// To set a session up and to send an event.
std::string recordedBytes() {
    return recorded([](const BusClient& client) {
        const Message info = client.newCall(kClientSessionInterface, "SetSessionInfo");
        platform::appendDictionary(info.get(),
                                   {{"SessionID", 4711}, {"ClientType", 5}, {"BatchEvent", true}});
        const Dictionary user{{"ClientName", "Mail"}, {"ServiceName", "Sync"}};
        platform::appendOptionalDictionary(info.get(), &user);
        ::sd_bus_message_append(info.get(), "asb", 2, "One", "Two", 1);
        sendUnanswered(client, info);
        const Message event = client.newCall(kClientSessionInterface, "SendMessageWithDictionary");
        platform::appendDictionary(
            event.get(),
            {{"Category", 12},
             {"Type", 1},
             {"Payload", Dictionary{{"list", Array{1, "two", 3.0, Value(Dictionary{{"deep", Date{5}}})}},
                                    {"data", Data{1, 2, 3}},
                                    {"text", "some text"}}}});
        sendUnanswered(client, event);
    });
}

class BadInputTest : public testing::Test {
  protected:
    /// Writes the bytes on a connection of their own and waits until the daemon has closed it.
    void offer(std::string_view bytes) const {
        const UniqueDescriptor socket = connectSocket(_device.socketPath());
        ASSERT_TRUE(socket);
        ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        ::shutdown(socket.get(), SHUT_WR);
        std::array<char, 4096> ignored{};
        ssize_t size = 0;
        do {
            pollfd readable{socket.get(), POLLIN, 0};
            ASSERT_EQ(::poll(&readable, 1, 30'000), 1) << "the daemon keeps the connection";
            size = ::recv(socket.get(), ignored.data(), ignored.size(), 0);
        } while (size > 0);
    }

    void expectService(const BusClient& client) const {
        EXPECT_EQ(client.call(kClientSessionInterface, "FlushMessages").error, "");
    }

    std::size_t openDescriptors() {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(_device.daemon().pid()) +
                                                      "/fd");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    DaemonFixture _device;
};

TEST_F(BadInputTest, TruncatedAndChangedBytesCostTheirConnectionOnly) {
    _device.start();
    const BusClient bystander(_device.socketPath());
    expectService(bystander);
    const std::string valid = recordedBytes();
    offer(valid);
    ASSERT_TRUE(_device.logs("setSessionInfo: Configuring session 4711")) << "unchanged it is served";

    for (std::size_t size = 0; size < valid.size(); size += 7) offer(valid.substr(0, size));
    std::minstd_rand random(1);  // The same bytes every time.
    const std::size_t afterAuthentication = endOfAuthentication(valid);
    for (int round = 0; round < 400; ++round) {
        std::string changed = valid;
        const std::size_t from = round % 4 == 0 ? 0 : afterAuthentication;
        for (int change = 0; change <= round % 5; ++change)
            changed[from + random() % (changed.size() - from)] = static_cast<char>(random());
        offer(changed);
    }
    expectService(bystander);
    EXPECT_TRUE(_device.daemon().running());
}

TEST_F(BadInputTest, AMalformedCallGetsTheStandardErrorAndCostsNothingElse) {
    _device.start();
    const BusClient client(_device.socketPath());
    const auto error = [&](const char* member, auto... arguments) {
        return client.call(kClientSessionInterface, member, arguments...).error;
    };
    EXPECT_EQ(error("SendMessageWithCategory", "ss", "1", "2"), kInvalidArguments);
    EXPECT_EQ(error("SendMessageWithCategory"), kInvalidArguments);
    EXPECT_EQ(error("SetSessionInfo", "a{sv}", 0), kInvalidArguments);
    EXPECT_EQ(error("SendMessageWithDictionary", "a{ss}", 1, "Category", "12"), kInvalidArguments);
    EXPECT_EQ(error("UploadFileAtPath", "s", "file:///etc/passwd"), kInvalidArguments);
    EXPECT_EQ(error("NoSuchMethod"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(client.call("com.velmora.NoSuchInterface", "FlushMessages").error,
              "org.freedesktop.DBus.Error.UnknownMethod");
    const auto info = [&](std::size_t sessionBytes, std::size_t userBytes, std::size_t frameworkBytes) {
        const std::string texts[] = {std::string(sessionBytes, 's'), std::string(userBytes, 'u'),
                                     std::string(frameworkBytes, 'f')};
        return error("SetSessionInfo", "a{sv}aa{sv}asb", 1, "Text", "s", texts[0].c_str(), 1, 1, "Text", "s",
                     texts[1].c_str(), 1, texts[2].c_str(), 0);
    };
    constexpr std::size_t most = 65'000;  // What sessions keep.
    EXPECT_EQ(info(most, most, most), "");
    for (const auto& [s, u, f] :
         {std::array{2 * most, most, most}, {most, 2 * most, most}, {most, most, 2 * most}})
        EXPECT_EQ(info(s, u, f), "org.freedesktop.DBus.Error.LimitsExceeded");
    // Arguments of the right types that no value can hold: more than one where one may be, and too deep.
    EXPECT_EQ(error("FetchStatesWithUserInfo", "aa{sv}", 2, 0, 0), kInvalidArguments);
    const Message deep = client.newCall(kClientSessionInterface, "UploadLogData");
    constexpr int levels = 65;
    for (int level = 0; level < levels; ++level) {
        EXPECT_GE(::sd_bus_message_open_container(deep.get(), 'a', "v"), 0);
        EXPECT_GE(::sd_bus_message_open_container(deep.get(), 'v', "av"), 0);
    }
    EXPECT_GE(::sd_bus_message_append(deep.get(), "av", 0), 0);
    for (int level = 0; level < 2 * levels; ++level) ::sd_bus_message_close_container(deep.get());
    EXPECT_EQ(client.call(deep).error, kInvalidArguments);
    expectService(client);
    EXPECT_EQ(_device.daemon().errors().find("was interrupted"), std::string::npos);
}

TEST_F(BadInputTest, DescriptorsThatNoCallBringsAreNeverKept) {
    _device.start();
    const BusClient bystander(_device.socketPath());
    expectService(bystander);
    const std::size_t before = openDescriptors();
    const std::string event = recordedBytes();
    const std::string issue = recorded([](const BusClient& client) {
        const Message call = client.newCall(kSandboxExtensionInterface, "Issue");
        ::sd_bus_message_append(call.get(), "h", STDIN_FILENO);
        sendUnanswered(client, call);
    });
    const std::size_t first = endOfAuthentication(issue);
    std::string malformed = issue;
    malformed[first + 16] = '\0';  // No field has this code.
    std::string other = issue;
    other.replace(other.find("Issue"), 5, "Other");
    struct Attack {
        std::string bytes;
        std::size_t piece;  ///< So many bytes are sent at a time, each time with
        std::size_t descriptors;
    };
    constexpr std::size_t whole = 4096;
    const Attack attacks[] = {
        {event.substr(first), whole, 5},     {issue.substr(first), whole, 2},
        {malformed.substr(first), whole, 1}, {malformed.substr(first), whole, 97},
        {other.substr(first), whole, 1},     {issue.substr(first, 33), 1, 250},
        {issue.substr(first), 40, 1},        {std::string(200, 'x'), whole, 97},
    };
    int messages = 0;
    std::size_t most = 0;
    for (int round = 0; messages < 10'000; ++round) {
        const UniqueDescriptor socket = connectSocket(_device.socketPath());
        ASSERT_TRUE(socket);
        ASSERT_GT(::send(socket.get(), issue.data(), first, MSG_NOSIGNAL), 0);
        if (round % 2 == 0) expectService(bystander);  // Part of what follows comes while it is served.
        const Attack& attack = attacks[static_cast<std::size_t>(round) % std::size(attacks)];
        for (std::size_t at = 0, times = 0; times < 40; at += attack.piece, ++times) {
            if (at >= attack.bytes.size()) at = 0;
            ++messages;
            if (!sendWithDescriptors(socket, std::string_view(attack.bytes).substr(at, attack.piece),
                                     attack.descriptors))
                break;
        }
        if (round % 16 == 0) most = std::max(most, openDescriptors());
    }
    EXPECT_LT(most, before + 200);
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; }));
    expectService(bystander);
}

TEST_F(BadInputTest, ClientsAreServedAgainWhenDescriptorsHadRunOut) {
    _device.start();
    std::vector<UniqueDescriptor> others;
    // A connection takes several: with one of these limits all of them are taken by whole connections.
    for (rlim_t limit = 64; limit < 68; ++limit) {
        const rlimit few{limit, 1024};
        ASSERT_EQ(::prlimit(_device.daemon().pid(), RLIMIT_NOFILE, &few, nullptr), 0);
        for (int i = 0; i < 40; ++i) others.push_back(connectSocket(_device.socketPath()));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    ASSERT_TRUE(_device.logs("listener: no more connections can be accepted for now"));
    others.clear();
    EXPECT_TRUE(eventually([&] {
        const BusClient client(_device.socketPath());
        return client.call(kClientSessionInterface, "FlushMessages").error.empty();
    }));
}

TEST_F(BadInputTest, LentFilesAreGivenBackWithTheConnection) {
    _device.start();
    const BusClient bystander(_device.socketPath());
    expectService(bystander);
    const std::size_t before = openDescriptors();
    {
        const BusClient client(_device.socketPath());
        const UniqueDescriptor writable(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(client.call(kSandboxExtensionInterface, "Issue", "h", writable.get()).error,
                  "org.freedesktop.DBus.Error.Failed");
        const UniqueDescriptor readable(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        for (int lent = 0; lent < 8; ++lent)
            EXPECT_EQ(client.call(kSandboxExtensionInterface, "Issue", "h", readable.get()).error, "");
        EXPECT_GE(openDescriptors(), before + 8);
    }
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; }));
}

TEST_F(BadInputTest, ASenderThatTheServersCannotKeepUpWithIsSlowedAndLosesNothing) {
    constexpr int kEvents = 300;
    std::promise<void> recovered;
    _device.serveStorebag(_device.httpPostSection());
    _device.answerPosts([hasRecovered = recovered.get_future().share()](const ServerRequest&) {
        hasRecovered.wait();
        return ServerAnswer();
    });
    _device.start();

    std::atomic<int> sent = 0;
    std::thread sender([&] {
        Client client = _device.startedClient({.sessionID = 1, .clientType = 5});
        std::minstd_rand random(1);
        for (; sent < kEvents; ++sent) {
            std::string noise(100'000, ' ');  // Compression leaves most of it.
            for (char& byte : noise) byte = static_cast<char>(' ' + random() % 90);
            EXPECT_TRUE(client.sendAndForget({.category = kOurs, .payload = {{{"noise", noise}}}}));
        }
        // The client's end waits for the daemon no longer than some seconds.
        EXPECT_TRUE(client.flush());
    });
    int seen = 0;
    do {
        seen = sent;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    } while (sent > seen || seen == 0);
    EXPECT_LT(sent, kEvents) << "the sender waits";
    Client other = _device.connect();
    EXPECT_EQ(*other.displayURL(), "URL not available") << "and nobody else does";
    recovered.set_value();
    sender.join();
    EXPECT_TRUE(_device.server().waitForRequests(kEvents + 2, std::chrono::seconds(60)));
    EXPECT_TRUE(_device.waitForEvents(kOurs, kEvents));
}

}  // namespace
}  // namespace quorvane::test
