#include "platform/Json.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace quorvane::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// The program and a whole daemon, which posts to a server of the test's.
class Ctl : public testing::Test {
  protected:
    std::vector<std::string> command(const std::vector<std::string>& args) const {
        std::vector<std::string> whole{QUORVANECTL};
        whole.insert(whole.end(), args.begin(), args.end());
        return whole;
    }
    std::map<std::string, std::optional<std::string>> environment() const {
        return {{"QUORVANE_ROOT", device.root()}, {"TZ", "UTC"}};
    }

    ProgramResult ctl(const std::vector<std::string>& args) const {
        return runProgram(command(args), environment());
    }

    std::unique_ptr<ChildProcess> listen(const std::vector<std::string>& further) const {
        std::vector<std::string> args{"listen", "--client-name", "a", "--require-user-info"};
        args.insert(args.end(), further.begin(), further.end());
        auto program = ChildProcess::start(command(args), environment());
        EXPECT_TRUE(program && program->waitForErrors("listening"));
        return program;
    }

    /// Sessions of type 6 stand below those of type 5.
    void startWithHierarchy() {
        device.serveStorebag(device.httpPostSection({{"hierarchy", 0}}), "pelmark");
        device.serveStorebag(device.httpPostSection({{"hierarchy", 1}}), "stremcore");
        device.start();
    }
    const std::vector<std::string> sendFromBelow{
        "send",          "3", "200",           "path=/b", "took=0.25",
        "--client-type", "6", "--client-name", "A",       "--require-user-info"};

    DaemonFixture device;
};

std::vector<Dictionary> jsonLines(const std::string& text) {
    std::vector<Dictionary> facts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto value = platform::parseJson(line);
        EXPECT_TRUE(value && value->dictionary() != nullptr) << line;
        if (value && value->dictionary() != nullptr) facts.push_back(*value->dictionary());
    }
    return facts;
}

/// The events in an answer.
std::size_t eventsIn(const Dictionary& fact) {
    const std::string* answer = fact.string("answer");
    const auto message = answer != nullptr ? platform::parseJson(*answer) : std::nullopt;
    const Array* events =
        message && message->dictionary() != nullptr ? message->dictionary()->array("events") : nullptr;
    return events != nullptr ? events->size() : 0;
}

TEST_F(Ctl, SendsTypedPayloadsAndPrintsTheAnswers) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    const auto result = ctl({"send",
                             "3",
                             "200",
                             "n=-1",
                             "f=1.50",
                             "ok=true",
                             "url=https://x/?a=b",
                             "empty=",
                             "version=1.2.3",
                             "year=007",
                             "serial=123456789012345678901",
                             "long=18446744073709551615",
                             "--payload",
                             R"({"n": 5, "from": "JSON"})",
                             "--count",
                             "2",
                             "--session-id",
                             "77",
                             "--client-type",
                             "6"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(result.output.starts_with("reporting: httppost\nevent 1: {\n"));
    EXPECT_THAT(result.output, HasSubstr("event 2: {\n"));

    ASSERT_TRUE(device.waitForEvents(3, 2));
    const Dictionary event = device.postedEvents(3)[1];
    const Dictionary expected{{"n", -1},
                              {"f", 1.5},
                              {"ok", true},
                              {"url", "https://x/?a=b"},
                              {"empty", ""},
                              {"version", "1.2.3"},
                              {"year", "007"},
                              {"serial", "123456789012345678901"},
                              {"long", 18446744073709551615u},
                              {"from", "JSON"}};
    for (const auto& [key, value] : expected) {
        ASSERT_TRUE(event.contains(key)) << key;
        EXPECT_EQ(*event.find(key), value) << key << event.description();
    }
}

TEST_F(Ctl, HoldsABatchUntilItIsFlushed) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    const auto facts =
        jsonLines(ctl({"send", "3", "200", "--batch", "--count", "2", "--flush", "--json"}).output);
    ASSERT_THAT(facts, SizeIs(4));
    EXPECT_EQ(facts[0], (Dictionary{{"storebag", true}, {"reporting", Array{"httppost"}}}));
    EXPECT_EQ(facts[1], (Dictionary{{"event", 1}}));
    EXPECT_EQ(facts[2], (Dictionary{{"event", 2}}));
    EXPECT_TRUE(facts[3].boolean("flushed"));
    EXPECT_EQ(eventsIn(facts[3]), 3u) << "with the session's own first event";

    // What a session of its own holds is its first event.
    const auto flushed = jsonLines(ctl({"flush", "--batch", "--json"}).output);
    ASSERT_THAT(flushed, SizeIs(1));
    EXPECT_EQ(eventsIn(flushed[0]), 1u);
}

