#include "tests/collector/CollectorFixture.h"

#include <atomic>
#include <set>
#include <thread>
#include <utility>

namespace quorvane::test {

namespace {

class EventPostsTest : public CollectorTest {
  protected:
    httplib::Result post(const std::string& body, const httplib::Headers& headers = {},
                         const char* type = "application/json") const {
        return client()->Post("/events", headers, body, type);
    }
};

const httplib::Headers kPacked{{"Content-Encoding", "gzip"}};

/// A message of one record after the change.
std::string changedRecord(const std::function<void(Dictionary&)>& change) {
    Dictionary record = eventRecord(1);
    change(record);
    return json(Dictionary{{"clientId", "c"}, {"events", Array{std::move(record)}}, {"postTime", 1}});
}

std::string without(const char* key) {
    return changedRecord([&](Dictionary& record) { record.remove(key); });
}

std::string with(const char* key, const Value& value) {
    return changedRecord([&](Dictionary& record) { record.set(key, value); });
}

}  // namespace

TEST_F(EventPostsTest, KeepsEveryEventWithWhatThePostTold) {
    start();
    const httplib::Headers told{{"X-QVN-Client-Name", "probe"},
                                {"X-QVN-Service-Name", "dials"},
                                {"X-QVN-Sender", "CFX"},
                                {"X-QVN-Event-Map", "12 3"},
                                {"X-QVN-Internal-Build", "1"}};
    const auto answer = client()->Post("/events", told, message(2, 7), "application/json; charset=utf-8");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200);
    EXPECT_EQ(answer->body, "{\"events\":2}");

