#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/client/ClientFixture.h"

#include <map>

namespace quorvane::test {
namespace {

/// Answers every operation of the wire contract and keeps what it was called with.
class RecordingPeer {
  public:
    struct Call {
        std::string signature;
        bool answered = true;
        Array arguments;  ///< An optional is an array with no element or one.
    };

    RecordingPeer() : peer([this](sd_bus_message* message) { return take(message); }) {}

    Call last(const std::string& member) {
        const std::lock_guard lock(_mutex);
        return _calls[member];
    }

    std::atomic<bool> hasStorebag = true;
    BusPeer peer;

  private:
    int take(sd_bus_message* message) {
        const std::string member = ::sd_bus_message_get_member(message);
        if (std::string(::sd_bus_message_get_interface(message)) != kClientSessionInterface) return 0;
        Call call;
        call.signature = ::sd_bus_message_get_signature(message, 1);
        call.answered = ::sd_bus_message_get_expect_reply(message) > 0;
        if (!readArguments(message, call.arguments)) return -EBADMSG;
        {
            const std::lock_guard lock(_mutex);
            _calls[member] = std::move(call);
        }
        return answer(message, member);
    }

    static bool readArguments(sd_bus_message* message, Array& arguments) {
        char type = 0;
        const char* contents = nullptr;
        int result = 0;
        while (result >= 0 && ::sd_bus_message_peek_type(message, &type, &contents) > 0) {
            if (type == SD_BUS_TYPE_ARRAY && *contents == SD_BUS_TYPE_DICT_ENTRY_BEGIN) {
                Dictionary dictionary;
                result = platform::readDictionary(message, dictionary);
                arguments.emplace_back(std::move(dictionary));
            } else if (type == SD_BUS_TYPE_ARRAY) {
                Array array;
                result = platform::readArray(message, array);
                arguments.emplace_back(std::move(array));
            } else {
                std::uint64_t number = 0;  // Of a smaller type, in its first bytes.
                result = ::sd_bus_message_read_basic(message, type, &number);
                arguments.emplace_back(number);
            }
        }
        return result >= 0;
    }

    int answer(sd_bus_message* message, const std::string& member) {
        if (member == "SetSessionInfo") return ::sd_bus_reply_method_return(message, nullptr);
        if (member == "StartConfig" && !hasStorebag) return ::sd_bus_reply_method_return(message, "aas", 0);
        if (member == "StartConfig") return ::sd_bus_reply_method_return(message, "aas", 1, 1, "httppost");
        if (member == "FetchStatesWithUserInfo") return ::sd_bus_reply_method_return(message, "aas", 1, 0);
        if (member == "FetchDisplayURL") return ::sd_bus_reply_method_return(message, "s", "https://u");
        if (member == "FlushMessages") return ::sd_bus_reply_method_return(message, "as", 0);
        if (member == "UploadLogData") return ::sd_bus_reply_method_return(message, "bas", 1, 0);
        if (member == "SendMessageWithSessionInfo")
            return ::sd_bus_reply_method_return(message, "s", "finished");
        return ::sd_bus_reply_method_return(message, "as", 1, "200");
    }

