#pragma once

#include "backends/QuorvaneBackend.h"
#include "backends/UDPPacketToSend.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/loop/SerialQueue.h"

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane {

/// Sends each event as one UDP datagram to a collector: 64 bytes of header, multi-byte fields big-endian,
/// then " key=value" texts.
///
///   0      the daemon's major version       12-13  client version, complemented
///   1      client type, low 8 bits          14-15  length of the datagram, complemented
///   2      1                                16-17  method
///   3      the time's units of 4 ms         18-19  response code
///   4-7    the time's seconds since 1970    20-59  device identifier, zero-padded
///   8-11   session ID, complemented         60-61  event ID
///                                           62-63  bit 0: reliable delivery, bit 1: explicit address
///
/// Delivery is plain, or reliable: a datagram is then kept until the collector sends back one with the same
/// event ID in bytes 60-61, and sent up to four times more.
///
/// Sockets, sources and waiting datagrams belong to the network queue, and so does the object's end. A
/// backend that has datagrams left at its clean-up lives on until they are gone or given up.
class DashboardBackend final : public QuorvaneBackend, public std::enable_shared_from_this<DashboardBackend> {
  public:
    static constexpr std::size_t kHeaderBytes = 64;
    /// Room for the text and a terminating zero, so a text has at most one byte less.
    static constexpr std::size_t kTextBytes = 1024;
    static constexpr std::size_t kDatagramBytes = kHeaderBytes + kTextBytes;
    /// One datagram more pushes the oldest out.
    static constexpr std::size_t kWaitingDatagrams = 50;

    /// Reads "ip" (dotted IPv4) and "port" from the profile, and "reliable": when it is there, delivery is
    /// reliable and it is the period of the periodic task in milliseconds, 500 without it; at least 1 counts.
    /// Null, and an error line, when the profile does not name a collector or the system refuses.
    static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                          const std::shared_ptr<const Dictionary>& profile,
                                                          const OptionalString& productFamily);
    /// As above with a profile. Without one, an explicit address with reliable delivery.
    static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                          const std::shared_ptr<const Dictionary>& profile,
                                                          const OptionalString& serverIP,
                                                          std::uint16_t serverPort,
                                                          const OptionalString& productFamily);
    /// Null for port 0.
    static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                          const std::string& serverIP,
                                                          std::uint16_t serverPort,
                                                          const OptionalString& productFamily);
    /// Whether the profile names a collector; else null is made, with the same error line.
    static bool namesCollector(const Dictionary& profile);
    ~DashboardBackend() override;

    /// Sends one datagram; the answer is its line for the local log. Sessions do not call this form: their
    /// events end in the base's. A caller that outruns the network queue waits for it.
    Answer sendMessage(const Dictionary* message, TimeValue timestamp, std::uint16_t method,
                       std::uint16_t respCode, EventID eventID);
    using QuorvaneBackend::sendMessage;

    /// Posts the array as a keyed archive to the profile's "post_url" and waits for the answer, which tells
    /// where it was put. False, and an error line, without an URL, for what no archive can hold, and when no
    /// answer comes.
    bool uploadLogData(const Array& logData) override;

    /// Asks for the orderly end: at once when no datagram waits, else when they are gone, at the latest 9.5 s
    /// after the next tick.
    void cleanup() override;

    /// A text or a number as it prints, "null" for anything else.
    static std::string descriptionForObject(const Value& value);
    /// The text without line feeds, backslash and "=" escaped by a backslash; "empty" for an empty one.
    static std::string sanitize(std::string_view text);
    /// A datagram as one line for the local log.
    static std::string writeLocalLog(std::span<const std::uint8_t> datagram);

    const platform::SerialQueue& networkProcQueue() const { return _networkProcQueue; }

    // The following belong to the network queue's work: ReliableUDP.cpp.
    void useReliableUDP();
    void tryToSendMsg(Data message, std::uint16_t eventNumber);
    void processSocketRead();
    /// The timer's tick.
    void myPeriodicTask();
    /// Cancels timer and read source, which closes the socket. Does nothing when they are cancelled.
    void cleanupSources();
    const std::deque<UDPPacketToSend>& messageQueue() const { return _messageQueue; }
    /// How many datagrams left the queue neither delivered nor acknowledged.
    std::uint64_t givenUp() const { return _givenUp; }
    int socketDescriptor() const { return _socketDescriptor.get(); }

  private:
    enum class CleanupState : std::int32_t { Running = 0, Asked = 1, LastResortScheduled = 2 };

    DashboardBackend(const std::string& name, const std::shared_ptr<const Dictionary>& profile,
                     const OptionalString& productFamily, platform::UniqueDescriptor socket,
                     platform::SerialQueue queue);
    bool start(const sockaddr_in& address, std::optional<std::chrono::milliseconds> reliable);
    bool startTimer(std::chrono::milliseconds period);
    Data datagramWithoutLength(TimeValue timestamp, std::uint16_t method, std::uint16_t respCode,
                               EventID eventID) const;
    void handOver(Data datagram, EventID eventID);
    bool send(const Data& datagram) const;
    void sendUploadLocation(const OptionalString& location);
    void giveUp();
    bool isStillWaiting(UDPPacketToSend& packet);
    bool retransmit(UDPPacketToSend& packet);
    void advanceCleanup();

    platform::UniqueDescriptor _socketDescriptor;
    std::deque<UDPPacketToSend> _messageQueue;
    std::uint64_t _givenUp = 0;
    bool _reliableUDP = false;   ///< Settled before anybody else knows the backend.
    bool _usingProfile = false;  ///< As above.
    const platform::SerialQueue _networkProcQueue;
    std::unique_ptr<platform::EventSource> _readSource;
    std::unique_ptr<platform::EventSource> _timer;
    CleanupState _cleanupState = CleanupState::Running;
    OptionalString _postURL;
    std::atomic<std::size_t> _handedOver{0};       ///< Datagrams that the network queue has not taken yet.
    std::shared_ptr<DashboardBackend> _keptAlive;  ///< Itself, from a clean-up with datagrams to its end.
};

}  // namespace quorvane