TEST_F(Ctl, SendsRealTimeEventsUnbatched) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    const auto facts = jsonLines(ctl({"send", "3", "200", "--batch", "--now", "--json"}).output);
    ASSERT_THAT(facts, SizeIs(2));
    EXPECT_EQ(eventsIn(facts[1]), 1u);
    ASSERT_TRUE(device.waitForEvents(3, 1));
    const auto requests = device.server().requests();
    EXPECT_TRUE(std::any_of(requests.begin(), requests.end(),
                            [](const ServerRequest& request) { return request.target == "/realtime"; }));
}

TEST_F(Ctl, PromotesASampledOutSession) {
    device.serveStorebag(device.httpPostSection({{"sampling_threshold", -1.0}, {"override_sampling", 1.0}}));
    device.start();
    const std::vector<std::string> send{"send", "3", "200", "--client-name", "a", "--require-user-info"};
    EXPECT_THAT(ctl(send).output, HasSubstr("reporting: none\nevent 1: (no answer)"));
    auto promoting = send;
    promoting.insert(promoting.end(), {"--promote", "--json"});
    const auto facts = jsonLines(ctl(promoting).output);
    ASSERT_THAT(facts, SizeIs(2));
    EXPECT_EQ(eventsIn(facts[1]), 1u);
}

