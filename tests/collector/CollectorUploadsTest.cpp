#include "tests/collector/CollectorFixture.h"
#include "tests/support/Within.h"

namespace quorvane::test {

namespace {

const char* const kBytes = "application/octet-stream";

class CollectorUploadsTest : public CollectorTest {
  protected:
    std::filesystem::path stored() const { return _root / "stored"; }

    void startStoring(std::vector<std::string> further = {}) {
        further.insert(further.end(), {"--uploads", stored()});
        start(further);
    }

    /// Everything in the folder, hidden files too.
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& entry : std::filesystem::directory_iterator(stored()))
            result.push_back(entry.path().filename());
        return result;
    }

    httplib::Response upload(const std::string& body, const std::string& fileName = "trace.log.gz",
                             const httplib::Headers& headers = kPacked) const {
        return post(
            body, headers, kBytes,
            "/upload?uuid=device&sequence=42&description=Some%20log&filename=" + fileName + "&raw=true");
    }
};

bool saysSuccess(const httplib::Response& answer) {
    return answer.body.find("success") != std::string::npos;
}

}  // namespace

TEST_F(CollectorUploadsTest, StoresAFileUnpackedUnderANameOfItsOwnAndTellsOfIt) {
    startStoring();
    std::string contents(300'000, '\0');
    for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * i >> 7);
    EXPECT_TRUE(saysSuccess(upload(gzip(contents))));

    const auto kept = lines();
    ASSERT_EQ(kept.size(), 1u);
    ASSERT_EQ(names(), std::vector<std::string>{*kept[0].string("file")});
    EXPECT_EQ(
        withoutReceipt(kept[0]),
        R"({"bytes":300000,"description":"Some log","file":")" + names()[0] +
            R"(","fileName":"trace.log.gz","kind":"upload","raw":true,"sequence":"42","uuid":"device"})");
    EXPECT_EQ(read(stored() / names()[0]), contents);

    EXPECT_TRUE(saysSuccess(upload("plain", "plain.log", {})));
    EXPECT_EQ(names().size(), 2u);

    for (const std::string& name :
         std::vector<std::string>{"..%2f..%2fescaped", "%2ftmp%2fescaped", "../escaped", "a%00b",
                                  "%0d%0aX-Injected:%201", "success", std::string(3000, 'n')})
        EXPECT_TRUE(saysSuccess(upload(gzip("x"), name))) << name;
    EXPECT_EQ(names().size(), 9u);
    for (const std::string& name : names()) EXPECT_TRUE(name.starts_with("upload-")) << name;
    EXPECT_FALSE(std::filesystem::exists(_root / "escaped"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/escaped"));
    EXPECT_EQ(*lines()[2].string("fileName"), "../../escaped");
}

TEST_F(CollectorUploadsTest, SaysSuccessForNothingThatItDidNotStoreWhole) {
    startStoring({"--max-upload", "100000"});
    std::string text(50'000, 'x');
    text += "end";
    const std::string packed = gzip(text);
    const auto refused = [](int number, const httplib::Response& answer, int status) {
        EXPECT_EQ(answer.status, status) << number;
        EXPECT_FALSE(saysSuccess(answer)) << number;
    };
    refused(1, upload(packed.substr(0, packed.size() - 1), "success"), 400);
    refused(2, upload("success", "success"), 400);
    refused(3, upload("", "success"), 400);
    refused(4, upload(gzip(std::string(100'001, 'x')), "success"), 413);
    refused(5, upload(std::string(100'001, 'x'), "success", {}), 413);
    refused(6, upload(packed, "success%ff"), 400);
    refused(7, post(packed, kPacked, kBytes, "/upload?uuid=success&sequence=1"), 400);
    refused(8, post(packed, kPacked, kBytes, "/upload?uuid=d&sequence=success&filename=f"), 400);
    const std::string path = "/upload?uuid=d&sequence=1&filename=success";
    refused(9, post(packed, kPacked, "multipart/form-data; boundary=success", path), 415);
    refused(10, get(path), 405);
    refused(11, post(packed, kPacked, kBytes, "/uploads/success"), 404);
    EXPECT_TRUE(lines().empty());
    EXPECT_TRUE(names().empty());

    // Nothing stays of an upload that breaks off.
    {
        RawConnection connection(port());
        connection.send(
            "POST /upload?uuid=d&sequence=1&filename=f HTTP/1.1\r\nContent-Length: 1000\r\n\r\nstart");
        within(std::chrono::seconds(20), [&] { return !names().empty(); });
        ASSERT_EQ(names().size(), 1u);
        EXPECT_TRUE(names()[0].starts_with("."));
    }
    ASSERT_TRUE(collector().waitForErrors("did not come to its end"));
    EXPECT_TRUE(within(std::chrono::seconds(20), [&] { return names().empty(); }));
    EXPECT_TRUE(saysSuccess(upload(packed)));
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(CollectorUploadsTest, StoresArchivesOfLogDataAndTellsWhere) {
    startStoring();
    const std::string archive = "bplist00" + std::string(100, '\x01');
    const auto answer = post(archive, {}, kBytes, "/logdata");
    EXPECT_EQ(answer.status, 200);
    ASSERT_EQ(names(), std::vector<std::string>{answer.body});
    EXPECT_TRUE(answer.body.starts_with("logdata-") && answer.body.ends_with(".plist"));
    EXPECT_EQ(read(stored() / answer.body), archive);
    EXPECT_EQ(withoutReceipt(lines()[0]),
              R"({"bytes":108,"file":")" + answer.body + R"(","kind":"logdata"})");
    for (const char* body : {"", "bplist0", "<plist/>"})
        EXPECT_EQ(post(body, {}, kBytes, "/logdata").status, 400) << body;
    EXPECT_EQ(names().size(), 1u);

    // Nothing without a folder or a place to tell of it.
    start();
    EXPECT_EQ(upload(gzip("x")).status, 404);
    EXPECT_EQ(post("bplist00", {}, kBytes, "/logdata").status, 404);
    startStoring({"--events", "/dev/full"});
    EXPECT_EQ(upload(gzip("x")).status, 503);
    EXPECT_EQ(names().size(), 1u);
}

}  // namespace quorvane::test
