#include "framework/Keys.h"
#include "tests/client/ClientFixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <future>

namespace quorvane::test {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

std::string contentOf(int descriptor) {
    std::string text(4096, '\0');
    const ssize_t size = ::pread(descriptor, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
}

/// Takes files as the daemon does, and asks for their removal before it answers.
class UploadPeer {
  public:
    UploadPeer() : peer([this](sd_bus_message* message) { return take(message); }) {}

    /// Runs the function on the peer's thread, which alone touches the fields.
    void onPeer(const std::function<void()>& function) {
        peer.run([&](sd_bus*) { function(); });
    }

    bool takes = true;
    std::string removes = "the token";  ///< For which token removal is asked; for none when empty.
    std::function<void()> whileUploading;
    std::string interface;
    std::string content;
    std::string url;
    std::string token;
    BusPeer peer;

  private:
    int take(sd_bus_message* message) {
        if (std::strcmp(::sd_bus_message_get_member(message), "Issue") == 0) {
            interface = ::sd_bus_message_get_interface(message);
            int descriptor = -1;
            if (::sd_bus_message_read(message, "h", &descriptor) < 0) return -EBADMSG;
            content = contentOf(descriptor);
            return ::sd_bus_reply_method_return(message, "s", "the token");
        }
        const char* given = nullptr;
        const char* name = nullptr;
        if (::sd_bus_message_read(message, "ss", &name, &given) < 0) return -EBADMSG;
        url = name;
        token = given;
        if (whileUploading) whileUploading();
        if (!removes.empty()) askForRemoval(::sd_bus_message_get_bus(message));
        return ::sd_bus_reply_method_return(message, "b", static_cast<int>(takes));
    }

    void askForRemoval(sd_bus* bus) const {
        sd_bus_message* removal = nullptr;
        ::sd_bus_message_new_method_call(bus, &removal, nullptr, kQuorvaneObjectPath,
                                         "com.velmora.quorvaned.SandboxExtensionOwner", "RemoveFile");
        ::sd_bus_message_append(removal, "s", removes.c_str());
        ::sd_bus_message_set_expect_reply(removal, 0);
        ::sd_bus_send(bus, removal, nullptr);
        ::sd_bus_message_unref(removal);
    }
};

class Upload : public testing::Test {
  protected:
    UploadPeer uploads;
    const fs::path folder = fs::canonical(uploads.peer.folder());
    Client client = connectTo(uploads.peer);
};

TEST_F(Upload, LendsTheFileReportsProgressAndRemovesItWhenAsked) {
    const fs::path file = folder / "a log %1.txt";
    writeFile(file, "what happened");
    std::vector<UploadProgress::Step> steps;
    const auto uploaded = client.uploadFile(file.string(), [&](const UploadProgress& progress) {
        steps.push_back(progress.step);
        EXPECT_EQ(progress.fileBytes, 13u);
    });
    EXPECT_EQ(*uploaded, true);
    EXPECT_EQ(steps, (std::vector{UploadProgress::Step::Opened, UploadProgress::Step::Lent,
                                  UploadProgress::Step::Finished}));
    uploads.onPeer([&] {
        EXPECT_EQ(uploads.interface, "com.velmora.quorvaned.SandboxExtension");
        EXPECT_EQ(uploads.content, "what happened");
        EXPECT_EQ(uploads.url, "file://" + (folder / "a%20log%20%251.txt").string());
        EXPECT_EQ(uploads.token, "the token");
    });
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(Upload, KeepsTheFileUnlessItsOwnRemovalIsAskedForHoweverLate) {
    const fs::path file = folder / "log";
    writeFile(file, "x");
    uploads.onPeer([&] {
        uploads.removes = "another token";
        uploads.takes = false;
    });
    EXPECT_EQ(*client.uploadFile(file.string()), false);
    uploads.onPeer([&] { uploads.removes = ""; });
    EXPECT_EQ(*client.uploadFile(file.string()), false);
    EXPECT_TRUE(fs::exists(file));
    // A token is forgotten with its upload.
    uploads.peer.run([](sd_bus* bus) {
        ::sd_bus_call_method_async(bus, nullptr, nullptr, kQuorvaneObjectPath,
                                   "com.velmora.quorvaned.SandboxExtensionOwner", "RemoveFile", nullptr,
                                   nullptr, "s", "the token");
    });
    EXPECT_EQ(*client.uploadFile(file.string()), false);
    EXPECT_TRUE(fs::exists(file));

    std::promise<void> late;
    uploads.onPeer([&] {
        uploads.removes = "the token";
        uploads.whileUploading = [&] { late.get_future().wait(); };
    });
    const auto uploaded = client.uploadFile(file.string(), nullptr, std::chrono::seconds(1));
    EXPECT_EQ(uploaded.error().code, ErrorCode::TimedOut);
    EXPECT_TRUE(fs::exists(file));
    late.set_value();
    EXPECT_TRUE(eventually([&] { return !fs::exists(file); }));
}

TEST_F(Upload, NeverRemovesWhatHasTakenTheFilesPlace) {
    fs::create_directory(folder / "sub");
    const fs::path file = folder / "sub/log";
    const fs::path other = folder / "other";
    const auto uploadWhile = [&](const std::function<void()>& replace) {
        writeFile(file, "x");
        uploads.onPeer([&] { uploads.whileUploading = replace; });
        EXPECT_EQ(*client.uploadFile(file.string()), true);
        EXPECT_TRUE(fs::exists(file));
    };
    uploadWhile([&] {
        fs::remove(file);
        writeFile(file, "new");
    });
    uploadWhile([&] {
        fs::rename(folder / "sub", folder / "moved");
        fs::create_directory(folder / "sub");
        fs::create_hard_link(folder / "moved/log", file);
    });
    EXPECT_FALSE(fs::exists(folder / "moved/log"));
    uploadWhile([&] {
        fs::rename(file, other);
        fs::create_symlink(other, file);
    });
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_TRUE(fs::exists(other));
}

TEST_F(Upload, LendsRegularFilesOnlyAndNamesThemWithoutLinksAndDots) {
    writeFile(folder / "file", "x");
    fs::create_symlink(folder / "file", folder / "link");
    ::mkfifo((folder / "fifo").c_str(), 0600);
    for (const fs::path& path : {folder, folder / "link", folder / "fifo", fs::path("/dev/null")})
        EXPECT_EQ(client.uploadFile(path.string()).error().code, ErrorCode::InvalidArgument) << path;
    EXPECT_EQ(client.uploadFile((folder / "none").string()).error().code, ErrorCode::System);
    uploads.onPeer([&] { EXPECT_EQ(uploads.token, ""); });

    fs::create_directory(folder / "sub");
    fs::create_directory_symlink(".", folder / "here");
    uploads.onPeer([&] { uploads.takes = false; });
    EXPECT_EQ(*client.uploadFile((folder / "here/sub/.././file").string()), false);
    uploads.onPeer([&] { EXPECT_EQ(uploads.url, "file://" + (folder / "file").string()); });
}

}  // namespace
}  // namespace quorvane::test
