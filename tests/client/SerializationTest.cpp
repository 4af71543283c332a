#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/client/ClientFixture.h"

#include <cstring>
#include <map>
#include <mutex>

namespace quorvane::test {
namespace {

/// Answers every operation of the wire contract and keeps what it was called with.
class RecordingPeer {
  public:
    struct Call {
        std::string signature;
        bool answered = true;
        std::vector<Dictionary> dictionaries;
        std::vector<std::optional<Dictionary>> optionals;
        std::vector<std::string> strings;
        Array array;
        std::uint16_t category = 0;
        std::uint16_t type = 0;
        int flag = -1;
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
        if (readArguments(message, call) < 0) return -EBADMSG;
        {
            const std::lock_guard lock(_mutex);
            _calls[member] = std::move(call);
        }
        return answer(message, member);
    }

    static int readArguments(sd_bus_message* message, Call& call) {
        int result = 0;
        for (const char* type = call.signature.c_str(); *type != 0 && result >= 0;) {
            const auto is = [&type](const char* form) {
                if (std::strncmp(type, form, std::strlen(form)) != 0) return false;
                type += std::strlen(form);
                return true;
            };
            if (is("aa{sv}")) {
                result = platform::readOptionalDictionary(message, call.optionals.emplace_back());
            } else if (is("a{sv}")) {
                result = platform::readDictionary(message, call.dictionaries.emplace_back());
            } else if (is("as")) {
                result = platform::readStrings(message, call.strings);
            } else if (is("av")) {
                result = platform::readArray(message, call.array);
            } else if (is("qq")) {
                result = ::sd_bus_message_read(message, "qq", &call.category, &call.type);
            } else if (is("b")) {
                result = ::sd_bus_message_read(message, "b", &call.flag);
            } else {
                return -EINVAL;
            }
        }
        return result;
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
    ASSERT_EQ(call.dictionaries.size(), 1u);
    const Dictionary& sent = call.dictionaries[0];
    EXPECT_EQ(sent.unsignedInteger("SessionID"), 4'000'000'000u);
    EXPECT_EQ(sent.unsignedInteger("ClientType"), 7u);
    EXPECT_EQ(sent.unsignedInteger("ClientVersion"), 3u);
    EXPECT_TRUE(sent.boolean("BatchEvent"));
    EXPECT_EQ(sent.find("RequireUserInfo")->kind(), Value::Kind::Boolean);
    EXPECT_FALSE(sent.boolean("RequireUserInfo"));
    EXPECT_EQ(call.optionals.at(0),
              (Dictionary{{"ClientName", "player"}, {"ServiceName", "audio"}, {"room", "attic"}}));
    EXPECT_EQ(call.strings, (std::vector<std::string>{"AKit", "BKit"}));
    EXPECT_EQ(call.flag, 1);

    ASSERT_TRUE(client.setSessionInfo({}));
    const auto bare = recording.last("SetSessionInfo");
    EXPECT_FALSE(bare.dictionaries.at(0).contains("SessionID"));
    EXPECT_EQ(bare.optionals.at(0), std::nullopt);
    EXPECT_EQ(bare.flag, 0);
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
    EXPECT_EQ(recording.last("UploadLogData").array, (Array{Dictionary{{"a", 1}}, "text"}));
}

TEST(Serialization, EventsReachTheDaemonWhole) {
    RecordingPeer recording;
    Client client = connectTo(recording.peer);
    const Dictionary payload{{"flag", true},
                             {"signed", -5},
                             {"unsigned", 18'446'744'073'709'551'615u},
                             {"real", 0.5},
                             {"text",
                              "Gr\xC3\xBC\xC3\x9F"
                              "e"},
                             {"date", Date{1'700'000'000'123'456}},
                             {"data", Data{0, 1, 255}},
                             {"array", Array{1, "two", Array{}}},
                             {"dictionary", Dictionary{{"inner", Dictionary{}}}}};
    ASSERT_TRUE(client.send(
        {.category = 65535, .type = 200, .payload = payload, .flag = kFlagSendNow | kFlagPromote}));
    auto call = recording.last("SendMessageWithDictionary");
    EXPECT_TRUE(call.answered);
    EXPECT_EQ(call.dictionaries.at(0),
              (Dictionary{{"Category", 65535u}, {"Type", 200u}, {"Payload", payload}, {"Flag", 3u}}));

    ASSERT_TRUE(client.sendAndForget({.category = 1, .type = 2}));
    ASSERT_TRUE(client.flush());
    call = recording.last("SendMessageWithDictionary");
    EXPECT_FALSE(call.answered);
    EXPECT_EQ(call.dictionaries.at(0), (Dictionary{{"Category", 1u}, {"Type", 2u}}));

    EXPECT_EQ(*client.sendMessageWithSessionInfo({.sessionID = 9, .clientType = 5}, std::nullopt,
                                                 {.category = 3, .type = 4, .payload = payload}),
              "finished");
    call = recording.last("SendMessageWithSessionInfo");
    EXPECT_EQ(call.signature, "a{sv}aa{sv}qqaa{sv}");
    EXPECT_EQ(call.dictionaries.at(0).unsignedInteger("SessionID"), 9u);
    EXPECT_EQ(call.optionals.at(0), std::nullopt);
    EXPECT_EQ(call.optionals.at(1), payload);
    EXPECT_EQ(call.category, 3);
    EXPECT_EQ(call.type, 4);
}

}  // namespace
}  // namespace quorvane::test
