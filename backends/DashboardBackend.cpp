#include "backends/DashboardBackend.h"

#include "backends/EventRecord.h"
#include "platform/base/Log.h"
#include "platform/value/Bytes.h"
#include "platform/value/Text.h"
#include "util/Conversions.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane {

using platform::logError;
using platform::UniqueDescriptor;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kDefaultPeriod{500};
constexpr milliseconds kTimerLeeway{100};
/// Past so many datagrams on their way to the network queue, the caller waits.
constexpr std::size_t kHandedOverAtMost = 256;

constexpr std::size_t kIdentifierAt = 20;
constexpr std::size_t kIdentifierBytes = 40;
constexpr std::size_t kLengthAt = 14;
/// Room is left for the NUL that ends a text.
constexpr std::size_t kMaximumLogLine = 1152 - 1;
constexpr std::size_t kMaximumText = DashboardBackend::kDatagramBytes - DashboardBackend::kHeaderBytes - 1;

void put(Data& bytes, std::size_t at, std::uint16_t number) {
    bytes[at] = static_cast<std::uint8_t>(number >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(number);
}

void put(Data& bytes, std::size_t at, std::uint32_t number) {
    put(bytes, at, static_cast<std::uint16_t>(number >> 16));
    put(bytes, at + 2, static_cast<std::uint16_t>(number));
}

std::uint16_t complement(std::size_t number) {
    return static_cast<std::uint16_t>(~number);
}

std::uint16_t number16(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::uint32_t number32(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint32_t>(number16(bytes, at)) << 16 | number16(bytes, at + 2);
}

/// The text up to its first NUL, which ends a text in a datagram.
std::string_view untilZero(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

std::string_view textAt(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t count) {
    return untilZero(platform::textOf(bytes.subspan(at, count)));
}

struct Rendering {
    std::string_view key;
    std::string value;
};

/// The message's entries, those with the shortest values first.
std::vector<Rendering> renderings(const Dictionary& message) {
    std::vector<Rendering> result;
    result.reserve(message.size());
    for (const auto& [key, value] : message)
        result.push_back({key, DashboardBackend::descriptionForObject(value)});
    std::stable_sort(result.begin(), result.end(), [](const auto& a, const auto& b) {
        return platform::utf16Length(a.value) < platform::utf16Length(b.value);
    });
    return result;
}

/// Stops where the datagram is full.
std::string textOf(const Dictionary& message) {
    std::string text;
    for (const auto& [key, value] : renderings(message)) {
        text = fmt::format("{} {}={}", text, untilZero(key), untilZero(DashboardBackend::sanitize(value)));
        if (text.size() < kMaximumText) continue;
        text.resize(kMaximumText);
        break;
    }
    return text;
}

struct Collector {
    sockaddr_in address;
    std::optional<milliseconds> reliable;  ///< The periodic task's period, for reliable delivery.
};

/// The profile's collector, or without a profile the explicit one, which always gets reliable delivery.
std::optional<Collector> collectorOf(const Dictionary* profile,
                                     const QuorvaneBackend::OptionalString& serverIP,
                                     std::uint16_t serverPort) {
    if (profile == nullptr) {
        if (!serverIP) return std::nullopt;
        return Collector{ipv4SocketAddress(*serverIP, serverPort), kDefaultPeriod};
    }
    Collector collector{
        ipv4SocketAddress(*profile->string("ip"), static_cast<std::uint16_t>(profile->integer("port"))),
        std::nullopt};
    if (profile->contains("reliable")) collector.reliable = milliseconds(profile->integer("reliable"));
    return collector;
}

}  // namespace

bool DashboardBackend::namesCollector(const Dictionary& profile) {
    const Value* port = profile.find("port");
    if (profile.string("ip") == nullptr)
        logError("DashboardBackend(initWithName): can't resolve server IP");
    else if (port == nullptr || !port->isNumber())
        logError("DashboardBackend(initWithName): can't resolve server port");
    else
        return true;
    return false;
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const std::shared_ptr<const Dictionary>& profile,
    const OptionalString& productFamily) {
    const OptionalString serverIP = profile != nullptr ? profile->text("ip") : std::nullopt;
    const auto serverPort = static_cast<std::uint16_t>(profile != nullptr ? profile->integer("port") : 0);
    return initWithName(name, profile, serverIP, serverPort, productFamily);
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(const std::string& name,
                                                                 const std::string& serverIP,
                                                                 std::uint16_t serverPort,
                                                                 const OptionalString& productFamily) {
    if (serverPort == 0) return nullptr;
    return initWithName(name, nullptr, serverIP, serverPort, productFamily);
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const std::shared_ptr<const Dictionary>& profile, const OptionalString& serverIP,
    std::uint16_t serverPort, const OptionalString& productFamily) {
    if (profile != nullptr && !namesCollector(*profile)) return nullptr;
    UniqueDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        logError("DashboardBackend(initWithName): socket() failed ({})", errno);
        return nullptr;
    }
    const std::optional<Collector> collector = collectorOf(profile.get(), serverIP, serverPort);
    if (!collector) {
        logError("DashboardBackend(initWithName): initWitName with all null params.");
        return nullptr;
    }
    const auto queue = platform::SerialQueue::initWithLabel("com.velmora.Quorvane.networkProc");
    if (!queue) {
        logError("DashboardBackend(initWithName): can't create timer source.");
        return nullptr;
    }
    // Sources end on the queue, so the object does too, whoever lets go of it last.
    const std::shared_ptr<DashboardBackend> backend(
        new DashboardBackend(name, profile, productFamily, std::move(socket), *queue),
        [queue](DashboardBackend* last) { queue->post([last] { delete last; }); });
    bool started = false;
    queue->perform([&] { started = backend->start(collector->address, collector->reliable); });
    return started ? backend : nullptr;
}

DashboardBackend::DashboardBackend(const std::string& name, const std::shared_ptr<const Dictionary>& profile,
                                   const OptionalString& productFamily, UniqueDescriptor socket,
                                   platform::SerialQueue queue)
    : QuorvaneBackend(name, profile, productFamily),
      _socketDescriptor(std::move(socket)),
      _usingProfile(profile != nullptr),
      _networkProcQueue(queue) {
    if (profile == nullptr) return;
    setDisplayURL(profile->text("display_url"));
    _postURL = profile->text("post_url");
}

DashboardBackend::~DashboardBackend() {
    cleanupSources();
}

bool DashboardBackend::start(const sockaddr_in& address, std::optional<milliseconds> reliable) {
    if (reliable) useReliableUDP();
    if (::connect(_socketDescriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        logError("DashboardBackend(initWithName): socket connect() failed.");
        return false;
    }
    if (!startTimer(reliable.value_or(kDefaultPeriod))) {
        logError("DashboardBackend(initWithName): can't create timer source.");
        return false;
    }
    return true;
}

bool DashboardBackend::startTimer(milliseconds period) {
    _timer = _networkProcQueue.makeTimer(period, kTimerLeeway, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->myPeriodicTask();
    });
    if (_timer == nullptr) return false;
    _timer->setCancelHandler([this] {
        if (!_reliableUDP) _socketDescriptor.reset();
    });
    return true;
}

QuorvaneBackend::Answer DashboardBackend::sendMessage(const Dictionary* message, TimeValue timestamp,
                                                      std::uint16_t method, std::uint16_t respCode,
                                                      EventID eventID) {
    try {
        Data datagram = datagramWithoutLength(timestamp, method, respCode, eventID);
        const std::string text = message != nullptr ? textOf(*message) : "";
        datagram.insert(datagram.end(), text.begin(), text.end());
        put(datagram, kLengthAt, complement(datagram.size()));
        std::string line = writeLocalLog(datagram);
        ledger().accept(method, respCode);
        EventGroup event;
        ledger().handOver(event);
        handOver(std::move(datagram), eventID);
        return line;
    } catch (const std::bad_alloc&) {
        logError("DashboardBackend(sendMessage): can't malloc.");
        return std::nullopt;
    }
}

Data DashboardBackend::datagramWithoutLength(TimeValue timestamp, std::uint16_t method,
                                             std::uint16_t respCode, EventID eventID) const {
    Data datagram;
    datagram.reserve(kDatagramBytes);
    datagram.resize(kHeaderBytes);
    datagram[0] = selfVersionMajor();
    datagram[1] = static_cast<std::uint8_t>(compType());
    datagram[2] = 1;
    datagram[3] = static_cast<std::uint8_t>(timestamp.microseconds / 4000);
    put(datagram, 4, static_cast<std::uint32_t>(timestamp.seconds));
    put(datagram, 8, ~sessionID());
    put(datagram, 12, complement(clientVersion()));
    put(datagram, 16, method);
    put(datagram, 18, respCode);
    if (udid() != nullptr) std::memcpy(&datagram[kIdentifierAt], udid(), ::strnlen(udid(), kIdentifierBytes));
    put(datagram, 60, static_cast<std::uint16_t>(eventID));
    put(datagram, 62, static_cast<std::uint16_t>((_reliableUDP ? 1 : 0) | (_usingProfile ? 0 : 2)));
    return datagram;
}

void DashboardBackend::handOver(Data datagram, EventID eventID) {
    if (++_handedOver > kHandedOverAtMost) _networkProcQueue.perform([] {});
    _networkProcQueue.post([self = shared_from_this(), datagram = std::move(datagram), eventID]() mutable {
        --self->_handedOver;
        self->tryToSendMsg(std::move(datagram), static_cast<std::uint16_t>(eventID));
    });
}

std::string DashboardBackend::descriptionForObject(const Value& value) {
    return value.string() != nullptr || value.isNumber() ? value.description() : "null";
}

std::string DashboardBackend::sanitize(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') continue;
        if (c == '\\' || c == '=') result += '\\';
        result += c;
    }
    return result.empty() ? "empty" : result;
}

std::string DashboardBackend::writeLocalLog(std::span<const std::uint8_t> datagram) {
    const auto complemented16 = [&](std::size_t at) { return complement(number16(datagram, at)); };
    // Keys and identifier stand in the datagram as they came; a line of a log takes no control character.
    std::string line = platform::escapedControls(
        fmt::format("{}.{:03} {} 127.0.0.1 {} {:5} {:5} {:5} {:5} {:5} {}", number32(datagram, 4),
                    datagram[3] * 4, textAt(datagram, kIdentifierAt, kIdentifierBytes),
                    senderCode(datagram[1]), complemented16(12), ~number32(datagram, 8),
                    number16(datagram, 60), number16(datagram, 16), number16(datagram, 18),
                    textAt(datagram, kHeaderBytes, datagram.size() - kHeaderBytes)),
        "");
    if (line.size() > kMaximumLogLine) line.resize(kMaximumLogLine);
    return line;
}

}  // namespace quorvane
