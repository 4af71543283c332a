#include "platform/system/PowerLog.h"

#include "platform/base/UniqueDescriptor.h"
#include "platform/formats/Json.h"
#include "tests/support/InChild.h"
#include "tests/support/RootFixture.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cmath>
#include <sstream>

namespace quorvane::platform {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class PowerLogTest : public RootFixture {
  protected:
    PowerLogTest() {
        fs::create_directories(_root / "var/lib/quorvane");
        setClock(1'700'000'000'250'000);
    }

    const std::string kFile = "var/lib/quorvane/power-log.jsonl";
    const std::string kEarlierFile = "var/lib/quorvane/power-log.1.jsonl";
};

TEST_F(PowerLogTest, AnEventInARootOfItsOwnBecomesALineOfJson) {
    writeRegisteredEvent(28, "Strevad-QVN", {{"level", 80u}, {"charging", true}, {"state", "full\n"}});
    const std::string line = R"({"agent":28,"event":"Strevad-QVN","time":1700000000.25,)"
                             R"("values":{"charging":true,"level":80,"state":"full\n"}})";
    EXPECT_EQ(read(kFile), line + "\n");
    struct stat status {};
    ASSERT_EQ(::stat((_root / kFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0640u);
    EXPECT_EQ(logged("<"), 0u);

    // What JSON has no form for becomes a text.
    const Dictionary inner{{"at", Date{1'763'280'000'000'000}}, {"bytes", Data{0, 255}}};
    EXPECT_TRUE(appendEventToPowerLogFile(1, "e", {{"list", Array{inner, -1}}, {"none", std::nan("")}}));
    EXPECT_THAT(read(kFile),
                HasSubstr(R"({"list":[{"at":"2025-11-16 08:00:00 +0000","bytes":"AP8="},-1],"none":"nan"})"));
}

TEST_F(PowerLogTest, TheFileIsPutAsideWhenItIsFullAndOnlyOneEarlierIsKept) {
    const Dictionary event{{"text", std::string(100'000, 'x')}};
    for (int i = 0; i < 30; ++i) writeRegisteredEvent(1, "e", event);
    const std::string kept = read(kFile);
    EXPECT_EQ(std::ranges::count(kept, '\n'), 8);
    std::istringstream earlier(read(kEarlierFile));
    int lines = 0;
    for (std::string line; std::getline(earlier, line); ++lines) EXPECT_TRUE(parseJson(line));
    EXPECT_EQ(lines, 11);
    EXPECT_EQ(std::distance(fs::directory_iterator(_root / "var/lib/quorvane"), {}), 2);
}

TEST_F(PowerLogTest, WhatCannotBeWrittenCostsALogLine) {
    Dictionary many;
    for (unsigned i = 0; i <= kRegisteredEventEntries; ++i) many.set(std::to_string(i), i);
    writeRegisteredEvent(28, "many", many);
    EXPECT_EQ(logged("<4>writeRegisteredEvent: Event many of agent 28 is too large for the power log"), 1u);
    writeRegisteredEvent(28, "long", {{"text", std::string(kRegisteredEventBytes, 'x')}});
    EXPECT_EQ(logged("<4>writeRegisteredEvent: Event long of agent 28 is too large for the power log"), 1u);

    writeRegisteredEvent(28, "raw", {{"text", "\xff"}});
    EXPECT_EQ(logged("<3>writeRegisteredEvent: Cannot write event raw of agent 28 to the power log"), 1u);
    EXPECT_EQ(read(kFile), "");
    fs::remove_all(_root / "var/lib/quorvane");
    writeRegisteredEvent(28, "nowhere", {{"a", 1}});
    EXPECT_EQ(logged("<3>writeRegisteredEvent: Cannot write event nowhere of agent 28 to the power log"), 1u);
}

constexpr const char* kNoRun = "no private /run can be had here";

/// Gives this process a /run of its own; whether the system lets it have one.
bool getPrivateRun() {
    const int privately = ::geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS;
    return ::unshare(privately) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/run", "tmpfs", 0, nullptr) == 0;
}

TEST_F(PowerLogTest, TheJournalIsSentAFieldForEveryEntry) {
    const std::string sent = test::inChild([]() -> std::string {
        if (!getPrivateRun()) return kNoRun;
        fs::create_directories("/run/systemd/journal");
        const UniqueDescriptor journal(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        if (::bind(journal.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            return "no socket";
        writeEventToJournal(28, "Strevad-QVN",
                            {{"MESSAGE", "mine"},
                             {"Battery level-\xc3\xa9", 80u},
                             {"two", "a\nMESSAGE=b"},
                             {"raw", Data{0, '\n', 1}},
                             {std::string(100, 'k'), -1}});
        std::string datagram(1u << 16, 0);
        const ssize_t size = ::recv(journal.get(), datagram.data(), datagram.size(), 0);
        return datagram.substr(0, static_cast<std::size_t>(std::max<ssize_t>(0, size)));
    });
    if (sent == kNoRun) GTEST_SKIP() << kNoRun;
    for (const std::string& line :
         {std::string("POWERLOG_AGENT=28"), std::string("POWERLOG_EVENT=Strevad-QVN"),
          std::string("POWERLOG_VALUE_MESSAGE=mine"), std::string("POWERLOG_VALUE_BATTERY_LEVEL___=80"),
          "POWERLOG_VALUE_" + std::string(49, 'K') + "=-1",
          std::string("MESSAGE_ID=909de68d00f643b896df1a26793e5518"),
          // A value with a line feed goes by its length: 64 bits, little-endian.
          "POWERLOG_VALUE_TWO\n" + std::string("\x0b\0\0\0\0\0\0\0", 8) + "a\nMESSAGE=b",
          "POWERLOG_VALUE_RAW\n" + std::string("\x03\0\0\0\0\0\0\0\0\n\x01", 11)})
        EXPECT_THAT("\n" + sent, HasSubstr("\n" + line + "\n"));
    EXPECT_THAT("\n" + sent, HasSubstr("\nMESSAGE=Strevad-QVN: {"));
}

}  // namespace
}  // namespace quorvane::platform
