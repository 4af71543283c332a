#include "platform/formats/Json.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"
#include "tests/tools/Words.h"

#include <csignal>
#include <filesystem>
#include <sstream>

namespace quorvane::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// The program and a whole daemon, which posts to a server of the test's.
class Ctl : public testing::Test {
  protected:
    /// Starts the daemon with a bag for each kind of client, or for one alone.
    void start(const Dictionary& clientEntry = {}, const std::string& name = "") {
        device.serveStorebag(device.httpPostSection(clientEntry), name);
        device.start();
    }
    ProgramResult ctl(const std::string& words) const {
        return runProgram(commandLine(QUORVANECTL, words), environment);
    }
    std::vector<Dictionary> ctlJson(const std::string& words) const {
        return jsonLines(ctl(words + " --json").output);
    }
    std::unique_ptr<ChildProcess> listen(const std::string& words = "") const {
        auto program = ChildProcess::start(
            commandLine(QUORVANECTL, "listen --client-name a --require-user-info" + words), environment);
        EXPECT_TRUE(program && program->waitForErrors("listening"));
        return program;
    }

    static std::vector<Dictionary> jsonLines(const std::string& text) {
        std::vector<Dictionary> facts;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const auto value = platform::parseJson(line);
            const bool isFact = value && value->dictionary() != nullptr;
            EXPECT_TRUE(isFact) << line;
            if (isFact) facts.push_back(*value->dictionary());
        }
        return facts;
    }

    DaemonFixture device;
    const DaemonFixture::Environment environment{{"QUORVANE_ROOT", device.root()}, {"TZ", "UTC"}};
};

/// The events in an answer.
std::size_t eventsIn(const Dictionary& fact) {
    const Dictionary* answer = fact.dictionary("answer");
    const Array* events = answer != nullptr ? answer->array("events") : nullptr;
    return events != nullptr ? events->size() : 0;
}

TEST_F(Ctl, SendsTypedPayloadsAndPrintsTheAnswers) {
    start();
    const auto result =
        ctl("send 03 0200 n=-1 f=1.50 ok=true url=https://x/?a=b empty= version=1.2.3 year=007 "
            "serial=123456789012345678901 long=18446744073709551615 --payload {\"n\":5,\"from\":\"JSON\"} "
            "--count 2 --session-id 77 --client-type 6");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(result.output.starts_with("reporting: httppost\nevent 1: {\n"));
    EXPECT_THAT(result.output, HasSubstr("event 2: {\n"));

    ASSERT_TRUE(device.waitForEvents(3, 2));
    const Dictionary event = device.postedEvents(3)[1];
    const auto expected = platform::parseJson(
        R"({"n": -1, "f": 1.5, "ok": true, "url": "https://x/?a=b", "empty": "", "version": "1.2.3",
            "year": "007", "serial": "123456789012345678901", "long": 18446744073709551615, "from": "JSON"})");
    for (const auto& [key, value] : *expected->dictionary()) {
        ASSERT_TRUE(event.contains(key)) << key;
        EXPECT_EQ(*event.find(key), value) << key << event.description();
    }
}

TEST_F(Ctl, HoldsABatchUntilItIsFlushedExceptWhatIsUrgent) {
    start();
    const auto facts = ctlJson("send 3 200 --batch --count 2 --flush");
    ASSERT_THAT(facts, SizeIs(4));
    EXPECT_EQ(facts[0], (Dictionary{{"storebag", true}, {"reporting", Array{"httppost"}}}));
    EXPECT_EQ(facts[1], (Dictionary{{"event", 1}}));
    EXPECT_EQ(facts[2], (Dictionary{{"event", 2}}));
    EXPECT_TRUE(facts[3].boolean("flushed"));
    EXPECT_EQ(eventsIn(facts[3]), 3u) << "with the session's own first event";

    // What a session of its own holds is its first event.
    const auto flushed = ctlJson("flush --batch");
    ASSERT_THAT(flushed, SizeIs(1));
    EXPECT_EQ(eventsIn(flushed[0]), 1u);

    const auto urgent = ctlJson("send 3 200 --batch --now");
    ASSERT_THAT(urgent, SizeIs(2));
    EXPECT_EQ(eventsIn(urgent[1]), 1u);
    EXPECT_TRUE(eventually([&] {
        const auto requests = device.server().requests();
        return std::any_of(requests.begin(), requests.end(),
                           [](const ServerRequest& request) { return request.target == "/realtime"; });
    }));
}

