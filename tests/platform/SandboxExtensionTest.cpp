#include "platform/SandboxExtension.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane::platform {
namespace {

namespace fs = std::filesystem;

class SandboxExtensionTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quorvane-extension-XXXXXX").string();
        _folder = fs::canonical(::mkdtemp(pattern.data()));
        write("file", "content");
    }

    void TearDown() override {
        revokeSandboxExtensions(_owner);
        fs::remove_all(_folder);
    }

    std::string at(const std::string& name) const { return (_folder / name).string(); }
    void write(const std::string& name, const std::string& text) const { std::ofstream(at(name)) << text; }

    std::string issue(const std::string& name, int flags = O_RDONLY) const {
        return issueSandboxExtension(_owner, UniqueDescriptor(::open(at(name).c_str(), flags | O_CLOEXEC)),
                                     nullptr)
            .value_or("refused");
    }

    const ExtensionOwner _owner = newExtensionOwner();
    fs::path _folder;
};

TEST_F(SandboxExtensionTest, ATokenIsGoodOnceForItsOwnFileAndItsOwnOwner) {
    std::vector<std::string> removed;
    const std::string token =
        issueSandboxExtension(_owner, UniqueDescriptor(::open(at("file").c_str(), O_RDONLY)),
                              [&](const std::string& which) { removed.push_back(which); })
            .value_or("");
    EXPECT_GE(token.size(), 32u);
    EXPECT_TRUE(ownsSandboxExtension(_owner, token));
    EXPECT_FALSE(ownsSandboxExtension(newExtensionOwner(), token));
    EXPECT_FALSE(ownsSandboxExtension(_owner, "guessed"));
    EXPECT_FALSE(SandboxExtension::consume("guessed", at("file")));

    const auto extension = SandboxExtension::consume(token, at("file"));
    ASSERT_TRUE(extension);
    char bytes[8] = {};
    EXPECT_EQ(::pread(extension.descriptor(), bytes, sizeof bytes, 0), 7);
    EXPECT_STREQ(bytes, "content");
    extension.requestRemoval();
    EXPECT_EQ(removed, std::vector{token});

    EXPECT_FALSE(ownsSandboxExtension(_owner, token));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file")));
}

TEST_F(SandboxExtensionTest, APathThatDoesNotNameThePassedFileGivesNothing) {
    write("other", "content");
    fs::create_symlink("file", at("link"));
    fs::create_hard_link(at("file"), at("second"));
    fs::create_directory_symlink(".", at("folder"));
    for (const char* wrong : {"other", "link", "absent", ".", "file/"})
        EXPECT_FALSE(SandboxExtension::consume(issue("file"), at(wrong))) << wrong;
    EXPECT_FALSE(SandboxExtension::consume(issue("file"), ""));
    for (const char* right : {"file", "second", "folder/file"})
        EXPECT_TRUE(SandboxExtension::consume(issue("file"), at(right))) << right;

    const std::string token = issue("file");
    EXPECT_FALSE(SandboxExtension::consume(token, at("other")));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file"))) << "the wrong path used it up";
}

TEST_F(SandboxExtensionTest, AFileThatWasReplacedOrDeletedGivesNothing) {
    std::string token = issue("file");
    write("new", "other content");
    fs::rename(at("new"), at("file"));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file")));
    token = issue("file");
    fs::remove(at("file"));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file")));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file (deleted)")));
}

TEST_F(SandboxExtensionTest, AFileInAFolderThatOnlyItsClientMaySearchIsKnownByItsName) {
    if (::geteuid() != 0) GTEST_SKIP() << "cannot be two users";
    fs::create_directory(at("private"));
    write("private/file", "content");
    ASSERT_EQ(::chmod(at("private").c_str(), 0700), 0);
    const std::string token = issue("private/file");
    const std::string other = issue("private/file");
    ASSERT_EQ(::seteuid(65534), 0);
    const bool taken = static_cast<bool>(SandboxExtension::consume(token, at("private/file")));
    const bool wrong = static_cast<bool>(SandboxExtension::consume(other, at("private/other")));
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_TRUE(taken);
    EXPECT_FALSE(wrong);
}

TEST_F(SandboxExtensionTest, WhatCannotBeReadGetsNoToken) {
    EXPECT_EQ(issue("file", O_WRONLY), "refused");
    EXPECT_EQ(issue("file", O_PATH), "refused");
    EXPECT_EQ(issue("absent"), "refused");
    EXPECT_NE(issue("file", O_RDWR), "refused");
}

TEST_F(SandboxExtensionTest, OutstandingTokensAreBoundedAndEndWithTheirOwner) {
    std::string first = issue("file");
    for (std::size_t issued = 1; issued < kExtensionsPerOwner; ++issued) EXPECT_NE(issue("file"), "refused");
    EXPECT_EQ(issue("file"), "refused");
    EXPECT_TRUE(SandboxExtension::consume(first, at("file")));
    first = issue("file");
    EXPECT_NE(first, "refused");

    const ExtensionOwner other = newExtensionOwner();
    const auto others =
        issueSandboxExtension(other, UniqueDescriptor(::open(at("file").c_str(), O_RDONLY)), {});
    revokeSandboxExtensions(_owner);
    EXPECT_FALSE(SandboxExtension::consume(first, at("file")));
    EXPECT_TRUE(ownsSandboxExtension(other, others.value_or("")));
    revokeSandboxExtensions(other);
    EXPECT_NE(issue("file"), "refused");
}

TEST_F(SandboxExtensionTest, ManyThreadsIssueAndConsumeAtOnce) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([this] {
            for (int round = 0; round < 100; ++round)
                EXPECT_TRUE(SandboxExtension::consume(issue("file"), at("file")));
        });
}

}  // namespace
}  // namespace quorvane::platform
