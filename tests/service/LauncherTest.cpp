#include "platform/base/UniqueDescriptor.h"
#include "tests/support/DaemonFixture.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace quorvane::test {
namespace {

/// Listens at the path, as a service manager does for a service that is to start with its first client, and
/// becomes the program.
constexpr const char* kHandOver = R"(
import os, socket, sys
path, program = sys.argv[1:]
listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
listener.bind(path)
listener.listen()
if listener.fileno() != 3: os.dup2(listener.fileno(), 3)
os.set_inheritable(3, True)
os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
os.execv(program, [program])
)";

/// The service manager's end of sd_notify(3).
class Notifications {
  public:
    explicit Notifications(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    /// Whether one that holds the text comes.
    bool await(const std::string& text) {
        pollfd readable{_socket.get(), POLLIN, 0};
        while (::poll(&readable, 1, 20'000) == 1) {
            char message[512];
            const ssize_t size = ::recv(_socket.get(), message, sizeof message, 0);
            if (size > 0 &&
                std::string(message, static_cast<std::size_t>(size)).find(text) != std::string::npos)
                return true;
        }
        return false;
    }

  private:
    platform::UniqueDescriptor _socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST(Launcher, HandsItsSocketOverAndHearsOfStartLifeAndEnd) {
    DaemonFixture device;
    device.start();
    const std::string program =
        std::filesystem::read_symlink("/proc/" + std::to_string(device.daemon().pid()) + "/exe");
    EXPECT_EQ(device.daemon().terminate(), 0);

    const std::string path = device.root() / "launcher";
    Notifications notifications(device.root() / "notify");
    const auto daemon = ChildProcess::start({"/usr/bin/python3", "-c", kHandOver, path, program},
                                            {{"QUORVANE_ROOT", device.root()},
                                             {"QUORVANE_LOG", "stderr"},
                                             {"NOTIFY_SOCKET", device.root() / "notify"},
                                             {"WATCHDOG_USEC", "200000"}});
    ASSERT_NE(daemon, nullptr);
    EXPECT_TRUE(notifications.await("READY=1")) << daemon->errors();
    auto client = Client::connect({.socketPath = path});
    ASSERT_TRUE(client) << client.error().message;
    EXPECT_TRUE(client->flush());
    EXPECT_FALSE(std::filesystem::exists(device.socketPath()));
    EXPECT_TRUE(notifications.await("WATCHDOG=1"));
    EXPECT_EQ(daemon->terminate(), 0);
    EXPECT_TRUE(notifications.await("STOPPING=1"));
    EXPECT_TRUE(std::filesystem::exists(path)) << "it is the launcher's";
}

}  // namespace
}  // namespace quorvane::test
