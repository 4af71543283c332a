#include "backends/DashboardBackend.h"
#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Load.h"
#include "bench/ProcessFigures.h"
#include "bench/Report.h"
#include "platform/base/UniqueDescriptor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <semaphore>
#include <thread>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Sent and not acknowledged yet; the backend gives up the oldest past 50.
constexpr std::ptrdiff_t kWindow = 32;

/// A collector on 127.0.0.1 that sends every datagram back, or just counts it.
class UdpCollector {
  public:
    explicit UdpCollector(bool acknowledges) : _acknowledges(acknowledges) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        _socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        // Room for what comes while this thread does not run.
        constexpr int room = 4 << 20;
        ::setsockopt(_socket.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        if (::bind(_socket.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            ::getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
            die("UDP collector", "no socket");
        _address = address;
        _thread = std::thread([this] { run(); });
    }

    ~UdpCollector() {
        ::shutdown(_socket.get(), SHUT_RDWR);
        _thread.join();
    }

    std::uint16_t port() const { return ntohs(_address.sin_port); }
    std::uint64_t received() const { return _received; }
    const Data& firstDatagram() const { return _first; }

    /// Waits until another datagram may be on its way.
    void awaitRoom() { _room.acquire(); }

    /// CPU time of the collector's own thread.
    Nanoseconds cpuTime() {
        clockid_t clock;
        timespec time{};
        ::pthread_getcpuclockid(_thread.native_handle(), &clock);
        ::clock_gettime(clock, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    platform::UniqueDescriptor connectedSocket() const {
        platform::UniqueDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&_address), sizeof _address) != 0)
            die("UDP sender", "not connected");
        return socket;
    }

  private:
    void run() {
        std::array<std::uint8_t, 2048> bytes;
        sockaddr_in sender{};
        for (;;) {
            socklen_t size = sizeof sender;
            const ssize_t count = ::recvfrom(_socket.get(), bytes.data(), bytes.size(), 0,
                                             reinterpret_cast<sockaddr*>(&sender), &size);
            if (count <= 0) return;
            if (_received++ == 0) _first.assign(bytes.begin(), bytes.begin() + count);
            if (_acknowledges)
                ::sendto(_socket.get(), bytes.data(), static_cast<std::size_t>(count), 0,
                         reinterpret_cast<const sockaddr*>(&sender), size);
            _room.release();
        }
    }

    const bool _acknowledges;
    platform::UniqueDescriptor _socket;
    sockaddr_in _address{};
    std::atomic<std::uint64_t> _received{0};
    Data _first;  ///< Written before anything is counted.
    std::counting_semaphore<> _room{kWindow};
    std::thread _thread;
};

struct Cost {
    double perSecond = 0;
    Nanoseconds cpu{};  ///< Of one datagram, without the collector's.
    std::uint64_t arrived = 0;
};

template <typename Function>
Cost costOf(UdpCollector& collector, std::uint64_t count, const Function& sendAll) {
    const std::uint64_t before = collector.received();
    const auto start = std::chrono::steady_clock::now();
    const Nanoseconds collecting = collector.cpuTime();
    const CpuMeter cpu(::getpid());
    sendAll();
    const Nanoseconds used = cpu.used() - (collector.cpuTime() - collecting);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const auto amount = static_cast<double>(count);
    return {amount / took.count(), used / amount, collector.received() - before};
}

Cost backendCost(UdpCollector& collector, bool reliable, std::uint64_t count) {
    auto profile = std::make_shared<Dictionary>();
    profile->set("ip", "127.0.0.1");
    profile->set("port", collector.port());
    if (reliable) profile->set("reliable", 500);
    const auto backend = DashboardBackend::initWithName("dashboard", std::move(profile), "Reception desk");
    if (backend == nullptr) die("dashboard backend", "not made");
    backend->setUdid("00008110-001a2b3c4d5e6f70");
    std::vector<Dictionary> payloads;
    for (std::uint64_t number = 0; number < 256; ++number) payloads.push_back(payload(number));

    const Cost cost = costOf(collector, count, [&] {
        for (std::uint64_t number = 0; number < count; ++number) {
            if (reliable) collector.awaitRoom();
            backend->sendMessage(&payloads[number % payloads.size()], {1'760'000'000, 0}, kCategory, kType,
                                 EventID{static_cast<std::uint16_t>(number)});
        }
        backend->networkProcQueue().perform([] {});
    });
    backend->cleanup();
    return cost;
}

/// The same bytes with nothing but send(2), and recv(2) of what comes back.
Cost bareCost(UdpCollector& collector, bool reliable, std::uint64_t count, const Data& datagram) {
    const platform::UniqueDescriptor socket = collector.connectedSocket();
    std::array<std::uint8_t, 2048> answer;
    return costOf(collector, count, [&] {
        std::uint64_t answered = 0;
        const auto awaitAnswer = [&] {
            if (::recv(socket.get(), answer.data(), answer.size(), 0) > 0) ++answered;
        };
        for (std::uint64_t number = 0; number < count; ++number) {
            if (reliable && number - answered >= kWindow) awaitAnswer();
            if (::send(socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0)
                die("UDP sender", "send failed");
        }
        while (reliable && answered < count) awaitAnswer();
    });
}

void measureDelivery(const char* title, bool reliable, std::uint64_t count) {
    heading(fmt::format("{} dashboard datagrams, {}", count, title));
    UdpCollector collector(reliable);
    const Cost backend = backendCost(collector, reliable, count);
    UdpCollector bareCollector(reliable);
    const Cost bare = bareCost(bareCollector, reliable, count, collector.firstDatagram());
    const auto costRow = [](const char* name, const Cost& cost) {
        row(name, "{:.0f} a second, {:.2f} us CPU each, {} arrived", cost.perSecond, inMicroseconds(cost.cpu),
            cost.arrived);
    };
    costRow("backend", backend);
    costRow(fmt::format("bare socket, {} bytes", collector.firstDatagram().size()).c_str(), bare);
    row("CPU, backend / bare", "{:.2f}", backend.cpu / bare.cpu);
}

}  // namespace

void measureDatagrams(const Options& options) {
    measureDelivery("plain", false, options.datagrams);
    measureDelivery("reliable, each acknowledged", true, options.datagrams);
}

}  // namespace quorvane::bench
