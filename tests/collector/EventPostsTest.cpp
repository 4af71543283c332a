#include "tests/collector/CollectorFixture.h"

namespace quorvane::test {

namespace {

constexpr const char* kJson = "application/json";

class EventPostsTest : public CollectorTest {
  protected:
    /// Posts the body in chunks of so many bytes.
    httplib::Response postChunked(const std::string& body, std::size_t bytes) const {
        const auto write = [&](std::size_t offset, httplib::DataSink& sink) {
            sink.write(body.data() + offset, std::min(bytes, body.size() - offset));
            if (offset + bytes >= body.size()) sink.done();
            return true;
        };
        return answered(client()->Post("/realtime", write, kJson));
    }
};

Dictionary without(Dictionary dictionary, const char* key) {
    dictionary.remove(key);
    return dictionary;
}

Dictionary with(Dictionary dictionary, const char* key, Value value) {
    dictionary.set(key, std::move(value));
    return dictionary;
}

Dictionary messageOf(Dictionary record) {
    return {{"clientId", "c"}, {"events", Array{std::move(record)}}, {"postTime", 1}};
}

}  // namespace

TEST_F(EventPostsTest, KeepsEveryEventWithWhatThePostToldPackedAndInChunksToo) {
    start();
    const httplib::Headers told{{"X-QVN-Client-Name", "probe"},
                                {"X-QVN-Service-Name", "dials"},
                                {"X-QVN-Sender", "CFX"},
                                {"X-QVN-Event-Map", "12 3"},
                                {"X-QVN-Internal-Build", "1"}};
    const auto answer = post(message(2, 7), told, "application/json; charset=utf-8");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "{\"events\":2}");
    auto kept = lines();
    ASSERT_EQ(kept.size(), 2u);
    for (int number = 7; Dictionary & line : kept) {
        EXPECT_EQ(json(*line.dictionary("event")), json(eventRecord(number++)));
        line.remove("event");
        EXPECT_EQ(withoutReceipt(line),
                  R"({"clientId":"c-1","clientName":"probe","eventMap":"12 3","internalBuild":true,)"
                  R"("kind":"event","path":"/events","postTime":1763280005.25,"sender":"CFX",)"
                  R"("serviceName":"dials"})");
    }

    EXPECT_EQ(post(gzip(message(3)), kPacked).status, 200);
    EXPECT_EQ(post(gzip(message(1)), kPacked, kJson, "/realtime").status, 200);
    EXPECT_EQ(postChunked(message(4), 100).status, 200);
    EXPECT_EQ(lines().size(), 10u);
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
        const auto answer = answered(connection->Post("/events", damaged[i].second, damaged[i].first, kJson));
        EXPECT_EQ(answer.status, 400) << i;
        EXPECT_TRUE(answer.body.starts_with("{\"error\":\"")) << i;
    }
    for (const char* type : {"text/plain", "multipart/form-data; boundary=x"})
        EXPECT_EQ(post(message(), {}, type).status, 415) << type;
    EXPECT_EQ(post(message(), {{"Content-Encoding", "br"}}).status, 415);
    EXPECT_EQ(get("/events").status, 405);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(post(message()).status, 200);
}

