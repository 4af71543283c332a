#pragma once

#include "framework/Keys.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusConnection.h"
#include "platform/bus/BusValue.h"
#include "tests/support/BusClient.h"

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane::platform {

inline constexpr const char* kTestInterface = "com.velmora.Test";

/// So many dictionaries within each other, the value in the innermost.
inline Dictionary nestedDictionaries(std::uint32_t count, Value value) {
    Dictionary dictionary{{"k", std::move(value)}};
    while (--count > 0) dictionary = {{"k", std::move(dictionary)}};
    return dictionary;
}

/// What a test's connections export: an echo, an answer of a size and one of a depth to choose, a call that
/// sends a signal by its connection, and one that waits.
class TestObject {
  public:
    explicit TestObject(BusConnection& connection) : _connection(connection) {}

    static void exportOn(BusConnection& connection, const std::shared_ptr<TestObject>& object) {
        EXPECT_TRUE(connection.setExportedObject(kQuorvaneObjectPath, kTestInterface, vtable, object));
    }

    std::size_t calls() const { return _calls; }
    /// Lets Wait return.
    void release() { _released.set_value(); }

  private:
    static TestObject& called(void* object) {
        auto& self = *static_cast<TestObject*>(object);
        ++self._calls;
        return self;
    }

    static int echo(sd_bus_message* call, void* object, sd_bus_error*) {
        called(object);
        std::uint32_t number = 0;
        ::sd_bus_message_read(call, "u", &number);
        return ::sd_bus_reply_method_return(call, "u", number);
    }

    static int answer(sd_bus_message* call, void* object, sd_bus_error*) {
        std::uint32_t size = 0;
        ::sd_bus_message_read(call, "u", &size);
        called(object)._connection.noteQueuedBytes(size);
        return ::sd_bus_reply_method_return(call, "s", std::string(size, 'x').c_str());
    }

    static int note(sd_bus_message* call, void* object, sd_bus_error*) {
        EXPECT_TRUE(called(object)._connection.queueCall(
            100, [](sd_bus* bus) { ::sd_bus_emit_signal(bus, "/", kTestInterface, "Noted", ""); }));
        return ::sd_bus_reply_method_return(call, nullptr);
    }

    static int nest(sd_bus_message* call, void*, sd_bus_error*) {
        std::uint32_t dictionaries = 0;
        ::sd_bus_message_read(call, "u", &dictionaries);
        sd_bus_message* raw = nullptr;
        ::sd_bus_message_new_method_return(call, &raw);
        const test::Message answer(raw);
        const Dictionary nested = nestedDictionaries(dictionaries, 1);
        const int result = appendOptionalDictionary(raw, &nested);
        return result < 0 ? result : ::sd_bus_send(nullptr, raw, nullptr);
    }

    static int wait(sd_bus_message* call, void* object, sd_bus_error*) {
        called(object)._released.get_future().wait();
        return ::sd_bus_reply_method_return(call, nullptr);
    }

    static constexpr sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Echo", "u", "u", echo, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Answer", "u", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Note", "", "", note, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Nest", "u", "aa{sv}", nest, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Wait", "", "", wait, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    BusConnection& _connection;
    std::atomic<std::size_t> _calls = 0;
    std::promise<void> _released;
};

/// How a connection's end is told, in order.
class Endings {
  public:
    void add(const std::string& what) {
        const std::scoped_lock lock(_mutex);
        _told.push_back(what);
        _changed.notify_all();
    }

    /// Waits until the connection has ended altogether.
    std::vector<std::string> wait() {
        std::unique_lock lock(_mutex);
        _changed.wait_for(lock, std::chrono::seconds(30),
                          [&] { return !_told.empty() && _told.back() == "ended"; });
        return _told;
    }

  private:
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::string> _told;
};

/// A connection that is served, and the socket of its client.
struct ServedConnection {
    std::shared_ptr<Endings> endings = std::make_shared<Endings>();
    std::shared_ptr<BusConnection> connection = {};
    std::shared_ptr<TestObject> object = {};
    UniqueDescriptor client = {};

    ServedConnection() : ServedConnection([](BusConnection&) {}) {}

    /// Set up before it is resumed.
    explicit ServedConnection(const std::function<void(BusConnection&)>& setUp) {
        std::array<int, 2> ends{};
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        client.reset(ends[0]);
        connection = BusConnection::initWithDescriptor(UniqueDescriptor(ends[1]), {.pid = 1, .uid = 2});
        object = std::make_shared<TestObject>(*connection);
        TestObject::exportOn(*connection, object);
        setUp(*connection);
        connection->setInterruptionHandler([told = endings] { told->add("interrupted"); });
        connection->setInvalidationHandler([told = endings] { told->add("invalidated"); });
        EXPECT_TRUE(connection->resume([told = endings] { told->add("ended"); }));
    }

    ~ServedConnection() {
        connection->invalidate();
        endings->wait();
    }
    ServedConnection(const ServedConnection&) = delete;
    ServedConnection& operator=(const ServedConnection&) = delete;
};

}  // namespace quorvane::platform
