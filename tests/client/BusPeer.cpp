#include "tests/client/BusPeer.h"

#include "framework/Keys.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-id128.h>

#include <cstdlib>
#include <future>
#include <utility>

namespace quorvane::test {

std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "quorvane-client-XXXXXX").string();
    return ::mkdtemp(name.data());
}

platform::UniqueDescriptor listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    platform::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::listen(socket.get(), 16);
    return socket;
}

BusPeer::BusPeer(Handler handler)
    : _folder(makeFolder()),
      _path((_folder / "socket").string()),
      _handler(std::move(handler)),
      _listener(listenAt(_path)),
      _wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _thread([this] { serve(); }) {}

BusPeer::~BusPeer() {
    change([this] { _stops = true; });
    _thread.join();
    std::filesystem::remove_all(_folder);
}

void BusPeer::change(const std::function<void()>& change) {
    const std::lock_guard lock(_mutex);
    change();
    ::eventfd_write(_wake.get(), 1);
}

void BusPeer::run(const std::function<void(sd_bus*)>& function) {
    std::promise<void> done;
    change([&] {
        _functions.emplace_back([&](sd_bus* bus) {
            function(bus);
            done.set_value();
        });
    });
    done.get_future().wait();
}

void BusPeer::setPaused(bool paused) {
    change([this, paused] { _paused = paused; });
}

void BusPeer::disconnect() {
    change([this] { _disconnects = true; });
}

bool BusPeer::paused() {
    const std::lock_guard lock(_mutex);
    return _paused;
}

void BusPeer::serve() {
    for (;;) {
        pollfd descriptors[] = {{_listener.get(), POLLIN, 0}, {_wake.get(), POLLIN, 0}};
        ::poll(descriptors, 2, -1);
        {
            const std::lock_guard lock(_mutex);
            if (_stops) return;
        }
        eventfd_t count = 0;
        ::eventfd_read(_wake.get(), &count);
        if ((descriptors[0].revents & POLLIN) != 0)
            serveConnection(platform::UniqueDescriptor(
                ::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
    }
}

void BusPeer::serveConnection(platform::UniqueDescriptor socket) {
    const int descriptor = socket.release();
    sd_bus* bus = nullptr;
    sd_id128_t id;
    ::sd_id128_randomize(&id);
    ::sd_bus_new(&bus);
    ::sd_bus_set_fd(bus, descriptor, descriptor);
    ::sd_bus_set_server(bus, 1, id);
    ::sd_bus_negotiate_fds(bus, 1);
    const auto take = [](sd_bus_message* message, void* self, sd_bus_error*) {
        return static_cast<BusPeer*>(self)->_handler(message);
    };
    ::sd_bus_add_object(bus, nullptr, kQuorvaneObjectPath, take, this);
    ::sd_bus_start(bus);
    while (heed(bus)) {
        const bool idle = paused();
        const int processed = idle ? 0 : ::sd_bus_process(bus, nullptr);
        if (processed < 0) break;
        if (processed > 0) continue;
        const int events = ::sd_bus_get_events(bus);
        pollfd descriptors[] = {{idle ? -1 : descriptor, static_cast<short>(events), 0},
                                {_wake.get(), POLLIN, 0}};
        ::poll(descriptors, 2, -1);
        eventfd_t count = 0;
        ::eventfd_read(_wake.get(), &count);
    }
    ::sd_bus_close_unref(bus);
}

bool BusPeer::heed(sd_bus* bus) {
    std::vector<std::function<void(sd_bus*)>> functions;
    {
        const std::lock_guard lock(_mutex);
        if (_stops) ::eventfd_write(_wake.get(), 1);
        if (_stops || std::exchange(_disconnects, false)) return false;
        functions.swap(_functions);
    }
    for (const auto& function : functions) function(bus);
    return true;
}

}  // namespace quorvane::test
