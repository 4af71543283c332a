#include "tests/collector/CollectorFixture.h"

#include <sys/stat.h>

#include <chrono>

namespace quorvane::test {

namespace {

class BagsTest : public CollectorTest {};

void setAge(const std::filesystem::path& path, std::chrono::seconds age) {
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - age);
}

}  // namespace

TEST_F(BagsTest, ServesABagUnderEveryPathThatDevicesUse) {
    writeFile(bags() / "tamsel1.plist", "signed");
    start({"--max-age", "600"});
    for (const char* path : {"/bags/tamsel1.plist?version=7.0", "/bags/tamsel/tamsel1.plist",
                             "/storebags/tamsel/tamsel1.plist?version=(null)"}) {
        const auto answer = client()->Get(path);
        ASSERT_TRUE(answer) << path;
        EXPECT_EQ(answer->status, 200) << path;
        EXPECT_EQ(answer->body, "signed") << path;
        EXPECT_EQ(answer->get_header_value("Cache-Control"), "max-age=600");
        EXPECT_TRUE(answer->get_header_value("Last-Modified").ends_with(" GMT"));
    }
    const auto head = client()->Head("/bags/tamsel1.plist");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 200);
    EXPECT_EQ(head->get_header_value("Content-Length"), "6");
    EXPECT_EQ(client()->Post("/bags/tamsel1.plist", "x", "text/plain")->status, 405);
}

TEST_F(BagsTest, SaysNotModifiedForExactlyTheBagThatTheDeviceHolds) {
    writeFile(bags() / "bag", "first");
    setAge(bags() / "bag", std::chrono::hours(1));
    start();
    const auto connection = client();
    connection->set_keep_alive(true);
    const std::string modified = connection->Get("/bags/bag")->get_header_value("Last-Modified");

    const auto unchanged = connection->Get("/bags/bag", httplib::Headers{{"If-Modified-Since", modified}});
    ASSERT_TRUE(unchanged);
    EXPECT_EQ(unchanged->status, 304);
    EXPECT_EQ(unchanged->body, "");
    EXPECT_EQ(unchanged->get_header_value("Last-Modified"), modified);
    EXPECT_EQ(unchanged->get_header_value("Cache-Control"), "max-age=3600");

    // Set back to an older bag: it must reach the devices.
    writeFile(bags() / "bag", "older");
    setAge(bags() / "bag", std::chrono::hours(2));
    const auto changed = connection->Get("/bags/bag", httplib::Headers{{"If-Modified-Since", modified}});
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_EQ(changed->body, "older");
}

TEST_F(BagsTest, NamesFromTheNetworkNeverBecomePaths) {
    writeFile(folder() / "secret", "secret");
    writeFile(bags() / ".hidden", "secret");
    std::filesystem::create_directory(bags() / "inner");
    writeFile(bags() / "inner/bag", "secret");
    ::mkfifo((bags() / "fifo").c_str(), 0600);
    start();
    const std::string longName(4000, 'a');
    for (const std::string& path :
         {std::string("/bags/../secret"), std::string("/bags/%2e%2e/secret"),
          std::string("/bags/..%2fsecret"), std::string("/bags//") + (folder() / "secret").string(),
          std::string("/bags/.hidden"), std::string("/bags/inner%2fbag"), std::string("/bags/inner/bag"),
          std::string("/bags/inner"), std::string("/bags/."), std::string("/bags/"),
          std::string("/bags/fifo"), std::string("/bags/secret%00"), "/bags/" + longName,
          std::string("/secret"), std::string("/")}) {
        const auto answer = client()->Get(path);
        ASSERT_TRUE(answer) << path;
        EXPECT_EQ(answer->status, 404) << path;
        EXPECT_EQ(answer->body.find("secret"), std::string::npos) << path;
    }
    // Log lines stay lines.
    EXPECT_EQ(client()->Get("/bags/a%0d%0ainjected")->status, 404);
    ASSERT_TRUE(collector().waitForErrors("injected"));
    EXPECT_EQ(collector().errors().find("\ninjected"), std::string::npos);
}

TEST_F(BagsTest, ARangeIsAnsweredWithTheWholeBagOrNotAtAll) {
    writeFile(bags() / "bag", "0123456789");
    start();
    std::string many = "bytes=0-";
    for (int i = 0; i < 500; ++i) many += ",0-9";
    for (const std::string& range : {std::string("bytes=2-3"), many}) {
        const auto answer = client()->Get("/bags/bag", httplib::Headers{{"Range", range}});
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, 200);
        EXPECT_EQ(answer->body, "0123456789");
    }
    client()->Get("/bags/bag", httplib::Headers{{"Range", "bytes=99999999999999999999-"}});
    EXPECT_EQ(client()->Get("/bags/bag")->status, 200);
}

}  // namespace quorvane::test
