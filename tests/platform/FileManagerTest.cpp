#include "platform/base/FileManager.h"

#include "platform/base/Clock.h"
#include "platform/value/Bytes.h"
#include "tests/support/RootFixture.h"

#include <sys/stat.h>

#include <cerrno>

namespace quorvane::platform {
namespace {

using std::filesystem::perms;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FileManagerTest : public RootFixture {
  protected:
    std::string path(const char* name) const { return (_root / name).string(); }
    perms mode(const char* name) const { return std::filesystem::status(_root / name).permissions(); }
};

TEST_F(FileManagerTest, ListsADirectoryAndTellsWhyItCannot) {
    std::error_code error;
    EXPECT_THAT(listDirectory(path("gone"), error), IsEmpty());
    EXPECT_EQ(error.value(), ENOENT);
    write("file", "");
    EXPECT_THAT(listDirectory(path("file"), error), IsEmpty());
    EXPECT_EQ(error.value(), ENOTDIR);

    EXPECT_FALSE(createDirectories(path("file/below")));
    EXPECT_TRUE(createDirectories(path("a/b/c")));
    EXPECT_TRUE(createDirectories(path("a/b/c")));
    write("a/.hidden", "");
    EXPECT_THAT(listDirectory(path("a"), error), UnorderedElementsAre("b", ".hidden"));
    EXPECT_FALSE(error);
}

TEST_F(FileManagerTest, AFileIsBornOnceAndGrowsByAppending) {
    const std::int64_t before = timeOfDay().seconds - 1;
    ASSERT_TRUE(createFile(path("log")));
    EXPECT_EQ(mode("log") & perms::others_all, perms::none);
    const std::optional<Date> born = fileCreationDate(path("log"));
    EXPECT_EQ(appendToFile(path("log"), "one\n"), AppendResult::Appended);
    EXPECT_TRUE(createFile(path("log"))) << "an existing file is left as it is";
    EXPECT_EQ(appendToFile(path("log"), "two\n"), AppendResult::Appended);
    EXPECT_EQ(read("log"), "one\ntwo\n");
    EXPECT_EQ(fileCreationDate(path("log")), born) << "writing does not change the time of birth";
    if (born) {
        EXPECT_GE(born->microseconds / 1'000'000, before);
        EXPECT_LE(born->microseconds / 1'000'000, timeOfDay().seconds);
    }
    EXPECT_TRUE(removeFile(path("log")));
    EXPECT_FALSE(fileExists(path("log")));
    EXPECT_FALSE(removeFile(path("log")));
    EXPECT_EQ(fileCreationDate(path("log")), std::nullopt);
    EXPECT_EQ(appendToFile(path("log"), "three"), AppendResult::OpenFailed);
    EXPECT_FALSE(fileExists(path("log")));
}

TEST_F(FileManagerTest, WritingFollowsNoLinkAndWaitsForNoPipe) {
    write("target", "kept");
    std::filesystem::create_symlink(_root / "target", _root / "link");
    std::filesystem::create_symlink(_root / "made", _root / "dangling");
    EXPECT_EQ(appendToFile(path("link"), "x"), AppendResult::OpenFailed);
    EXPECT_FALSE(createFile(path("dangling")));
    EXPECT_FALSE(fileExists(path("made")));
    EXPECT_TRUE(replaceFile(path("link"), bytesOf("new")));
    EXPECT_EQ(read("target"), "kept");
    EXPECT_EQ(read("link"), "new");

    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(appendToFile(path("pipe"), "x"), AppendResult::OpenFailed);
    EXPECT_EQ(appendToFile("/dev/full", "x"), AppendResult::WriteFailed);
}

TEST_F(FileManagerTest, ReadsWholeFilesUpToTheLimitAndReplacesThemAsAWhole) {
    const std::string text(100'000, 'x');
    write("file", text);
    const std::optional<Data> whole = readFile(path("file"), text.size());
    ASSERT_TRUE(whole);
    EXPECT_TRUE(std::equal(whole->begin(), whole->end(), text.begin(), text.end()));
    EXPECT_EQ(readFile(path("file"), text.size() - 1), std::nullopt);
    write("empty", "");
    EXPECT_EQ(readFile(path("empty"), 0), Data());
    EXPECT_EQ(readFile(path("gone")), std::nullopt);
    EXPECT_EQ(readFile(_root.string()), std::nullopt) << "a directory";
    EXPECT_FALSE(readFile("/proc/self/status").value_or(Data()).empty()) << "the kernel gives it no size";
    EXPECT_EQ(readFile("/dev/zero", 10'000), std::nullopt) << "a file without an end";

    EXPECT_TRUE(replaceFile(path("file"), bytesOf("2"), 0640));
    EXPECT_EQ(read("file"), "2");
    EXPECT_EQ(mode("file"), perms::owner_read | perms::owner_write | perms::group_read);
    std::filesystem::create_directory(_root / "folder");
    EXPECT_FALSE(replaceFile(path("folder"), bytesOf("x")));
    EXPECT_FALSE(replaceFile(path("gone/file"), bytesOf("x")));
    std::error_code error;
    EXPECT_THAT(listDirectory(_root.string(), error), UnorderedElementsAre("file", "folder", "empty"))
        << "no temporary file stays";
}

}  // namespace
}  // namespace quorvane::platform