TEST_F(Ctl, PromotesASampledOutSession) {
    start({{"sampling_threshold", -1.0}, {"override_sampling", 1.0}});
    const std::string send = "send 3 200 --client-name a --require-user-info";
    EXPECT_THAT(ctl(send).output, HasSubstr("reporting: none\nevent 1: (no answer)"));
    const auto facts = ctlJson(send + " --promote");
    ASSERT_THAT(facts, SizeIs(2));
    EXPECT_EQ(eventsIn(facts[1]), 1u);
}

TEST_F(Ctl, TellsAndSendsWhatItsKindOfClientHas) {
    start({{"client", "Alpha"}}, "pelmark");
    device.serveStorebag(Dictionary{{"joulary", Dictionary{}}}, "vistabox");
    const std::vector<std::pair<std::string, std::string>> answers{
        {"single 3 200 a=b", "finished\n"},
        {"single 3 200 --json", "{\"answer\":\"finished\"}\n"},
        {"states", "reporting: httppost\n"},
        {"states --require-user-info", "reporting: none\n"},
        {"states --require-user-info --client-name beta", "reporting: none\n"},
        {"states --require-user-info --client-name alpha --service-name s", "reporting: httppost\n"},
        {"display-url --session-id 7", "https://display.example/show?sequences=7&override=yes\n"}};
    for (const auto& [words, output] : answers) {
        const auto result = ctl(words);
        EXPECT_EQ(result.status, 0) << words << result.errors;
        EXPECT_EQ(result.output, output) << words;
    }
    EXPECT_TRUE(device.waitForEvents(3, 2));

    const std::vector<std::pair<std::string, std::string>> failures{
        {"single 3 200 --client-type 6", "storebag not available"},
        {"send 1 2 --client-type 6", "the daemon has no storebag for client type 6"},
        {"states --client-type 6 --json", "the daemon has no storebag for client type 6"},
        {"display-url --client-type 8", "URL not available"}};
    for (const auto& [words, reason] : failures) {
        const auto result = ctl(words);
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_EQ(result.errors, "quorvanectl: " + reason + "\n");
    }
}

TEST_F(Ctl, UploadsFilesAndLogData) {
    device.serveStorebag(
        {{"uploadserver", Dictionary{{"post_url", device.server().url("/upload")}}},
         {"dashboard",
          Dictionary{{"ip", "127.0.0.1"}, {"port", 9}, {"post_url", device.server().url("/logdata")}}}},
        "pelmark");
    device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
    start({}, "stremcore");

    const std::string file = device.root() / "crash.log";
    device.write("crash.log", "what happened");
    const auto refused = ctl("upload " + file + " --client-type 6");
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(file + ": not uploaded"));
    EXPECT_TRUE(fs::exists(file));

    const auto uploaded = ctl("upload " + file);
    EXPECT_EQ(uploaded.status, 0) << uploaded.errors;
    EXPECT_EQ(uploaded.output, "uploaded: " + file + "\n");
    EXPECT_TRUE(device.logs("] uploadFileWithURL: File upload successful for " + file + "\n"));
    EXPECT_FALSE(fs::exists(file)) << "the server asked for its removal";
    EXPECT_THAT(ctl("upload " + file).errors, HasSubstr("No such file"));

    const std::string log = device.root() / "log.json";
    device.write("log.json", R"([{"line": 1}, "two"])");
    EXPECT_EQ(ctl("upload-log --json " + log).output, "{\"uploaded\":\"" + log + "\"}\n");
    EXPECT_TRUE(device.logs("] uploadLogData: Log data array upload successful\n"));
    std::vector<std::string> bodies;
    for (const ServerRequest& request : device.server().requests())
        if (request.method == "POST" && !request.target.starts_with("/post")) bodies.push_back(request.body);
    EXPECT_THAT(bodies, ElementsAre("what happened", testing::StartsWith("bplist00")));

    device.write("log.json", R"({"line": 1})");
    EXPECT_THAT(ctl("upload-log " + log).errors, HasSubstr("log.json: a JSON array is expected"));
}