TEST_F(Ctl, SendsASingleShot) {
    device.serveStorebag(device.httpPostSection(), "pelmark");
    device.start();
    EXPECT_EQ(ctl({"single", "3", "200", "a=b"}).output, "finished\n");
    EXPECT_TRUE(device.waitForEvents(3, 1));
    EXPECT_EQ(jsonLines(ctl({"single", "3", "200", "--json"}).output).at(0),
              (Dictionary{{"answer", "finished"}}));
    const auto none = ctl({"single", "3", "200", "--client-type", "6"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.output, "");
    EXPECT_EQ(none.errors, "quorvanectl: storebag not available\n");
}

TEST_F(Ctl, TellsTheStates) {
    device.serveStorebag(device.httpPostSection({{"client", "Alpha"}}), "pelmark");
    device.start();
    EXPECT_EQ(ctl({"states"}).output, "reporting: httppost\n");
    EXPECT_EQ(ctl({"states", "--require-user-info"}).output, "reporting: none\n");
    EXPECT_EQ(ctl({"states", "--require-user-info", "--client-name", "beta"}).output, "reporting: none\n");
    EXPECT_EQ(ctl({"states", "--require-user-info", "--client-name", "alpha", "--service-name", "s"}).output,
              "reporting: httppost\n");
    const auto none = ctl({"states", "--client-type", "6", "--json"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(jsonLines(none.output).at(0), (Dictionary{{"storebag", false}, {"reporting", Array{}}}));
    const auto nowhere = ctl({"send", "1", "2", "--client-type", "6"});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_EQ(nowhere.errors, "quorvanectl: the daemon has no storebag for client type 6\n");
}

TEST_F(Ctl, TellsTheDisplayURL) {
    device.serveStorebag(device.httpPostSection(), "pelmark");
    device.serveStorebag(Dictionary{{"joulary", Dictionary{}}}, "stremcore");
    device.start();
    EXPECT_EQ(ctl({"display-url", "--session-id", "7"}).output,
              "https://display.example/show?sequences=7&override=yes\n");
    const auto none = ctl({"display-url", "--client-type", "6"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.errors, "quorvanectl: URL not available\n");
}

TEST_F(Ctl, UploadsFilesAndLogData) {
    device.serveStorebag(
        {{"uploadserver", Dictionary{{"post_url", device.server().url("/upload")}}},
         {"dashboard",
          Dictionary{{"ip", "127.0.0.1"}, {"port", 9}, {"post_url", device.server().url("/logdata")}}}},
        "pelmark");
    device.serveStorebag(device.httpPostSection(), "stremcore");
    device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
    device.start();

    const std::string file = device.root() / "crash.log";
    device.write("crash.log", "what happened");
    const auto refused = ctl({"upload", file, "--client-type", "6"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(file + ": not uploaded"));
    EXPECT_TRUE(fs::exists(file));

    const auto uploaded = ctl({"upload", file});
    EXPECT_EQ(uploaded.status, 0) << uploaded.errors;
    EXPECT_EQ(uploaded.output, "uploaded: " + file + "\n");
    EXPECT_FALSE(fs::exists(file)) << "the server asked for its removal";
    EXPECT_THAT(ctl({"upload", file}).errors, HasSubstr("No such file"));

    device.write("log.json", R"([{"line": 1}, "two"])");
    EXPECT_EQ(ctl({"upload-log", device.root() / "log.json", "--json"}).output,
              "{\"uploaded\":\"" + (device.root() / "log.json").string() + "\"}\n");
    std::vector<std::string> bodies;
    for (const ServerRequest& request : device.server().requests())
        if (request.method == "POST" && !request.target.starts_with("/post")) bodies.push_back(request.body);
    EXPECT_THAT(bodies, ElementsAre("what happened", testing::StartsWith("bplist00")));

    device.write("log.json", R"({"line": 1})");
    EXPECT_THAT(ctl({"upload-log", device.root() / "log.json"}).errors,
                HasSubstr("log.json: a JSON array is expected"));
}

TEST_F(Ctl, ListensToTheSessionsBelowUntilInterrupted) {
    startWithHierarchy();
    const auto listener = listen({});
    ASSERT_EQ(ctl(sendFromBelow).status, 0);
    EXPECT_TRUE(listener->waitForOutput("category 3 type 200  {\"path\":\"/b\",\"took\":0.25}\n"));
    listener->signal(SIGINT);
    EXPECT_EQ(listener->wait(), 0);
    EXPECT_EQ(listener->errors(), "listening\n");
}

TEST_F(Ctl, EndsListeningAfterSoManyEvents) {
    startWithHierarchy();
    // The listener's own first event comes too.
    const auto listener = listen({"--count", "2", "--json"});
    auto send = sendFromBelow;
    send.insert(send.end(), {"--payload", R"({"list": [1, "two"]})"});
    ASSERT_EQ(ctl(send).status, 0);
    EXPECT_EQ(listener->wait(), 0);
    const auto facts = jsonLines(listener->output());
    ASSERT_THAT(facts, SizeIs(2));
    const Dictionary& event = facts[1];
    EXPECT_EQ(event.integer("category"), 3);
    EXPECT_EQ(event.integer("type"), 200);
    EXPECT_GT(event.find("timestamp")->real(), 1.7e9);
    EXPECT_EQ(*event.dictionary("payload"),
              (Dictionary{{"path", "/b"}, {"took", 0.25}, {"list", Array{1, "two"}}}));
}

TEST_F(Ctl, TellsWhyListeningEnds) {
    startWithHierarchy();
    const auto lower = listen({"--client-type", "6"});
    const auto upper = listen({});
    EXPECT_EQ(lower->wait(), 1);
    EXPECT_THAT(lower->errors(), HasSubstr("another client aggregates"));
    device.daemon().signal(SIGKILL);
    EXPECT_EQ(upper->wait(), 3);
    EXPECT_THAT(upper->errors(), HasSubstr("quorvanectl: "));
}

TEST_F(Ctl, GivesUpOnADaemonThatDoesNotAnswer) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    device.daemon().signal(SIGSTOP);
    const auto result = ctl({"states", "--timeout", "1"});
    device.daemon().signal(SIGCONT);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, HasSubstr("quorvanectl: "));
}

TEST_F(Ctl, TheDaemonTakesWhatQuorvaneStorebagSigned) {
    const std::string key = device.root() / "key.pem";
    const std::string source = device.root() / "bag.toml";
    const std::string signedBag = device.root() / "bag";
    device.write("bag.toml", "version = \"1\"\n[release.joulary]\n[release.httppost]\nclients = []\n");
    ASSERT_EQ(runProgram({QUORVANE_STOREBAG, "keygen", "--force", "--private-key", key, "--public-key",
                          device.root() / "usr/share/quorvane/framework/publicKey.der"})
                  .status,
              0);
    ASSERT_EQ(runProgram({QUORVANE_STOREBAG, "sign", source, "--private-key", key, "--output", signedBag,
                          "--strict"})
                  .status,
              0);
    std::ifstream file(signedBag, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    device.server().answerWith({200, {}, bytes});
    device.start();
    EXPECT_EQ(ctl({"states"}).output, "reporting: httppost joulary\n");
}

}  // namespace
}  // namespace quorvane::test