    const auto kept = lines();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(*kept[1].dictionary("event"), eventRecord(8));
    EXPECT_EQ(*kept[0].string("kind"), "event");
    EXPECT_EQ(*kept[0].string("path"), "/events");
    EXPECT_EQ(*kept[0].string("clientId"), "c-1");
    EXPECT_EQ(*kept[0].string("clientName"), "probe");
    EXPECT_EQ(*kept[0].string("serviceName"), "dials");
    EXPECT_EQ(*kept[0].string("sender"), "CFX");
    EXPECT_EQ(*kept[0].string("eventMap"), "12 3");
    EXPECT_EQ(*kept[0].find("internalBuild"), Value(true));
    EXPECT_EQ(kept[0].find("postTime")->real(), 1'763'280'005.25);
    EXPECT_GT(kept[0].find("receivedTime")->real(), 1e9);
    EXPECT_TRUE(kept[0].string("peer")->starts_with("127.0.0.1:"));
}

TEST_F(EventPostsTest, TakesPackedAndChunkedMessagesOnBothPaths) {
    start();
    EXPECT_EQ(post(gzip(message(3)), kPacked)->status, 200);
    EXPECT_EQ(client()->Post("/realtime", kPacked, gzip(message(1)), "application/json")->status, 200);
    const std::string body = message(4);
    const auto chunked = client()->Post(
        "/realtime",
        [&](std::size_t offset, httplib::DataSink& sink) {
            sink.write(body.data() + offset, std::min<std::size_t>(100, body.size() - offset));
            if (offset + 100 >= body.size()) sink.done();
            return true;
        },
        "application/json");
    ASSERT_TRUE(chunked);
    EXPECT_EQ(chunked->status, 200);
    EXPECT_EQ(lines().size(), 8u);
}

TEST_F(EventPostsTest, RefusesBodiesThatCannotBeReadAndGoesOnServing) {
    start({"--max-post", "1000000"});
    const std::string packed = gzip(message(20));
    const std::vector<std::pair<std::string, httplib::Headers>> damaged{
        {packed.substr(0, packed.size() / 2), kPacked},
        {packed.substr(0, packed.size() - 4), kPacked},
        {packed + "more", kPacked},
        {message(), kPacked},
        {"", kPacked},
        {packed, {}},
        {"", {}},
        {"{\"postTime\":1,", {}},
        {"{\"postTime\":null}", {}},
        {std::string(200'000, '['), {}},
        {"{\"postTime\":1,\"clientId\":\"\xff\",\"events\":[]}", {}}};
    const auto connection = client();
    connection->set_keep_alive(true);
    for (std::size_t i = 0; i < damaged.size(); ++i) {
        const auto answer =
            connection->Post("/events", damaged[i].second, damaged[i].first, "application/json");
        ASSERT_TRUE(answer) << i;
        EXPECT_EQ(answer->status, 400) << i;
        EXPECT_TRUE(answer->body.starts_with("{\"error\":\"")) << i;
    }
    EXPECT_EQ(post(message(), {}, "text/plain")->status, 415);
    EXPECT_EQ(post(message(), {}, "multipart/form-data; boundary=x")->status, 415);
    EXPECT_EQ(post(message(), {{"Content-Encoding", "br"}})->status, 415);
    EXPECT_EQ(client()->Get("/events")->status, 405);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(post(message())->status, 200);
}

TEST_F(EventPostsTest, BoundsWhatAPostMayTakeSentAndUnpacked) {
    start({"--max-post", "100000"});
    EXPECT_EQ(post(std::string(100'001, ' '))->status, 413);
    const std::string bomb = gzip(std::string(64u << 20, ' '));
    ASSERT_LT(bomb.size(), 100'000u);
    EXPECT_EQ(post(bomb, kPacked)->status, 413);
    const std::string larger(150'000, ' ');
    const auto chunked = client()->Post(
        "/events",
        [&](std::size_t, httplib::DataSink& sink) {
            sink.write(larger.data(), larger.size());
            sink.done();
            return true;
        },
        "application/json");
    ASSERT_TRUE(chunked);
    EXPECT_EQ(chunked->status, 413);
    // Told a length far above the bound, the collector answers without having seen a byte of it.
    EXPECT_TRUE(exchange("POST /events HTTP/1.1\r\nContent-Type: application/json\r\n"
                         "Content-Length: 99999999999\r\n\r\n")
                    .starts_with("HTTP/1.1 413"));
    EXPECT_TRUE(exchange("POST /events HTTP/1.1\r\nContent-Type: application/json\r\nExpect: 100-continue\r\n"
                         "Content-Length: 99999999999\r\n\r\n")
                    .starts_with("HTTP/1.1 413"));
    EXPECT_TRUE(lines().empty());
}

TEST_F(EventPostsTest, RefusesUnclearFramingAndClosesTheConnection) {
    start();
    const std::string start = "POST /events HTTP/1.1\r\nContent-Type: application/json\r\n";
    // What follows would be taken for a request, were the connection kept.
    const std::string hidden = "GET /bags/x HTTP/1.1\r\n\r\n";
    for (const auto& [head, status] : std::vector<std::pair<std::string, std::string>>{
             {start + "\r\n", "411"},
             {start + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "400"},
             {start + "Content-Length: 5\r\nContent-Length: 7\r\n\r\n", "400"},
             {start + "Content-Length: -1\r\n\r\n", "400"},
             {start + "Transfer-Encoding: identity\r\n\r\n", "400"},
             {"GET /bags/x HTTP/1.1\r\nContent-Length: 26\r\n\r\n", "400"}}) {
        const std::string answer = exchange(head + hidden);
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + status)) << head << answer;
        EXPECT_EQ(answer.find("HTTP/1.1", 1), std::string::npos) << head << answer;
    }
}

TEST_F(EventPostsTest, EndsConnectionsThatSendNoHttpOrTooMuchOfIt) {
    start({"--max-post", "100000"});
    std::string endless = "GET /bags/x HTTP/1.1\r\n";
    for (int i = 0; i < 20'000; ++i) endless += "X-Header-" + std::to_string(i) + ": 0123456789\r\n";
    std::string oneLine = "GET /" + std::string(1'000'000, 'a');
    std::string chunk =
        "POST /events HTTP/1.1\r\nContent-Type: application/json\r\n"
        "Transfer-Encoding: chunked\r\n\r\n" +
        std::string(1'000'000, '1');
    for (const std::string& bytes :
         {endless, oneLine, chunk, std::string(100'000, '\0'), std::string("\r\n\r\n")})
        EXPECT_EQ(exchange(bytes).find("HTTP/1.1 200"), std::string::npos);
    EXPECT_EQ(post(message())->status, 200);
}

TEST_F(EventPostsTest, SaysWhatIsWrongWithAMessageAndKeepsNothingOfIt) {
    start();
    const Array good{eventRecord(0)};
    const std::vector<std::pair<std::string, std::string>> faults{
        {"[]", "the message is no object"},
        {json(Dictionary{{"clientId", "c"}, {"events", good}}), "'postTime' is not a number"},
        {json(Dictionary{{"clientId", "c"}, {"events", good}, {"postTime", true}}),
         "'postTime' is not a number"},
        {json(Dictionary{{"clientId", "c"}, {"postTime", 1}}), "come together"},
        {json(Dictionary{{"events", good}, {"postTime", 1}}), "come together"},
        {json(Dictionary{{"clientId", 1}, {"events", good}, {"postTime", 1}}), "'clientId' is not a text"},
        {json(Dictionary{{"clientId", "c"}, {"events", "x"}, {"postTime", 1}}), "'events' is not an array"},
        {json(Dictionary{{"clientId", "c"}, {"events", Array{eventRecord(0), Value(5)}}, {"postTime", 1}}),
         "event 1 is no object"},
        {without("_method"), "event 0 has no '_method'"},
        {without("eventTime"), "event 0 has no 'eventTime'"},
        {with("_status", 65536), "a '_status' that is not a whole number from 0 to 65535"},
        {with("_status", -1), "a '_status' that is not a whole number from 0 to 65535"},
        {with("_status", 1.5), "a '_status' that is not a whole number from 0 to 65535"},
        {with("_internal", "yes"), "'_internal' that is not"},
        {with("_clientTS", true), "a '_clientTS' that is not a number"},
        {with("_build", 12), "a '_build' that is not a text"}};
    for (const auto& [body, reason] : faults) {
        const auto answer = post(body);
        ASSERT_TRUE(answer) << body;
        EXPECT_EQ(answer->status, 400) << body;
        EXPECT_NE(answer->body.find(reason), std::string::npos) << body << answer->body;
    }
    EXPECT_TRUE(lines().empty());
}

TEST_F(EventPostsTest, TakesWhatFiltersAndMissingIdentifiersLeave) {
    start({"--removed-key", "_build", "--removed-key", "_method"});
    EXPECT_EQ(post(without("_build"))->status, 200);
    EXPECT_EQ(post(without("_method"))->status, 200);
    EXPECT_EQ(post(with("_method", "x"))->status, 400);
    EXPECT_EQ(post(with("_startTS", std::string(64, 'e')))->status, 200);
    EXPECT_EQ(post(without("_sessionID"))->status, 200);
    EXPECT_EQ(post(with("_clientTS", -1))->status, 200);
    EXPECT_EQ(lines().size(), 5u);
    EXPECT_EQ(post("{\"postTime\":-1}")->body, "{\"events\":0}");
    EXPECT_EQ(lines().size(), 5u);
}

TEST_F(EventPostsTest, LinesOfConcurrentPostsStayWhole) {
    start();
    constexpr int kSenders = 8;
    constexpr int kPosts = 10;
    constexpr int kEvents = 40;
    std::atomic<int> taken{0};
    std::vector<std::jthread> senders;
    for (int sender = 0; sender < kSenders; ++sender)
        senders.emplace_back([&, sender] {
            const auto connection = client();
            connection->set_keep_alive(true);
            for (int number = 0; number < kPosts; ++number) {
                const int first = (sender * kPosts + number) * kEvents;
                const auto answer =
                    connection->Post("/events", kPacked, gzip(message(kEvents, first)), "application/json");
                if (answer && answer->status == 200) ++taken;
            }
        });
    senders.clear();
    EXPECT_EQ(taken, kSenders * kPosts);
    std::set<std::int64_t> numbers;
    for (const Dictionary& line : lines()) numbers.insert(line.dictionary("event")->integer("_eventNumber"));
    EXPECT_EQ(numbers.size(), std::size_t{kSenders * kPosts * kEvents});
}

TEST_F(EventPostsTest, SaysUnavailableOnlyWhenNothingCanBeStored) {
    start({"--events", "/dev/full"});
    EXPECT_EQ(post(message())->status, 503);
    EXPECT_EQ(post("{\"postTime\":1}")->status, 200);
    EXPECT_EQ(post("nonsense")->status, 400);
}

TEST_F(EventPostsTest, AnswersAsToldWithoutKeepingAnything) {
    start({"--answer", "503", "--delay", "20"});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(post(message())->status, 503);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
    EXPECT_TRUE(lines().empty());
}

}  // namespace quorvane::test
