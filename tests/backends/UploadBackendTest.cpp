#include "backends/UploadBackend.h"

#include "backends/UploadRoom.h"
#include "framework/Keys.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/http/HttpSession.h"
#include "platform/sandbox/SandboxExtension.h"
#include "tests/backends/BackendFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <set>
#include <thread>

namespace quorvane {
namespace {

using test::ServerAnswer;
using test::ServerRequest;

class UploadBackendTest : public PostingFixture {
  protected:
    UploadBackendTest() {
        _server->answerWith({200, {}, "{\"result\":\"success\"}"});
        write("file.log", "contents");
    }
    ~UploadBackendTest() override { platform::revokeSandboxExtensions(_owner); }

    static std::shared_ptr<QuorvaneBackend> backendFor(const std::string& url) {
        auto backend = QuorvaneBackend::newBackendWithName(
            std::string(kQuorvaneBackendUploadServer),
            shared({{"post_url", url}, {"display_url", "https://display.invalid/"}}), "F", 7);
        EXPECT_NE(backend, nullptr);
        backend->setSessionID(4'000'000'000);
        backend->setUdid("0123abcd");
        return backend;
    }

    std::string at(const std::string& name) const { return std::filesystem::canonical(_root) / name; }

    /// A token for the file, as a client gets it.
    std::string lend(const std::string& name, int flags = O_RDONLY) {
        platform::UniqueDescriptor file(::open(at(name).c_str(), flags | O_CLOEXEC | O_NONBLOCK));
        EXPECT_TRUE(file) << name;
        return lent(std::move(file));
    }
    std::string lent(platform::UniqueDescriptor file) {
        const auto remove = [this](const std::string& token) { _removed.insert(token); };
        return platform::issueSandboxExtension(_owner, std::move(file), remove).value_or("");
    }

    bool upload(const std::string& name, const std::string& token) {
        return _backend->uploadFileAtPath(at(name), token.c_str());
    }
    bool upload(const std::string& name) { return upload(name, lend(name)); }

    void makeLarge(const std::string& name, std::uintmax_t bytes) const {
        write(name, "");
        std::filesystem::resize_file(_root / name, bytes);
    }

    std::shared_ptr<QuorvaneBackend> _backend = backendFor(_server->url("/upload"));
    const platform::ExtensionOwner _owner = platform::newExtensionOwner(1000);
    std::set<std::string> _removed;  ///< Whose removal was asked for, on the thread that uploads.
};

TEST_F(UploadBackendTest, PostsTheFileWithItsQueryKeysAndHasItRemoved) {
    std::string contents(700'000, '\0');
    std::uint32_t state = 1;
    for (char& c : contents) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    const std::string name = "a b#%\xc3\xbc&.log";
    write(name, contents);
    const std::string token = lend(name);
    EXPECT_TRUE(upload(name, token));

    ASSERT_EQ(_server->requestCount(), 1u);
    const ServerRequest request = _server->requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target,
              "/upload?uuid=0123abcd&sequence=4000000000"
              "&description=Callvane%20AFRC%20log%20(Uploaded%20by%20LMS)"
              "&filename=a%20b%23%25%C3%BC&.log.gz&raw=true");
    EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(request.header("Content-Encoding"), "gzip");
    EXPECT_NE(request.header("Content-Length"), std::to_string(contents.size()));
    EXPECT_EQ(request.body, contents);
    EXPECT_EQ(_removed, std::set{token});
    EXPECT_EQ(logged("<3>"), 0u);
    EXPECT_EQ(logged("<7>UploadBackend(uploadFileAtPath): sending to |" + _server->url("/upload") +
                     "|, Json output: {\"result\":\"success\"}"),
              1u);
}

TEST_F(UploadBackendTest, AnyAnswerCountsAndOnlySuccessRemovesTheFile) {
    const std::string large = std::string(16u << 20, ' ') + "success";
    for (const ServerAnswer& answer : {ServerAnswer{200, {}, "ok"},
                                       {200, {}, "Success"},
                                       {204, {}, ""},
                                       {200, {}, "\xff success"},
                                       {500, {}, "no"},
                                       {200, {}, large},
                                       {302, {{"Location", "/elsewhere"}}, ""}}) {
        _server->answerWith(answer);
        EXPECT_TRUE(upload("file.log")) << answer.body.substr(0, 20);
    }
    EXPECT_EQ(_removed.size(), 0u);
    EXPECT_EQ(logged("<3>UploadBackend(uploadFileAtPath): post the answer is larger"), 1u);
    _server->answerWith({503, {}, "upload success"});
    EXPECT_TRUE(upload("file.log"));
    EXPECT_EQ(_removed.size(), 1u);
    EXPECT_EQ(_server->requestCount(), 8u);
}

TEST_F(UploadBackendTest, ATransportErrorKeepsTheFileAndStillCounts) {
    for (const char* url : {"https://127.0.0.1:1/upload", "ftp://127.0.0.1/upload"}) {
        _backend = backendFor(url);
        EXPECT_TRUE(upload("file.log")) << url;
    }
    EXPECT_EQ(logged("<3>UploadBackend(uploadFileAtPath): post "), 2u);
    EXPECT_EQ(logged("post (null)"), 0u);
    EXPECT_EQ(_removed.size(), 0u);
}

TEST_F(UploadBackendTest, OnlyRegularFilesWithContentsAreRead) {
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    std::filesystem::create_directory(at("folder"));
    EXPECT_FALSE(upload("pipe", lend("pipe", O_RDWR)));
    EXPECT_FALSE(upload("folder"));
    const std::string device = lent(platform::UniqueDescriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC)));
    EXPECT_FALSE(_backend->uploadFileAtPath("/dev/zero", device.c_str()));
    EXPECT_FALSE(_backend->uploadFileAtPath(at("file.log"), nullptr));
    EXPECT_FALSE(upload("file.log", lend("folder")));
    EXPECT_EQ(logged("<3>UploadBackend(uploadFileAtPath): Only upload a regular file."), 5u);

