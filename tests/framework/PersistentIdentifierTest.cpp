#include "framework/PersistentIdentifier.h"

#include "tests/support/RootFixture.h"

namespace quorvane {
namespace {

constexpr const char* kFile = "var/lib/quorvane/persistent-identifier";
constexpr const char* kIdentifier = "0F8FAD5B-D9CB-469F-A165-70867728950E";
constexpr const char* kStored = "0F8FAD5B-D9CB-469F-A165-70867728950E\n";

class PersistentIdentifierTest : public RootFixture {
  protected:
    void giveConsent(bool given) const {
        write("etc/quorvane/consent.toml", given ? "diagnostics_submission = true\n" : "");
    }
};

TEST_F(PersistentIdentifierTest, IsMadeOnceAndKept) {
    giveConsent(true);
    const std::string made = getPersistentIdentifierForDNU(true);
    EXPECT_EQ(made.size(), 36u);
    EXPECT_EQ(read(kFile), made + "\n");
    EXPECT_EQ(getPersistentIdentifierForDNU(true), made);
    EXPECT_EQ(getPersistentIdentifierForDNU(false), made);
    const auto mode = std::filesystem::status(_root / kFile).permissions();
    EXPECT_EQ(mode & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
              std::filesystem::perms::none);
}

TEST_F(PersistentIdentifierTest, IsTheOneKeptByAnEarlierProcessAndWithoutConsentOneOfThisProcess) {
    write(kFile, kStored);
    const std::string ofThisProcess = getPersistentIdentifierForDNU(true);
    EXPECT_NE(ofThisProcess, kIdentifier);
    EXPECT_EQ(getPersistentIdentifierForDNU(true), ofThisProcess);
    EXPECT_EQ(getPersistentIdentifierForDNU(false), kIdentifier) << "consent overridden";
    giveConsent(true);
    EXPECT_EQ(getPersistentIdentifierForDNU(true), kIdentifier);
    EXPECT_EQ(read(kFile), kStored);
}

TEST_F(PersistentIdentifierTest, AFileThatHoldsNoneGetsANewOne) {
    write(kFile, "0F8FAD5B-D9CB-469F-A165-70867728950\r\nX");
    const std::string made = getPersistentIdentifierForDNU(false);
    EXPECT_EQ(read(kFile), made + "\n");
    EXPECT_EQ(logged("<4>getPersistentIdentifierForDNU: "), 1u);
}

TEST_F(PersistentIdentifierTest, OneThatCannotBeStoredLastsAsLongAsTheProcess) {
    write("var/lib/quorvane", "a file where the folder should be");
    const std::string made = getPersistentIdentifierForDNU(false);
    EXPECT_EQ(made.size(), 36u);
    EXPECT_EQ(getPersistentIdentifierForDNU(false), made);
    EXPECT_EQ(logged("<3>getPersistentIdentifierForDNU: Could not store the identifier in "), 1u);
}

}  // namespace
}  // namespace quorvane
