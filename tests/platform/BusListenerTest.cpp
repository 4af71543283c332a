#include "platform/bus/BusListener.h"
#include "platform/loop/RunLoop.h"
#include "tests/platform/BusFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RootFixture.h"

#include <poll.h>
#include <sys/stat.h>

namespace quorvane::platform {
namespace {

using test::BusClient;

/// A listener whose loop runs on a thread of its own.
class BusListenerTest : public RootFixture {
  protected:
    BusListenerTest() {
        _loop = RunLoop::init();
        _listener = *BusListener::initWithSocketPath(_path);
        _listener->setDelegate([this](const std::shared_ptr<BusConnection>& connection) {
            if (_refuses) return false;
            _process = connection->peer().pid;
            _user = connection->peer().uid;
            TestObject::exportOn(*connection, std::make_shared<TestObject>(*connection));
            return true;
        });
    }

    ~BusListenerTest() override {
        endAll();
        _loop->post([this] { _loop->exit(0); });
        _thread.join();
        _listener.reset();
        _loop.reset();
        UserAccount::setBounds(UserAccount::Slot::Connections, _bounds);
    }

    void start() {
        _thread = std::thread([this] {
            EXPECT_TRUE(_listener->resume(*_loop));
            _loop->run();
        });
    }

    void endAll() {
        std::promise<void> allGone;
        _loop->post([&] { _listener->invalidateAll([&] { allGone.set_value(); }); });
        allGone.get_future().wait();
    }

    bool answers(const BusClient& client) const {
        return client.call(kTestInterface, "Echo", "u", 7u).error.empty();
    }

    /// Waits for the other end to close.
    static bool isClosed(const UniqueDescriptor& socket) {
        pollfd readable{socket.get(), POLLIN, 0};
        char byte = 0;
        return ::poll(&readable, 1, 30'000) == 1 && ::recv(socket.get(), &byte, 1, 0) <= 0;
    }

    const UserAccount::Bounds _bounds = UserAccount::bounds(UserAccount::Slot::Connections);
    const std::string _path = (_root / "sub/socket").string();
    std::unique_ptr<RunLoop> _loop;
    std::unique_ptr<BusListener> _listener;
    std::thread _thread;
    std::atomic<bool> _refuses = false;
    // Of the last connection.
    std::atomic<pid_t> _process = 0;
    std::atomic<uid_t> _user = 0;
};

TEST_F(BusListenerTest, AnyUserMayConnectAndIsKnownByItsProcessUntilAllAreEnded) {
    start();
    struct stat status {};
    ASSERT_EQ(::stat(_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666u);
    const BusClient client(_path);
    ASSERT_TRUE(answers(client));
    EXPECT_EQ(_process, ::getpid());
    EXPECT_EQ(_user, ::getuid());
    EXPECT_FALSE(BusListener::initWithSocketPath(_path)) << "someone listens here";
    const BusClient second(_path);
    ASSERT_TRUE(answers(second));
    endAll();
    EXPECT_FALSE(answers(client));
    EXPECT_FALSE(answers(second));
}

TEST_F(BusListenerTest, ClosesConnectionsThatTheDelegateRefusesAndThosePastAUsersShareUntilOneEnds) {
    UserAccount::setBounds(UserAccount::Slot::Connections, {2, 8});
    _refuses = true;
    start();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(isClosed(test::connectSocket(_path)));
    _refuses = false;  // The refused ones do not count.
    const BusClient first(_path);
    auto second = std::make_unique<BusClient>(_path);
    ASSERT_TRUE(answers(first));
    ASSERT_TRUE(answers(*second));
    EXPECT_TRUE(isClosed(test::connectSocket(_path)));
    EXPECT_TRUE(answers(first)) << "those that are served go on";
    second.reset();
    while (!answers(BusClient(_path))) continue;
    EXPECT_TRUE(answers(first));
}

TEST_F(BusListenerTest, OtherBusLibrariesTakeTheDeepestValueToo) {
    start();
    const auto nest = [this](const char* dictionaries) {
        return test::runProgram({"/usr/bin/gdbus", "call", "--address", "unix:path=" + _path, "--dest", "a.b",
                                 "--object-path", kQuorvaneObjectPath, "--method", "com.velmora.Test.Nest",
                                 dictionaries});
    };
    const test::ProgramResult deepest = nest("21");
    EXPECT_EQ(deepest.status, 0) << deepest.errors;
    EXPECT_THAT(nest("22").errors, testing::HasSubstr("Argument list too long"));
}

}  // namespace
}  // namespace quorvane::platform