    write("empty", "");
    EXPECT_FALSE(upload("empty"));
    EXPECT_EQ(logged("<3>UploadBackend(uploadFileAtPath): Input file is empty"), 1u);
    const std::string sizeless = "/proc/version";
    EXPECT_TRUE(_backend->uploadFileAtPath(
        sizeless, lent(platform::UniqueDescriptor(::open(sizeless.c_str(), O_RDONLY | O_CLOEXEC))).c_str()));
    EXPECT_EQ(logged("<3>"), 6u);

    makeLarge("huge", std::uintmax_t{1} << 32);
    EXPECT_FALSE(upload("huge"));
    EXPECT_EQ(logged("<3>compressDataWithZlibOrGzip: Cannot compress 4294967296 bytes at once"), 1u);
    EXPECT_EQ(_server->requestCount(), 1u);
}

TEST_F(UploadBackendTest, AFileThatChangesIsSentAsItIsFound) {
    const std::string token = lend("file.log");
    write("file.log", "new and longer contents");
    EXPECT_TRUE(upload("file.log", token));
    EXPECT_EQ(_server->requests().at(0).body, "new and longer contents");

    write("file.log", std::string(1'000'000, 'x'));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        while (!done) {
            std::filesystem::resize_file(at("file.log"), 10);
            std::ofstream(at("file.log"), std::ios::app) << std::string(1'000'000, 'x');
        }
    });
    for (int round = 0; round < 20; ++round) upload("file.log");
    done = true;
    writer.join();
    for (const ServerRequest& request : _server->requests()) EXPECT_LE(request.body.size(), 1'000'010u);
    EXPECT_EQ(logged("<3>"), logged("Input file is empty"));
}

TEST_F(UploadBackendTest, LeavesTheClientsOffsetWhereItIs) {
    const platform::UniqueDescriptor file(::open(at("file.log").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::lseek(file.get(), 3, SEEK_SET), 3);
    EXPECT_TRUE(upload("file.log", lent(platform::UniqueDescriptor(::dup(file.get())))));
    EXPECT_EQ(_server->requests().at(0).body, "contents");
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 3);
}

