#include "platform/sandbox/SandboxExtension.h"

#include "platform/base/UserAccount.h"

#include "tests/support/RootFixture.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace quorvane::platform {
namespace {

namespace fs = std::filesystem;

class SandboxExtensionTest : public RootFixture {
  protected:
    SandboxExtensionTest() { write("file", "content"); }
    ~SandboxExtensionTest() override { revokeSandboxExtensions(_owner); }

    std::string at(const std::string& name) const { return (fs::canonical(_root) / name).string(); }

    std::string issue(const std::string& name, int flags = O_RDONLY, RemoveFileRequest removal = {},
                      std::optional<ExtensionOwner> owner = {}) const {
        return issueSandboxExtension(owner.value_or(_owner),
                                     UniqueDescriptor(::open(at(name).c_str(), flags | O_CLOEXEC)),
                                     std::move(removal))
            .value_or("refused");
    }

    static constexpr uid_t kUser = 1000;

    const ExtensionOwner _owner = newExtensionOwner(kUser);
};

TEST_F(SandboxExtensionTest, ATokenIsGoodOnceForItsOwnFileAndItsOwnOwner) {
    std::vector<std::string> removed;
    const std::string token =
        issue("file", O_RDONLY, [&](const std::string& which) { removed.push_back(which); });
    EXPECT_GE(token.size(), 32u);
    EXPECT_TRUE(ownsSandboxExtension(_owner, token));
    EXPECT_FALSE(ownsSandboxExtension(newExtensionOwner(kUser), token));
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

    EXPECT_EQ(issue("file", O_WRONLY), "refused") << "what cannot be read gets no token";
    EXPECT_EQ(issue("file", O_PATH), "refused");
    EXPECT_EQ(issue("absent"), "refused");
    EXPECT_NE(issue("file", O_RDWR), "refused");
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

    std::string token = issue("file");
    EXPECT_FALSE(SandboxExtension::consume(token, at("other")));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file"))) << "the wrong path used it up";

    token = issue("file");
    fs::rename(at("other"), at("file"));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file"))) << "the file was replaced";
    token = issue("file");
    fs::remove(at("file"));
    EXPECT_FALSE(SandboxExtension::consume(token, at("file"))) << "the file was deleted";
}

TEST_F(SandboxExtensionTest, AFileInAFolderThatOnlyItsClientMaySearchIsKnownByItsName) {
    if (::geteuid() != 0) GTEST_SKIP() << "cannot be two users";
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

TEST_F(SandboxExtensionTest, OutstandingTokensAreBoundedAndEndWithTheirOwner) {
    std::string first = issue("file");
    for (std::size_t issued = 1; issued < kExtensionsPerOwner; ++issued) EXPECT_NE(issue("file"), "refused");
    EXPECT_EQ(issue("file"), "refused");
    EXPECT_TRUE(SandboxExtension::consume(first, at("file")));
    first = issue("file");
    EXPECT_NE(first, "refused");

    const ExtensionOwner other = newExtensionOwner(kUser);
    const std::string others = issue("file", O_RDONLY, {}, other);
    revokeSandboxExtensions(_owner);
    EXPECT_FALSE(SandboxExtension::consume(first, at("file")));
    EXPECT_TRUE(ownsSandboxExtension(other, others));
    revokeSandboxExtensions(other);
    EXPECT_NE(issue("file"), "refused");

    // One user leaves tokens to the others.
    const std::size_t perUser = UserAccount::bounds(UserAccount::Slot::Files).perUser;
    std::vector<ExtensionOwner> owners;
    std::size_t issued = 0;
    for (std::size_t owner = 0; owner <= perUser / kExtensionsPerOwner; ++owner) {
        owners.push_back(newExtensionOwner(kUser + 1));
        for (std::size_t token = 0; token < kExtensionsPerOwner; ++token)
            issued += issue("file", O_RDONLY, {}, owners.back()) != "refused";
    }
    EXPECT_EQ(issued, perUser);
    EXPECT_NE(issue("file"), "refused");
    for (const ExtensionOwner owner : owners) revokeSandboxExtensions(owner);
}

}  // namespace
}  // namespace quorvane::platform
