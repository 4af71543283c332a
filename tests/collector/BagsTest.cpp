#include "tests/collector/CollectorFixture.h"

#include <sys/stat.h>

namespace quorvane::test {

using BagsTest = CollectorTest;

TEST_F(BagsTest, ServesABagUnderEveryPathThatDevicesUse) {
    write(bags() / "tamsel1.plist", "signed");
    start({"--max-age", "600"});
    for (const char* path : {"/bags/tamsel1.plist?version=7.0", "/bags/tamsel/tamsel1.plist",
                             "/storebags/tamsel/tamsel1.plist?version=(null)"}) {
        const auto answer = get(path);
        EXPECT_EQ(answer.status, 200) << path;
        EXPECT_EQ(answer.body, "signed") << path;
        EXPECT_EQ(answer.get_header_value("Cache-Control"), "max-age=600");
        EXPECT_TRUE(answer.get_header_value("Last-Modified").ends_with(" GMT"));
    }
    const auto head = answered(client()->Head("/bags/tamsel1.plist"));
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.get_header_value("Content-Length"), "6");
    EXPECT_EQ(post("x", {}, "text/plain", "/bags/tamsel1.plist").status, 405);
}

TEST_F(BagsTest, SaysNotModifiedForExactlyTheBagThatTheDeviceHoldsAndElseSendsItWhole) {
    write(bags() / "bag", "first");
    start();
    const std::string modified = get("/bags/bag").get_header_value("Last-Modified");
    const auto unchanged = get("/bags/bag", {{"If-Modified-Since", modified}});
    EXPECT_EQ(unchanged.status, 304);
    EXPECT_EQ(unchanged.body, "");
    EXPECT_EQ(unchanged.get_header_value("Last-Modified"), modified);
    EXPECT_EQ(unchanged.get_header_value("Cache-Control"), "max-age=3600");

    // Set back to an older bag: it must reach the devices.
    write(bags() / "bag", "older");
    std::filesystem::last_write_time(bags() / "bag",
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
    const auto changed = get("/bags/bag", {{"If-Modified-Since", modified}});
    EXPECT_EQ(changed.status, 200);
    EXPECT_EQ(changed.body, "older");

    // A range is answered with the whole bag or not at all.
    std::string many = "bytes=0-";
    for (int i = 0; i < 500; ++i) many += ",0-3";
    for (const std::string& range : {std::string("bytes=2-3"), many})
        EXPECT_EQ(get("/bags/bag", {{"Range", range}}).body, "older");
    get("/bags/bag", {{"Range", "bytes=99999999999999999999-"}});
    EXPECT_EQ(get("/bags/bag").status, 200);
}

TEST_F(BagsTest, NamesFromTheNetworkNeverBecomePaths) {
    write(_root / "secret", "secret");
    write(bags() / ".hidden", "secret");
    std::filesystem::create_directory(bags() / "inner");
    write(bags() / "inner/bag", "secret");
    ::mkfifo((bags() / "fifo").c_str(), 0600);
    start();
    const std::vector<std::string> paths{"/bags/../secret",
                                         "/bags/%2e%2e/secret",
                                         "/bags/..%2fsecret",
                                         "/bags//" + (_root / "secret").string(),
                                         "/bags/.hidden",
                                         "/bags/inner%2fbag",
                                         "/bags/inner/bag",
                                         "/bags/inner",
                                         "/bags/.",
                                         "/bags/",
                                         "/bags/fifo",
                                         "/bags/secret%00",
                                         "/bags/" + std::string(4000, 'a'),
                                         "/secret",
                                         "/"};
    for (const std::string& path : paths) {
        const auto answer = get(path);
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.body.find("secret"), std::string::npos) << path;
    }
    // Log lines stay lines.
    EXPECT_EQ(get("/bags/a%0d%0ainjected").status, 404);
    ASSERT_TRUE(collector().waitForErrors("injected"));
    EXPECT_EQ(collector().errors().find("\ninjected"), std::string::npos);
}

}  // namespace quorvane::test