TEST_F(EventPostsTest, BoundsWhatAPostMayTakeAndRefusesUnclearFramingAndWhatIsNoHttp) {
    start({"--max-post", "100000"});
    EXPECT_EQ(post(std::string(100'001, ' ')).status, 413);
    const std::string bomb = gzip(std::string(64u << 20, ' '));
    ASSERT_LT(bomb.size(), 100'000u);
    EXPECT_EQ(post(bomb, kPacked).status, 413);
    EXPECT_EQ(postChunked(std::string(150'000, ' '), 150'000).status, 413);
    // Told a length far above the bound, the collector answers without having seen a byte of it.
    for (const std::string& header : {std::string(), std::string("Expect: 100-continue\r\n")})
        EXPECT_TRUE(exchange("POST /events HTTP/1.1\r\nContent-Type: application/json\r\n" + header +
                             "Content-Length: 99999999999\r\n\r\n")
                        .starts_with("HTTP/1.1 413"))
            << header;
    EXPECT_TRUE(lines().empty());

    // Unclear framing is refused and its connection closed.
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

    // Connections that send no HTTP or too much of it are ended.
    std::string endless = "GET /bags/x HTTP/1.1\r\n";
    for (int i = 0; i < 20'000; ++i) endless += "X-Header-" + std::to_string(i) + ": 0123456789\r\n";
    const std::string longChunkSize =
        start + "Transfer-Encoding: chunked\r\n\r\n" + std::string(1'000'000, '1');
    for (const std::string& bytes : {endless, "GET /" + std::string(1'000'000, 'a'), longChunkSize,
                                     std::string(100'000, '\0'), std::string("\r\n\r\n")})
        EXPECT_EQ(exchange(bytes).find("HTTP/1.1 200"), std::string::npos) << bytes.substr(0, 30);
    EXPECT_EQ(post(message()).status, 200);
}

TEST_F(EventPostsTest, SaysWhatIsWrongWithAMessageAndTakesWhatFiltersLeave) {
    start();
    const Dictionary record = eventRecord(0);
    const Dictionary good = messageOf(record);
    const std::vector<std::pair<Value, std::string>> faults{
        {Array{}, "the message is no object"},
        {without(good, "postTime"), "'postTime' is not a number"},
        {with(good, "postTime", true), "'postTime' is not a number"},
        {without(good, "events"), "come together"},
        {without(good, "clientId"), "come together"},
        {with(good, "clientId", 1), "'clientId' is not a text"},
        {with(good, "events", "x"), "'events' is not an array"},
        {with(good, "events", Array{record, 5}), "event 1 is no object"},
        {messageOf(without(record, "_method")), "event 0 has no '_method'"},
        {messageOf(without(record, "eventTime")), "event 0 has no 'eventTime'"},
        {messageOf(with(record, "_status", 65536)), "a '_status' that is not a whole number from 0 to 65535"},
        {messageOf(with(record, "_status", -1)), "a '_status' that is not a whole number from 0 to 65535"},
        {messageOf(with(record, "_status", 1.5)), "a '_status' that is not a whole number from 0 to 65535"},
        {messageOf(with(record, "_internal", "yes")), "'_internal' that is not"},
        {messageOf(with(record, "_clientTS", true)), "a '_clientTS' that is not a number"},
        {messageOf(with(record, "_build", 12)), "a '_build' that is not a text"}};
    for (const auto& [wrong, reason] : faults) {
        const auto answer = post(json(wrong));
        EXPECT_EQ(answer.status, 400) << reason;
        EXPECT_NE(answer.body.find(reason), std::string::npos) << reason << answer.body;
    }
    EXPECT_TRUE(lines().empty());

    // It takes what filters and missing identifiers leave.
    start({"--removed-key", "_build", "--removed-key", "_method"});
    for (const Dictionary& left :
         {without(record, "_build"), without(record, "_method"), without(record, "_sessionID"),
          with(record, "_startTS", std::string(64, 'e')), with(record, "_clientTS", -1)})
        EXPECT_EQ(post(json(messageOf(left))).status, 200) << left.description();
    EXPECT_EQ(lines().size(), 5u);
    EXPECT_EQ(post(json(messageOf(with(record, "_method", "x")))).status, 400);
    EXPECT_EQ(post("{\"postTime\":-1}").body, "{\"events\":0}");
    EXPECT_EQ(lines().size(), 5u);
}

TEST_F(EventPostsTest, SaysUnavailableOnlyWhenNothingCanBeStoredOrWhatItIsTold) {
    start({"--events", "/dev/full"});
    EXPECT_EQ(post(message()).status, 503);
    EXPECT_EQ(post("{\"postTime\":1}").status, 200);
    EXPECT_EQ(post("nonsense").status, 400);

    // As told, it keeps nothing either.
    start({"--answer", "429", "--delay", "20"});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(post(message()).status, 429);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
    EXPECT_TRUE(lines().empty());
}

}  // namespace quorvane::test