    std::mutex _mutex;
    std::map<std::string, Call> _calls;
};

TEST(Serialization, SessionAndUserInfoReachTheDaemon) {
    RecordingPeer recording;
    Client client = connectTo(recording.peer);
    const SessionInfo sessionInfo{
        .sessionID = 4'000'000'000, .clientType = 7, .clientVersion = 3, .batchEvent = true};
    const UserInfo userInfo{.clientName = "player",
                            .serviceName = "audio",
                            .furtherKeys = {{"room", "attic"}, {"ClientName", "no"}}};
    ASSERT_TRUE(
        client.setSessionInfo(sessionInfo, userInfo, {"AKit", "BKit"}, {[](const AggregatedEvent&) {}, {}}));

    const auto call = recording.last("SetSessionInfo");
    EXPECT_EQ(call.signature, "a{sv}aa{sv}asb");
    const Dictionary sent{{"SessionID", 4'000'000'000u},
                          {"ClientType", 7u},
                          {"ClientVersion", 3u},
                          {"BatchEvent", true},
                          {"RequireUserInfo", false}};
    const Dictionary user{{"ClientName", "player"}, {"ServiceName", "audio"}, {"room", "attic"}};
    EXPECT_EQ(call.arguments, (Array{sent, Array{user}, Array{"AKit", "BKit"}, 1u}));

    ASSERT_TRUE(client.setSessionInfo({}));
    const Array bare = recording.last("SetSessionInfo").arguments;
    EXPECT_FALSE(bare.at(0).dictionary()->contains("SessionID"));
    EXPECT_EQ(Array(bare.begin() + 1, bare.end()), (Array{Array{}, Array{}, 0u}));
}

TEST(Serialization, AnswersKeepNilEmptyAndFullApart) {
    RecordingPeer recording;
    Client client = connectTo(recording.peer);
    EXPECT_EQ(*client.start(), std::vector<std::string>{"httppost"});
    recording.hasStorebag = false;
    EXPECT_EQ(*client.start(), std::nullopt);
    EXPECT_EQ(*client.fetchStates(UserInfo{.clientName = "c"}), std::vector<std::string>{});
    EXPECT_EQ(*client.displayURL(), "https://u");
    EXPECT_EQ(*client.send({.category = 1, .type = 2}), "200");
    EXPECT_EQ(*client.flush(), std::nullopt);
    EXPECT_EQ(*client.uploadLogData({Dictionary{{"a", 1}}, "text"}), true);
    EXPECT_EQ(recording.last("UploadLogData").arguments, (Array{Value(Array{Dictionary{{"a", 1}}, "text"})}));
}

TEST(Serialization, EventsReachTheDaemonWhole) {
    RecordingPeer recording;
    Client client = connectTo(recording.peer);
    const Dictionary payload{{"array", Array{1, "two", Array{}, Dictionary{{"a", Dictionary()}}}},
                             {"boolean", true},
                             {"data", Data{1, 2, 3}},
                             {"date", Date{-1}},
                             {"real", 0.5},
                             {"text", "caf\u00e9"},
                             {"unsigned", UINT64_MAX}};
    const Event event{
        .category = 65535, .type = 200, .payload = payload, .flag = kFlagSendNow | kFlagPromote};
    const Array whole{
        Value(Dictionary{{"Category", 65535u}, {"Type", 200u}, {"Payload", payload}, {"Flag", 3u}})};
    ASSERT_TRUE(client.send(event));
    auto call = recording.last("SendMessageWithDictionary");
    EXPECT_TRUE(call.answered);
    EXPECT_EQ(call.arguments, whole);
    ASSERT_TRUE(client.sendAndForget({.payload = Dictionary{{"text", std::string(100'000, 'x')}}}));
    ASSERT_TRUE(client.sendAndForget(event));
    ASSERT_TRUE(client.flush());
    EXPECT_EQ(recording.last("SendMessageWithDictionary").arguments, whole);

    ASSERT_TRUE(client.sendAndForget({.category = 1, .type = 2}));
    ASSERT_TRUE(client.flush());
    call = recording.last("SendMessageWithDictionary");
    EXPECT_FALSE(call.answered);
    EXPECT_EQ(call.arguments, Array{Value(Dictionary{{"Category", 1u}, {"Type", 2u}})});

    EXPECT_EQ(*client.sendMessageWithSessionInfo({.sessionID = 9, .clientType = 5}, std::nullopt,
                                                 {.category = 3, .type = 4, .payload = payload}),
              "finished");
    call = recording.last("SendMessageWithSessionInfo");
    EXPECT_EQ(call.signature, "a{sv}aa{sv}qqaa{sv}");
    EXPECT_EQ(call.arguments.at(0).dictionary()->unsignedInteger("SessionID"), 9u);
    EXPECT_EQ(Array(call.arguments.begin() + 1, call.arguments.end()),
              (Array{Array{}, 3u, 4u, Array{payload}}));
}

}  // namespace
}  // namespace quorvane::test