TEST_F(Ctl, ListensToTheSessionsBelowAndTellsWhyListeningAndWaitingEnd) {
    // Sessions of type 6 stand below those of type 5.
    device.serveStorebag(device.httpPostSection({{"hierarchy", 0}}), "pelmark");
    start({{"hierarchy", 1}}, "stremcore");
    const std::string sendFromBelow =
        "send 3 200 path=/b took=0.25 --client-type 6 --client-name A --require-user-info";
    const auto endless = listen();
    ASSERT_EQ(ctl(sendFromBelow).status, 0);
    EXPECT_TRUE(endless->waitForOutput("category 3 type 200  {\"path\":\"/b\",\"took\":0.25}\n"));
    endless->signal(SIGINT);
    EXPECT_EQ(endless->wait(), 0);
    EXPECT_THAT(endless->errors(), HasSubstr("listening at level 0 to client a, "));
    EXPECT_THAT(endless->errors(), HasSubstr("those of the same names below level 0"));

    // The listener's own first event comes too.
    const auto listener = listen(" --count 2 --json");
    ASSERT_EQ(ctl(sendFromBelow + " --payload {\"list\":[1,\"two\"]}").status, 0);
    EXPECT_EQ(listener->wait(), 0);
    const auto facts = jsonLines(listener->output());
    ASSERT_THAT(facts, SizeIs(2));
    const Dictionary& event = facts[1];
    EXPECT_EQ(event.integer("category"), 3);
    EXPECT_EQ(event.integer("type"), 200);
    EXPECT_GT(event.find("timestamp")->real(), 1.7e9);
    EXPECT_EQ(*event.dictionary("payload"),
              (Dictionary{{"path", "/b"}, {"took", 0.25}, {"list", Array{1, "two"}}}));

    const auto lower = listen(" --client-type 6");
    const auto upper = listen();
    const auto second = listen();
    EXPECT_THAT(second->errors(), HasSubstr("nothing comes from below yet: session 1 of process "));
    EXPECT_EQ(lower->wait(), 1);
    EXPECT_THAT(lower->errors(), HasSubstr("another client aggregates"));
    device.daemon().signal(SIGSTOP);
    const auto waiting = ctl("states --timeout 1");
    EXPECT_EQ(waiting.status, 3);
    EXPECT_EQ(waiting.errors, "quorvanectl: the daemon did not answer in time\n");
    device.daemon().signal(SIGKILL);
    EXPECT_EQ(upper->wait(), 3);
    EXPECT_THAT(upper->errors(), HasSubstr("\nquorvanectl: the connection is lost: the daemon closed it\n"));
}

TEST_F(Ctl, TellsWhyASessionDoesNotReportAndWhatBecameOfItsEvents) {
    start({{"client", "Maps"}});
    Client client = device.startedClient({.sessionID = 7, .clientType = 5, .requireUserInfo = true},
                                         UserInfo{.clientName = "Mail"});
    ASSERT_TRUE(client.send({.category = 12, .type = 3}));

    const ProgramResult status = ctl("status");
    EXPECT_EQ(status.status, 0) << status.errors;
    EXPECT_THAT(status.output, HasSubstr("session 7 of process "));
    EXPECT_THAT(status.output, HasSubstr("client Mail, service without a name, type 5, 7-test\n"));
    EXPECT_THAT(status.output, HasSubstr("  httppost: disabled, "));
    EXPECT_THAT(status.output, HasSubstr("dropped (noMatchingClient)"));
    EXPECT_THAT(status.output, HasSubstr("storebag pelmark: version 7-test; "));

    const auto stats = ctlJson("stats");
    ASSERT_THAT(stats, SizeIs(1));
    EXPECT_EQ(stats[0].dictionary("events")->dictionary("droppedBy")->integer("noMatchingClient"), 1)
        << status.output;
    ASSERT_THAT(ctlJson("storebags"), SizeIs(1));
    EXPECT_EQ(ctl("status --socket /nonexistent").status, 3);
}

}  // namespace
}  // namespace quorvane::test
