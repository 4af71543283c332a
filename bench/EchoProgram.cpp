// quorvane-bench-echo SOCKET: a bare D-Bus server that answers every event with the answer the daemon gives
// to most of them, an empty one, and looks at nothing. What it costs is what no daemon on this wire can
// avoid.

#include "framework/Keys.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

int answer(sd_bus_message* call, void*, sd_bus_error*) {
    return ::sd_bus_reply_method_return(call, "as", 0);
}

int echo(sd_bus_message* call, void*, sd_bus_error*) {
    sd_bus_message* reply = nullptr;
    int result = ::sd_bus_message_new_method_return(call, &reply);
    if (result >= 0) result = ::sd_bus_message_copy(reply, call, 1);
    if (result >= 0) result = ::sd_bus_send(nullptr, reply, nullptr);
    ::sd_bus_message_unref(reply);
    return result < 0 ? result : 1;
}

constexpr sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SendMessageWithDictionary", "a{sv}", "as", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Echo", "a{sv}", "a{sv}", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto* named = reinterpret_cast<const sockaddr*>(&address);
    if (listener < 0 || ::bind(listener, named, sizeof address) < 0 || ::listen(listener, 16) < 0) return -1;
    return listener;
}

void serve(int socket) {
    sd_bus* bus = nullptr;
    sd_id128_t id;
    const bool opened =
        ::sd_id128_randomize(&id) >= 0 && ::sd_bus_new(&bus) >= 0 &&
        ::sd_bus_set_fd(bus, socket, socket) >= 0 && ::sd_bus_set_server(bus, 1, id) >= 0 &&
        ::sd_bus_negotiate_fds(bus, 1) >= 0 &&
        ::sd_bus_add_object_vtable(bus, nullptr, quorvane::kQuorvaneObjectPath,
                                   quorvane::kClientSessionInterface, kVtable, nullptr) >= 0 &&
        ::sd_bus_start(bus) >= 0;
    for (int result = opened ? 0 : -1; result >= 0;) {
        result = ::sd_bus_process(bus, nullptr);
        if (result == 0) result = ::sd_bus_wait(bus, UINT64_MAX);
    }
    ::sd_bus_close_unref(bus);
}

}  // namespace

int main(int argc, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int listener = argc == 2 ? listenAt(argv[1]) : -1;
    if (listener < 0) {
        std::perror("quorvane-bench-echo");
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket >= 0) std::thread(serve, socket).detach();
    }
}
