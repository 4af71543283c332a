#include "platform/formats/Json.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"
#include "tests/tools/Words.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace quorvane::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// A device on which all is good.
class Doctor : public testing::Test {
  protected:
    Doctor() {
        device.serveStorebag(device.httpPostSection(), "pelmark");
        device.start();
    }
    ProgramResult doctor(const std::string& words = "") const {
        return runProgram(commandLine(QUORVANECTL, "doctor" + words), {{"QUORVANE_ROOT", device.root()}});
    }
    std::string read(const std::string& path) const {
        std::ifstream file(device.root() / path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    DaemonFixture device;
};

TEST_F(Doctor, NamesWhatIsWrongWithEachFileAndWhatToDo) {
    const auto healthy = doctor();
    EXPECT_EQ(healthy.status, 0) << healthy.output;
    EXPECT_EQ(healthy.errors, "");
    EXPECT_THAT(healthy.output, AllOf(HasSubstr("storebag pelmark: version 7-test from "),
                                      HasSubstr("country: the daemon is in US"), HasSubstr(", confined")));
    EXPECT_THAT(healthy.output, Not(HasSubstr("->")));

    const std::string etc = "etc/quorvane/", suite = etc + "defaults/com.velmora.quorvane.toml";
    const std::string settings = read(suite), usr = "usr/share/quorvane/";
    const struct {
        std::string file, text, finding, advice;
        int line, status;
    } cases[] = {
        {etc + "device.toml", "\nSerialNumbr = \"1\"", "SerialNumbr: nothing", "mean SerialNumber?", 2, 5},
        {etc + "device.toml", "[Serial]\nx = 1", "Serial: nothing", "DeviceName, ProductType", 1, 5},
        {etc + "consent.toml", "diagnostics_submission = 1", "submission: 1 is not", "true or false", 1, 6},
        {suite, settings + "megabytes = 0", "megabytes: 0 is", "whole number from 1 on", 3, 6},
        {suite, settings + "\nhttpsPostURL = \"a.b\"", "httpsPostURL: a.b is", "URL with its scheme", 4, 6},
        {suite, settings + "share_groups_between_users = \"al\"", "_users: al is", "\"all\", \"none\"", 3, 6},
        {etc + "defaults/com.velmora.timed.toml", "a = [", "not count: line 1: a: ", "mend it", 0, 6},
        {etc + "defaults/com.velmora.quorvan.toml", "", "nothing reads this file", "quorvane.toml?", 0, 5},
        {etc + "trust/a.crt", "", "it is not trusted", "rename", 0, 5},
        {etc + "trust/a.pem", "?", "no certificates in PEM", "certificate of the server's", 0, 6},
        {usr + "framework/publicKey.der", "?", "no RSA key in DER", "keygen --public-key", 0, 6},
        {usr + "framework/Info.plist", "?", "told version 7.0", "install", 0, 5},
        {usr + "sandbox/com.velmora.quorvaned.toml", "refuse = 1", "a table is expected", "install", 0, 6},
    };
    for (const auto& wrong : cases) {
        const bool wasThere = std::filesystem::exists(device.root() / wrong.file);
        const std::string good = read(wrong.file);
        device.write(wrong.file, wrong.text);
        const auto result = doctor(" --json");
        EXPECT_EQ(result.status, wrong.status) << wrong.finding << result.output;
        std::istringstream lines(result.output);
        bool isTold = false;
        for (std::string line; std::getline(lines, line);) {
            const Dictionary fact = *platform::parseJson(line)->dictionary();
            isTold = isTold || (fact.text("finding")->find(wrong.finding) != std::string::npos &&
                                fact.text("advice")->find(wrong.advice) != std::string::npos &&
                                fact.integer("line") == wrong.line);
        }
        EXPECT_TRUE(isTold) << wrong.finding << '\n' << result.output;
        device.write(wrong.file, good);
        if (!wasThere) std::filesystem::remove(device.root() / wrong.file);
    }
}

TEST_F(Doctor, TellsHowTheServerAnswersAndWhatTheDaemonMadeOfIt) {
    const auto expectTold = [&](int status, const std::string& told) {
        const auto result = doctor();
        EXPECT_EQ(result.status, status) << told;
        EXPECT_THAT(result.output, HasSubstr(told));
    };
    // The daemon waits before it asks again.
    runProgram(commandLine(QUORVANECTL, "states --client-type 6"), {{"QUORVANE_ROOT", device.root()}});
    expectTold(6, "storebag stremcore: " + device.server().url("/bags/stremcore?version=7.0") +
                      ": the server answers 404: ");
    device.serveStorebag(device.httpPostSection(), "stremcore");
    expectTold(5, "it can be fetched now, but the daemon could not: the server answers 404: ");

    device.server().answerWith({200, {{"Date", "Thu, 01 Jan 2026 00:00:00 GMT"}}, "?"});
    expectTold(6, "s ahead of the storebag server's");
    expectTold(6, "sign the bag, with a version and the section release");
    device.server().answerWith({302, {{"Location", "https://x/"}}, ""});
    expectTold(6, "redirects to https://x/");

    device.start({{"LC_ALL", "C"}});
    expectTold(6, "country: the daemon's locale names none");
    device.daemon().signal(SIGKILL);
    device.daemon().wait();
    expectTold(6, "daemon: cannot connect to " + device.socketPath());
}

TEST_F(Doctor, TellsWhatTheDaemonsUserCannotRead) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    device.daemon().terminate();
    runProgram({"/bin/chown", "-R", "65534:65534", device.root()});
    std::filesystem::permissions(device.root(), std::filesystem::perms(0755));
    const auto daemon = ChildProcess::start(
        {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
         std::filesystem::path(QUORVANECTL).parent_path() / "quorvaned"},
        {{"QUORVANE_ROOT", device.root()}, {"QUORVANE_LOG", "stderr"}, {"LC_ALL", "en_US.UTF-8"}});
    if (!daemon->waitForErrors("main: Listener resumes")) GTEST_SKIP() << daemon->errors();
    EXPECT_EQ(doctor().status, 0) << doctor().output;
    const std::string consent = device.root() / "etc/quorvane/consent.toml";
    runProgram({"/bin/chown", "root:root", consent});
    std::filesystem::permissions(consent, std::filesystem::perms(0600));
    EXPECT_THAT(doctor().output, AllOf(HasSubstr("fault    " + consent + ": the daemon's user nobody cannot"),
                                       HasSubstr("does not consent, as the daemon sees it")));
}

}  // namespace
}  // namespace quorvane::test