TEST_F(UploadBackendTest, AURLIsNeededAndOneThatIsNoneIsRefused) {
    for (const Dictionary& profile : {Dictionary{{"display_url", "https://d.invalid"}}, {{"post_url", 1}}})
        EXPECT_EQ(UploadBackend::initWithName("uploadserver", shared(profile), "F"), nullptr);
    EXPECT_EQ(UploadBackend::initWithName("uploadserver", nullptr, "F"), nullptr);
    EXPECT_EQ(logged("<3>UploadBackend(initWithName): can't resolve upload post URL."), 3u);
    EXPECT_EQ(_backend->displayURL(), "https://display.invalid/");

    for (const char* url : {"", "upload.invalid", "https://a b/", "https://127.0.0.1/\r\nX-Forged: 1"}) {
        _backend = backendFor(url);
        EXPECT_FALSE(upload("file.log")) << url;
    }
    EXPECT_EQ(logged("<3>UploadBackend(uploadFileAtPath): Unable to create URL request"), 4u);
    const auto withoutURL = std::dynamic_pointer_cast<UploadBackend>(backendFor(""));
    withoutURL->setUploadURL(std::nullopt);
    const std::string token = lend("file.log");
    EXPECT_FALSE(withoutURL->uploadFileAtPath(at("file.log"), token.c_str()));
    EXPECT_TRUE(platform::ownsSandboxExtension(_owner, token));
    EXPECT_EQ(_removed.size(), 0u);
}

TEST_F(UploadBackendTest, ALargeUploadThatStallsHoldsUpNoSmallOne) {
    makeLarge("large", 20u << 20);
    std::promise<void> opened;
    const auto open = opened.get_future().share();
    _server->setHandler([open](const ServerRequest& request) {
        if (request.body.size() > 1'000'000) open.wait();
        return ServerAnswer();
    });
    const std::string token = lend("large");
    auto large = std::async(std::launch::async, [&] { return upload("large", token); });
    EXPECT_TRUE(_server->waitForRequests(1));

    const auto other = backendFor(_server->url());
    std::vector<std::future<bool>> small;
    for (int i = 0; i < 6; ++i)
        small.push_back(std::async(std::launch::async, [&, lent = lend("file.log")] {
            return other->uploadFileAtPath(at("file.log"), lent.c_str());
        }));
    for (auto& result : small) EXPECT_TRUE(result.get());
    opened.set_value();
    EXPECT_TRUE(large.get());
    EXPECT_EQ(_server->requests().at(0).body.size(), 20u << 20);
}

TEST_F(UploadBackendTest, RoomIsSharedByServerAndLogDataTakesSomeOfIt) {
    constexpr std::size_t large = 60u << 20;
    constexpr std::size_t small = 16u << 20;
    const std::string url = _server->url("/upload");
    const auto first = uploadRoom("https://stalled.invalid/a", large);
    const auto second = uploadRoom(url, large);
    std::vector<std::optional<platform::MemoryBudget::Reservation>> full;
    for (int i = 0; i < 4; ++i) full.push_back(uploadRoom(url, small));

    const auto dashboard = QuorvaneBackend::newBackendWithName(
        std::string(kQuorvaneBackendDashboard), shared({{"ip", "127.0.0.1"}, {"port", 9}, {"post_url", url}}),
        "F", 7);
    ASSERT_NE(dashboard, nullptr);
    auto uploading = std::async(std::launch::async, [&] {
        return dashboard->uploadLogData({Dictionary{{"a", 1}}});
    });
    EXPECT_EQ(uploading.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(_server->requestCount(), 0u);
    full.clear();
    EXPECT_TRUE(uploading.get());
    EXPECT_EQ(_server->requestCount(), 1u);
}

}  // namespace
}  // namespace quorvane
