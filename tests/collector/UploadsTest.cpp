#include "tests/collector/CollectorFixture.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace quorvane::test {

namespace {

class UploadsTest : public CollectorTest {
  protected:
    std::filesystem::path stored() const { return folder() / "stored"; }

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

    httplib::Result upload(const std::string& body, const std::string& fileName = "trace.log.gz",
                           const httplib::Headers& headers = {{"Content-Encoding", "gzip"}}) const {
        return client()->Post(
            "/upload?uuid=device&sequence=42&description=Some%20log&filename=" + fileName + "&raw=true",
            headers, body, "application/octet-stream");
    }
};

bool saysSuccess(const httplib::Result& answer) {
    return answer && answer->body.find("success") != std::string::npos;
}

/// The most memory the process has had resident, in KiB.
long peakMemory(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:")) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

}  // namespace

TEST_F(UploadsTest, StoresAFileUnpackedAndTellsOfIt) {
    startStoring();
    std::string contents(300'000, '\0');
    for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * i >> 7);
    const auto answer = upload(gzip(contents));
    EXPECT_TRUE(saysSuccess(answer));

    const auto kept = lines();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(*kept[0].string("kind"), "upload");
    EXPECT_EQ(*kept[0].string("uuid"), "device");
    EXPECT_EQ(*kept[0].string("sequence"), "42");
    EXPECT_EQ(*kept[0].string("description"), "Some log");
    EXPECT_EQ(*kept[0].string("fileName"), "trace.log.gz");
    EXPECT_EQ(*kept[0].find("raw"), Value(true));
    EXPECT_EQ(kept[0].integer("bytes"), 300'000);
    ASSERT_EQ(names(), std::vector<std::string>{*kept[0].string("file")});
    EXPECT_EQ(readFile(stored() / names()[0]), contents);

    EXPECT_TRUE(saysSuccess(upload("plain", "plain.log", {})));
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(UploadsTest, NamesFilesItself) {
    startStoring();
    for (const std::string& name :
         {std::string("..%2f..%2fescaped"), std::string("%2ftmp%2fescaped"), std::string("../escaped"),
          std::string("a%00b"), std::string("%0d%0aX-Injected:%201"), std::string("success"),
          std::string(3000, 'n')})
        EXPECT_TRUE(saysSuccess(upload(gzip("x"), name))) << name;
    EXPECT_EQ(names().size(), 7u);
    for (const std::string& name : names()) EXPECT_TRUE(name.starts_with("upload-")) << name;
    EXPECT_FALSE(std::filesystem::exists(folder() / "escaped"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/escaped"));
    EXPECT_EQ(*lines()[0].string("fileName"), "../../escaped");
}

TEST_F(UploadsTest, SaysSuccessForNothingThatItDidNotStoreWhole) {
    startStoring({"--max-upload", "100000"});
    const std::string packed = gzip(std::string(50'000, 'x') + "end");
    const auto headers = httplib::Headers{{"Content-Encoding", "gzip"}};
    const char* type = "application/octet-stream";
    const std::vector<std::pair<httplib::Result, int>> answers = [&] {
        std::vector<std::pair<httplib::Result, int>> result;
        result.emplace_back(upload(packed.substr(0, packed.size() - 1), "success"), 400);
        result.emplace_back(upload("success", "success"), 400);
        result.emplace_back(upload("", "success"), 400);
        result.emplace_back(upload(gzip(std::string(100'001, 'x')), "success"), 413);
        result.emplace_back(upload(std::string(100'001, 'x'), "success", {}), 413);
        result.emplace_back(upload(packed, "success%ff"), 400);
        result.emplace_back(client()->Post("/upload?uuid=success&sequence=1", headers, packed, type), 400);
        result.emplace_back(
            client()->Post("/upload?uuid=d&sequence=success&filename=f", headers, packed, type), 400);
        result.emplace_back(client()->Post("/upload?uuid=d&sequence=1&filename=success", headers, packed,
                                           "multipart/form-data; boundary=success"),
                            415);
        result.emplace_back(client()->Get("/upload?uuid=d&sequence=1&filename=success"), 405);
        result.emplace_back(client()->Post("/uploads/success", headers, packed, type), 404);
        return result;
    }();
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ASSERT_TRUE(answers[i].first) << i;
        EXPECT_EQ(answers[i].first->status, answers[i].second) << i;
        EXPECT_FALSE(saysSuccess(answers[i].first)) << i;
    }
    EXPECT_TRUE(lines().empty());
    EXPECT_TRUE(names().empty());
    EXPECT_TRUE(saysSuccess(upload(packed)));
}

TEST_F(UploadsTest, LeavesNothingOfAnUploadThatBreaksOff) {
    startStoring();
    {
        RawConnection connection(port());
        connection.send(
            "POST /upload?uuid=d&sequence=1&filename=f HTTP/1.1\r\nContent-Length: 1000\r\n\r\nstart");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (names().empty() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ASSERT_EQ(names().size(), 1u);
        EXPECT_TRUE(names()[0].starts_with("."));
    }
    ASSERT_TRUE(collector().waitForErrors("did not come to its end"));
    EXPECT_EQ(collector().terminate(), 0);
    EXPECT_TRUE(names().empty());
    EXPECT_TRUE(lines().empty());
}

TEST_F(UploadsTest, StoresArchivesOfLogDataAndTellsWhere) {
    startStoring();
    const std::string archive = "bplist00" + std::string(100, '\x01');
    const auto answer = client()->Post("/logdata", archive, "application/octet-stream");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200);
    ASSERT_EQ(names(), std::vector<std::string>{answer->body});
    EXPECT_TRUE(answer->body.starts_with("logdata-") && answer->body.ends_with(".plist"));
    EXPECT_EQ(readFile(stored() / answer->body), archive);
    EXPECT_EQ(*lines()[0].string("kind"), "logdata");
    EXPECT_EQ(*lines()[0].string("file"), answer->body);

    for (const char* body : {"", "bplist0", "<plist/>"})
        EXPECT_EQ(client()->Post("/logdata", body, "application/octet-stream")->status, 400) << body;
    EXPECT_EQ(names().size(), 1u);
}

TEST_F(UploadsTest, MemoryDoesNotGrowWithTheFile) {
    startStoring();
    EXPECT_TRUE(saysSuccess(upload(gzip("small"))));
    const long before = peakMemory(collector().pid());
    constexpr std::size_t kLarge = 96u << 20;
    EXPECT_TRUE(saysSuccess(upload(gzip(std::string(kLarge, 'x')))));
    EXPECT_EQ(lines()[1].integer("bytes"), std::int64_t{kLarge});
    EXPECT_LT(peakMemory(collector().pid()) - before, 32 * 1024);
}

TEST_F(UploadsTest, TakesNothingWithoutAFolderOrAPlaceToTellOfIt) {
    start();
    EXPECT_EQ(upload(gzip("x"))->status, 404);
    EXPECT_EQ(client()->Post("/logdata", "bplist00", "application/octet-stream")->status, 404);
    startStoring({"--events", "/dev/full"});
    EXPECT_EQ(upload(gzip("x"))->status, 503);
    EXPECT_TRUE(names().empty());
}

}  // namespace quorvane::test
