#include "tests/collector/CollectorFixture.h"
#include "tests/support/TestCertificate.h"

#include <sys/stat.h>
#include <csignal>

namespace quorvane::test {

namespace {

class ProgramTest : public CollectorTest {
  protected:
    /// What curl, which verifies as the daemon does, says to the URL: 0 when the certificate is trusted.
    int curl(const std::string& host, const std::filesystem::path& trusted) const {
        return runProgram({"/usr/bin/curl", "--silent", "--cacert", trusted, "--resolve",
                           fmt::format("collector.example:{}:127.0.0.1", port()),
                           fmt::format("https://{}:{}/bags/x", host, port())})
            .status;
    }
};

constexpr int kCurlUntrusted = 60;

}  // namespace

TEST_F(ProgramTest, MakesACertificateForItsNamesThatNobodyElseTrustsOrShowsTheOneItIsGiven) {
    start({"--name", "collector.example"});
    for (const char* host : {"127.0.0.1", "localhost", "collector.example"})
        EXPECT_EQ(curl(host, trust()), 0) << host;
    EXPECT_EQ(curl("127.0.0.1", "/etc/ssl/certs/ca-certificates.crt"), kCurlUntrusted);
    EXPECT_EQ(read(trust()).find("PRIVATE"), std::string::npos);

    const TestCertificate certificate = makeTestCertificate();
    write(_root / "certificate.pem", certificate.chain);
    write(_root / "key.pem", certificate.key);
    start({"--certificate", _root / "certificate.pem", "--key", _root / "key.pem"});
    EXPECT_EQ(curl("127.0.0.1", _root / "certificate.pem"), 0);
}

TEST_F(ProgramTest, TellsWhereItListensAndPrintsEventsWithoutAFile) {
    const auto program = ChildProcess::start({QUORVANE_COLLECTOR, "--port", "0", "--quiet", "--trust-out",
                                              trust(), "--ready-file", _root / "ready"});
    ASSERT_TRUE(program && program->waitForOutput("\n"));
    EXPECT_EQ(program->output(), read(_root / "ready"));
    ASSERT_TRUE(program->output().starts_with("Listening on https://127.0.0.1:"));
    const std::string url = program->output().substr(std::string("Listening on ").size());
    httplib::Client client(url.substr(0, url.find('\n')));
    client.set_ca_cert_path(trust().c_str());
    EXPECT_EQ(answered(client.Post("/events", message(), "application/json")).status, 200);
    EXPECT_TRUE(program->waitForOutput("\"_eventNumber\":0"));
    EXPECT_EQ(program->terminate(), 0);
    EXPECT_EQ(program->errors(), "");
}

TEST_F(ProgramTest, GoesOnInANewFileWhenTheOldOneWasMovedAndEndsAtOnceWhateverIsConnected) {
    start();
    EXPECT_EQ(post(message()).status, 200);
    std::filesystem::rename(events(), _root / "moved");
    collector().signal(SIGHUP);
    ASSERT_TRUE(collector().waitForErrors("anew"));
    EXPECT_EQ(post(message(2)).status, 200);
    EXPECT_EQ(lines().size(), 2u);

    const auto idle = client();
    idle->set_keep_alive(true);
    EXPECT_EQ(answered(idle->Get("/bags/x")).status, 404);
    RawConnection half(port());
    half.send("POST /events HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 1000\r\n\r\n{");
    const auto before = std::chrono::steady_clock::now();
    collector().signal(SIGINT);
    EXPECT_EQ(collector().wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
}

TEST_F(ProgramTest, SaysWhyItCannotStart) {
    start();
    const std::string key = _root / "key.pem";
    write(key, makeTestCertificate().key);
    write(_root / "other.pem", makeTestCertificate().chain);
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong{
        {{"--port", std::to_string(port())}, "cannot listen on 127.0.0.1 port"},
        {{"--bags", _root / "none"}, "cannot read the folder"},
        {{"--events", _root / "none/events"}, "cannot open"},
        {{"--trust-out", events() / "x.pem"}, "cannot write"},
        {{"--name", "a,IP:1.2.3.4"}, "neither a host name nor an address"},
        {{"--certificate", key}, "--key"},
        {{"--certificate", _root / "none", "--key", key}, "cannot read"},
        {{"--certificate", key, "--key", key}, "the certificate is not usable"},
        {{"--certificate", _root / "other.pem", "--key", key}, "the key is not usable"},
        {{"--removed-key", "note"}, "not a key that every record has"},
        {{"--port", "70000"}, "--port"}};
    for (const auto& [further, reason] : wrong) {
        std::vector<std::string> args{QUORVANE_COLLECTOR};
        if (further.front() != "--port") args.insert(args.end(), {"--port", "0"});
        args.insert(args.end(), further.begin(), further.end());
        const auto result = runProgram(args);
        EXPECT_GT(result.status, 0) << reason;
        EXPECT_NE(result.errors.find(reason), std::string::npos) << result.errors;
    }
}

}  // namespace quorvane::test
