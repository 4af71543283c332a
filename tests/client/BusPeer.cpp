#include "tests/client/BusPeer.h"

#include "framework/Keys.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-id128.h>

#include <cstdlib>
#include <future>
#include <utility>

namespace quorvane::test {

/// How long the peer's thread waits before it looks at what it was told, in milliseconds.
constexpr int kTurn = 5;

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
      _thread([this] { serve(); }) {}

BusPeer::~BusPeer() {
    _stops = true;
    _thread.join();
    std::filesystem::remove_all(_folder);
}

void BusPeer::run(const std::function<void(sd_bus*)>& function) {
    std::promise<void> done;
    {
        const std::lock_guard lock(_mutex);
        _functions.emplace_back([&](sd_bus* bus) {
            function(bus);
            done.set_value();
        });
    }
    done.get_future().wait();
}

void BusPeer::serve() {
    while (!_stops) {
        pollfd incoming{_listener.get(), POLLIN, 0};
        if (::poll(&incoming, 1, kTurn) == 1)
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
        const int processed = _paused ? 0 : ::sd_bus_process(bus, nullptr);
        if (processed < 0) break;
        if (processed > 0) continue;
        const int events = ::sd_bus_get_events(bus);
        pollfd waited{_paused ? -1 : descriptor, static_cast<short>(events), 0};
        ::poll(&waited, 1, kTurn);
    }
    ::sd_bus_close_unref(bus);
}

bool BusPeer::heed(sd_bus* bus) {
    if (_stops || _disconnects.exchange(false)) return false;
    std::vector<std::function<void(sd_bus*)>> functions;
    {
        const std::lock_guard lock(_mutex);
        functions.swap(_functions);
    }
    for (const auto& function : functions) function(bus);
    return true;
}

}  // namespace quorvane::test
