#include "tests/support/ChildProcess.h"
#include "tests/support/RootFixture.h"
#include "tests/tools/Words.h"

#include <filesystem>

namespace quorvane::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// In a root without a daemon.
class CtlUsage : public RootFixture {
  protected:
    static ProgramResult ctl(const std::string& words) { return runProgram(commandLine(QUORVANECTL, words)); }
};

TEST_F(CtlUsage, TellsAWrongCommandLineBeforeItAsksForTheDaemon) {
    const std::vector<std::pair<std::string, std::string>> wrong{
        {"", "subcommand"},
        {"transmit", "transmit is no subcommand\n"},
        {"sned 1 2", "sned is no subcommand; did you mean send?"},
        {"send 1", "type"},
        {"--json --client-type 6 sned 1 2", "sned is no subcommand; did you mean send?"},
        {"send 1 2 --clinet-name a", "--clinet-name is no option; did you mean --client-name?"},
        {"send 65536 1", "category"},
        {"send 1 2 --count 0", "--count"},
        {"send 1 2 colour", "colour: KEY=VALUE is expected"},
        {"send 1 2 =red", "=red: KEY=VALUE is expected"},
        {"single 1 2 --payload {\"a\":\nnul}", "--payload: line 2"},
        {"single 1 2 --payload [1]", "a JSON object is expected"},
        {"states --client-type -1", "--client-type"},
        {"upload", "file"},
        {"listen", "--client-name or --service-name"}};
    for (const auto& [words, reason] : wrong) {
        const auto result = ctl(words);
        EXPECT_EQ(result.status, 2) << reason;
        EXPECT_EQ(result.output, "") << reason;
        EXPECT_THAT(result.errors, HasSubstr(reason));
    }
}

TEST_F(CtlUsage, TellsThatTheDaemonCannotBeReached) {
    for (const char* words : {"send 1 2 a=1", "single 1 2", "flush", "states --json", "display-url",
                              "upload /etc/hostname", "listen --client-name a"}) {
        const auto result = ctl(words);
        EXPECT_EQ(result.status, 3) << words;
        EXPECT_EQ(result.output, "") << words;
        EXPECT_EQ(result.errors, "quorvanectl: cannot connect to " + _root.string() +
                                     "/run/quorvane/com.velmora.quorvaned: No such file or directory\n");
    }
    for (const char* words : {"states --socket /nowhere", "--json --socket /nowhere states"})
        EXPECT_THAT(ctl(words).errors, HasSubstr("cannot connect to /nowhere"));
}

TEST_F(CtlUsage, TheInstalledProgramFindsItsLibrary) {
    for (const char* component : {"tools", "libquorvane"}) {
        const auto installed = runProgram({QUORVANE_CMAKE, "--install", QUORVANE_BUILD_FOLDER, "--component",
                                           component, "--prefix", _root});
        ASSERT_EQ(installed.status, 0) << installed.errors;
    }
    const auto result = runProgram({_root / "bin/quorvanectl", "--version"});
    EXPECT_EQ(result.status, 0) << result.errors;
    for (const char* program : {"quorvanectl", "quorvane-storebag", "quorvane-collector"})
        EXPECT_TRUE(fs::exists(_root / "share/bash-completion/completions" / program)) << program;
}

/// What bash would offer after the words, one blank between each.
std::string offered(const std::vector<std::string>& words) {
    std::vector<std::string> command{
        "/bin/bash", "-c",
        "source \"$COMPLETION\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); "
        "_quorvane \"$1\" \"${COMP_WORDS[-1]}\" \"${COMP_WORDS[-2]}\"; echo \"${COMPREPLY[*]}\"",
        "bash"};
    command.insert(command.end(), words.begin(), words.end());
    const auto result = runProgram(command, {{"COMPLETION", QUORVANE_COMPLETION}});
    EXPECT_EQ(result.errors, "");
    return result.output;
}

TEST(Completion, OffersCommandsOptionsAndChoices) {
    EXPECT_EQ(
        offered({QUORVANECTL, ""}),
        "send single flush states display-url upload upload-log listen status stats storebags doctor\n");
    EXPECT_EQ(offered({QUORVANECTL, "up"}), "upload upload-log\n");
    EXPECT_EQ(offered({QUORVANECTL, "send", "1", "2", "--client-"}),
              "--client-type --client-version --client-name\n");
    EXPECT_EQ(offered({QUORVANE_STOREBAG, "sign", "bag", "--format", ""}), "toml json plist\n");
    EXPECT_EQ(offered({QUORVANE_STOREBAG, "sign", "-o", ""}), "\n") << "a file, which bash itself offers";
    EXPECT_EQ(offered({"/nowhere/quorvanectl", ""}), "\n");
}

}  // namespace
}  // namespace quorvane::test
