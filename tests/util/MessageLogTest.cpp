#include "util/MessageLog.h"

#include "platform/base/FileManager.h"
#include "tests/support/RootFixture.h"

#include <algorithm>
#include <sstream>
#include <thread>

namespace quorvane {
namespace {

using platform::Date;
using testing::ElementsAre;

using namespace std::string_view_literals;

constexpr std::int64_t kDay = 86'400'000'000;

class MessageLogTest : public RootFixture {
  protected:
    // Birth times of files are the system's, so it is the clock that moves.
    MessageLogTest() { setClock(1'763'272'800'250'000); }

    /// The name of a file that is begun now.
    static std::string nameOfNew() {
        return fmt::format("quorvaned_{}_messageLog.diag", platform::timeOfDay().seconds);
    }

    std::string path(const std::string& name) const { return (_root / kFolder / name).string(); }

    std::vector<std::string> files() const {
        std::error_code error;
        return platform::listDirectory(path(""), error);
    }

    std::string text(const std::string& name) const { return read(kFolder + "/" + name); }

    /// The birth time of a log file; ends the test where the file system keeps none.
    Date born(const std::string& name) const {
        return platform::fileCreationDate(path(name)).value_or(Date{-1});
    }

    const std::string kFolder = "var/mobile/Library/Logs/Faultrel/Retired";
    const std::string kFirst = "quorvaned_1763272800_messageLog.diag";
};

TEST_F(MessageLogTest, TheFirstMessageMakesFolderAndFile) {
    writeToLogFile("[{} -> sendMessageWithDictionary] {}", "httppost", 7);
    writeToLogFile("second");
    EXPECT_THAT(files(), ElementsAre(kFirst));
    EXPECT_EQ(text(kFirst),
              "(2025-11-16 06:00:00 +0000) [httppost -> sendMessageWithDictionary] 7\n"
              "(2025-11-16 06:00:00 +0000) second\n");
    EXPECT_EQ(logged("<6>writeToLogFile: Creating quorvaned log directory at " + (_root / kFolder).string()),
              1u);
    EXPECT_EQ(logged("<6>writeToLogFile: Created new quorvaned log file " + path(kFirst) + " ("), 1u);
    EXPECT_EQ(logged("<6>writeToLogFile: Saved log message to " + path(kFirst)), 2u);

    writeToLogFile("{\n\t\"a\": \"\x7f\u009b\"\n}\0\r\x1b[31m"sv);
    EXPECT_THAT(text(kFirst), testing::EndsWith(") {\n\t\"a\": \"\x7f\u009b\"\n}\\x00\\r\\x1b[31m\n"))
        << "only what may stand in JSON passes raw";
}

TEST_F(MessageLogTest, AFileLivesForADayAndIsThenReplaced) {
    writeToLogFile("old");
    const Date birth = born(kFirst);
    if (birth.microseconds < 0) GTEST_SKIP() << "the file system keeps no birth times";
    setClock(birth.microseconds + kDay);
    writeToLogFile("a day old");
    EXPECT_THAT(files(), ElementsAre(kFirst));
    EXPECT_THAT(text(kFirst), testing::HasSubstr("a day old"));

    setClock(birth.microseconds + kDay + 1);
    writeToLogFile("new");
    const std::string second = nameOfNew();
    EXPECT_THAT(files(), ElementsAre(second));
    EXPECT_THAT(text(second), testing::EndsWith(") new\n"));
    EXPECT_EQ(logged("<6>writeToLogFile: Deleted expired quorvaned log file " + path(kFirst) + " (" +
                     platform::description(birth) + ")"),
              1u);
}

TEST_F(MessageLogTest, AFileThatReachedItsSizeIsReplaced) {
    write("etc/quorvane/defaults/com.velmora.quorvane.toml", "message_log_bytes = 64\n");
    advanceClock(std::chrono::seconds(10));
    const std::string name = nameOfNew();
    writeToLogFile("one");
    writeToLogFile("{}", std::string(64, 'x'));
    EXPECT_EQ(std::ranges::count(text(name), '\n'), 2) << "there was room when it came";
    EXPECT_EQ(logged("Deleted expired"), 0u);
    writeToLogFile("three");
    EXPECT_THAT(files(), ElementsAre(name));
    EXPECT_THAT(text(name), testing::MatchesRegex("\\(.*\\) three\n"));
    EXPECT_EQ(logged("<6>writeToLogFile: Deleted expired quorvaned log file " + path(name)), 1u);

    write("etc/quorvane/defaults/com.velmora.quorvane.toml", "message_log_bytes = \"64\"\n");
    advanceClock(std::chrono::seconds(1));
    for (int i = 0; i < 3; ++i) writeToLogFile("{}", std::string(64, 'x'));
    EXPECT_EQ(std::ranges::count(text(name), '\n'), 4) << "no limit";
    EXPECT_EQ(logged(": message_log_bytes: a number is expected"), 1u);
}

TEST_F(MessageLogTest, OfTwoFilesTheOneCreatedLastIsKept) {
    // Names do not tell which is older, nor does the order in which the folder lists them.
    const std::string older = "quorvaned_3_messageLog.diag";
    write(kFolder + "/" + older, "older\n");
    if (born(older).microseconds < 0) GTEST_SKIP() << "the file system keeps no birth times";
    for (const std::string newer : {"quorvaned_2_messageLog.diag", "quorvaned_4_messageLog.diag"}) {
        const std::string kept = files().front();
        do {
            platform::removeFile(path(newer));
            write(kFolder + "/" + newer, "newer\n");
        } while (!(born(newer) > born(kept)));
        setClock(born(newer).microseconds);
        writeToLogFile("message");
        EXPECT_THAT(files(), ElementsAre(newer));
        EXPECT_THAT(text(newer), testing::MatchesRegex("newer\n\\(.*\\) message\n"));
        EXPECT_EQ(logged("Deleted expired quorvaned log file " + path(kept)), 1u);
    }
}

TEST_F(MessageLogTest, ForeignFilesAreNeverTouched) {
    const std::vector<std::string> foreign{"quorvaned_x_other.txt",          "quorvaned_messageLog.diag",
                                           "quorvaned_1_2_messageLog.diag",  "other_1_messageLog.diag",
                                           "quorvaned_1_messageLog.diag.gz", "Quorvaned_1_messageLog.diag"};
    for (const std::string& name : foreign) write(kFolder + "/" + name, "theirs");
    advanceClock(std::chrono::years(40));
    writeToLogFile("message");
    EXPECT_EQ(files().size(), foreign.size() + 1);
    for (const std::string& name : foreign) EXPECT_EQ(text(name), "theirs") << name;
}

TEST_F(MessageLogTest, AFolderOrAFileThatCannotBeHadCostsOnlyTheMessage) {
    write("var/mobile/Library/Logs", "a file where the folder should be");
    writeToLogFile("message");
    EXPECT_EQ(logged("<3>writeToLogFile: Error reading from log directory: Not a directory"), 1u);
    EXPECT_EQ(logged("<3>writeToLogFile: Failed to create new quorvaned log file " + path(kFirst)), 1u);
    EXPECT_EQ(logged("Saved log message"), 0u);

    write("elsewhere", "theirs");
    std::filesystem::remove(_root / "var/mobile/Library/Logs");
    std::filesystem::create_directories(_root / kFolder);
    std::filesystem::create_symlink(_root / "elsewhere", path("quorvaned_1_messageLog.diag"));
    writeToLogFile("message");
    EXPECT_EQ(read("elsewhere"), "theirs");
    EXPECT_EQ(logged("Saved log message to " + path("quorvaned_1_messageLog.diag")), 1u);
}

TEST_F(MessageLogTest, MessagesOfSeveralThreadsStayWholeLines) {
    writeToLogFile("first");
    {
        std::vector<std::jthread> writers;
        for (int i = 0; i < 4; ++i)
            writers.emplace_back([] {
                for (int n = 0; n < 50; ++n) writeToLogFile("{}", std::string(300, 'x'));
            });
    }
    std::istringstream lines(text(kFirst));
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_THAT(line, testing::MatchesRegex("\\(2025-11-16 06:00:00 \\+0000\\) (first|x+)"));
    EXPECT_EQ(count, 201u);
}

}  // namespace
}  // namespace quorvane
