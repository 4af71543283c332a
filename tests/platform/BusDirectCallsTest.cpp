#include "platform/bus/BusBody.h"
#include "platform/bus/BusHeader.h"
#include "platform/bus/BusValue.h"
#include "platform/value/Bytes.h"
#include "tests/platform/BusFixture.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <string_view>
#include <utility>

namespace quorvane::platform {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr const char* kInterface = "com.velmora.Dictionaries";
constexpr char kUnanswered = 1;

/// Writes values as they lie on the wire.
class Wire {
  public:
    explicit Wire(bool foreign = false) : _foreign(foreign) {}

    template <typename Number>
    Wire& number(Number number) {
        align(sizeof number);
        char raw[sizeof number];
        std::memcpy(raw, &number, sizeof number);
        if (_foreign) std::reverse(raw, raw + sizeof number);
        bytes.append(raw, sizeof number);
        return *this;
    }

    Wire& text(std::string_view text) {
        number(static_cast<std::uint32_t>(text.size())).bytes.append(text) += '\0';
        return *this;
    }

    Wire& signature(std::string_view types) {
        (bytes += static_cast<char>(types.size())).append(types) += '\0';
        return *this;
    }

    Wire& entry(std::string_view key, std::string_view type) { return align(8).text(key).signature(type); }

    Wire& array(const std::function<void()>& elements) {
        const std::size_t sizeAt = number(std::uint32_t{0}).bytes.size() - 4;
        const std::size_t start = align(8).bytes.size();
        elements();
        Wire size(_foreign);
        size.number(static_cast<std::uint32_t>(bytes.size() - start));
        bytes.replace(sizeAt, 4, size.bytes);
        return *this;
    }

    Wire& align(std::size_t to) {
        bytes.resize((bytes.size() + to - 1) / to * to);
        return *this;
    }

    std::string bytes;

  private:
    bool _foreign;
};

struct Call {
    std::uint32_t serial = 1;
    char flags = kUnanswered;
    bool foreign = false;
    std::string_view sender = {};
};

/// A call of Take whose dictionary has its serial number under "n", and the further entries.
std::string callOf(
    const Call& call, const std::function<void(Wire&)>& entries = [](Wire&) {}) {
    Wire body(call.foreign);
    body.array([&] {
        body.entry("n", "u").number(call.serial);
        entries(body);
    });
    Wire wire(call.foreign);
    wire.bytes = {call.foreign ? 'B' : 'l', SD_BUS_MESSAGE_METHOD_CALL, call.flags, 1};
    wire.number(static_cast<std::uint32_t>(body.bytes.size())).number(call.serial);
    wire.array([&] {
        const auto field = [&](char code, std::string_view type) -> Wire& {
            wire.align(8).bytes += code;
            return wire.signature(type);
        };
        field(1, "o").text(kQuorvaneObjectPath);
        field(3, "s").text("Take");
        field(8, "g").signature("a{sv}");
        field(2, "s").text(kInterface);
        if (!call.sender.empty()) field(7, "s").text(call.sender);
    });
    return wire.align(8).bytes + body.bytes;
}

void addEveryType(Wire& body) {
    body.entry("text", "s").text("gr\xc3\xbc\xc3\x9f\xef\xbf\xbd");
    body.entry("flag", "b").number(std::uint32_t{1});
    body.entry("byte", "y").number(std::uint8_t{200});
    body.entry("short", "n").number(std::int16_t{-3});
    body.entry("port", "q").number(std::uint16_t{65535});
    body.entry("int", "i").number(std::int32_t{-4});
    body.entry("least", "x").number(std::numeric_limits<std::int64_t>::min());
    body.entry("most", "t").number(std::numeric_limits<std::uint64_t>::max());
    body.entry("real", "d").number(0.5);
    body.entry("empty", "a{sv}").array([] {});
    body.entry("inner", "a{sv}").array([&] { body.entry("int", "i").number(std::int32_t{1}); });
    body.entry("int", "i").number(std::int32_t{6});
}

/// A connection that notes the dictionaries it is called with, in order.
class Recorder {
  public:
    enum class Way { Direct, Library };

    explicit Recorder(Way way = Way::Direct, std::size_t answerBytes = 0)
        : _answer(answerBytes, 'x'), _served([&](BusConnection& connection) {
              _connection = &connection;
              EXPECT_TRUE(connection.setExportedObject(kQuorvaneObjectPath, kInterface, vtable,
                                                       std::shared_ptr<void>(std::shared_ptr<void>(), this)));
              if (way == Way::Direct)
                  connection.setDictionaryHandler(
                      {kQuorvaneObjectPath, kInterface, "Take"},
                      [this](const BusCall& call, const Dictionary& read) {
                          ++_direct;
                          note(read.description());
                          if (!call.expectsReply || _connection->replyWithText(call, &_answer)) return;
                          answer(_connection->messageOf(call).get());
                      });
          }) {
        write("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"sv);
    }

    void write(std::string_view bytes) {
        EXPECT_EQ(::send(_served.client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    /// Takes what has come; false at the connection's end.
    bool receive() {
        std::array<char, 65536> bytes;
        const ssize_t size = ::recv(_served.client.get(), bytes.data(), bytes.size(), 0);
        if (size > 0) _received.append(bytes.data(), static_cast<std::size_t>(size));
        return size > 0;
    }

    /// Has all served that was written.
    const std::vector<std::string>& end() {
        ::shutdown(_served.client.get(), SHUT_WR);
        while (receive()) continue;
        _served.endings->wait();
        return _read;
    }

    /// How many answers have been received.
    std::size_t answers() const {
        std::span<const std::uint8_t> left = bytesOf(_received);
        left = left.subspan(std::min(left.size(), _received.find("\r\n", _received.find("OK ")) + 2));
        std::size_t count = 0;
        for (auto header = readBusHeader(left); header && header->messageBytes <= left.size(); ++count) {
            left = left.subspan(header->messageBytes);
            header = readBusHeader(left);
        }
        return count;
    }

    std::size_t direct() const { return _direct; }
    std::size_t calls() const { return _calls; }

  private:
    static int take(sd_bus_message* call, void* object, sd_bus_error*) {
        Dictionary read;
        const int result = readDictionary(call, read);
        auto* const self = static_cast<Recorder*>(object);
        self->note(result < 0 ? "refused" : read.description());
        if (::sd_bus_message_get_expect_reply(call) > 0) self->answer(call);
        return 1;
    }

    void answer(sd_bus_message* call) {
        _connection->noteQueuedBytes(_answer.size());
        ::sd_bus_reply_method_return(call, "as", 1, _answer.c_str());
    }

    void note(const std::string& read) {
        ++_calls;
        _read.push_back(read);
    }

    static constexpr sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Take", "a{sv}", "as", take, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    const std::string _answer;
    BusConnection* _connection = nullptr;
    std::vector<std::string> _read;
    std::size_t _direct = 0;
    std::atomic<std::size_t> _calls = 0;
    std::string _received;
    ServedConnection _served;  ///< Ends first.
};

TEST(BusDirectCalls, MixedCallsAreServedInTheirOrderWhereverTheirBytesAreCut) {
    const auto addArray = [](Wire& body) { body.entry("array", "as").number(std::uint32_t{0}); };
    const std::string calls[] = {callOf({.serial = 1}),
                                 callOf({.serial = 2, .flags = 0}),
                                 callOf({.serial = 3}, addArray),
                                 callOf({.serial = 4, .flags = 0}, addArray),
                                 callOf({.serial = 5}),
                                 callOf({.serial = 6, .foreign = true}),
                                 callOf({.serial = 7, .flags = 0}),
                                 callOf({.serial = 8})};
    const std::vector<std::string> inOrder{
        "{n = 1;}", "{n = 2;}", "{array = (); n = 3;}", "{array = (); n = 4;}", "{n = 5;}", "{n = 6;}",
        "{n = 7;}", "{n = 8;}"};
    std::string mixed;
    for (const std::string& call : calls) mixed += call;

    std::vector<std::string> expected;
    Recorder recorder;
    const auto write = [&](std::size_t cut) {
        recorder.write(std::string_view(mixed).substr(0, cut));
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        recorder.write(std::string_view(mixed).substr(cut));
        recorder.receive();
        expected.insert(expected.end(), inOrder.begin(), inOrder.end());
    };
    // A part of a header is looked at again only after a while, so each has a connection of its own.
    std::vector<std::pair<std::size_t, std::unique_ptr<Recorder>>> cutInHeader;
    std::size_t start = 0;
    for (const std::string& call : calls) {
        for (std::size_t at = BusHeader::kBytes; at < call.size(); ++at) write(start + at);
        for (std::size_t at = 1; at < BusHeader::kBytes; ++at) {
            cutInHeader.emplace_back(start + at, std::make_unique<Recorder>());
            cutInHeader.back().second->write(std::string_view(mixed).substr(0, start + at));
        }
        start += call.size();
    }
    for (const auto& [cut, own] : cutInHeader) {
        own->write(std::string_view(mixed).substr(cut));
        EXPECT_EQ(own->end(), inOrder);
        EXPECT_EQ(own->answers(), 3u);
    }

    // More than is looked at in one go.
    for (int times = 0; times < 50; ++times) recorder.write(mixed);
    for (int times = 0; times < 50; ++times) expected.insert(expected.end(), inOrder.begin(), inOrder.end());
    while (recorder.answers() * 8 < expected.size() * 3 && recorder.receive()) continue;
    EXPECT_EQ(recorder.end(), expected);
    EXPECT_EQ(recorder.answers() * 8, expected.size() * 3);
    EXPECT_GT(recorder.direct(), 100u);
}

TEST(BusDirectCalls, HostileBytesAreReadAsTheBusLibraryReadsThem) {
    std::mt19937 random(1);
    const auto below = [&](std::size_t bound) { return static_cast<std::size_t>(random() % bound); };
    const std::string call = callOf({}, addEveryType);
    const std::size_t body = call.size() - readBusCall(bytesOf(call))->body.size();
    const auto changed = [&] {
        constexpr std::string_view likely = "\0\0\1\2\5\x7f\xff\xef\xbf\xc3sbynqiuxtdaghov{}"sv;
        std::string bytes = call;
        for (std::size_t times = 1 + below(3); times > 0; --times)
            bytes[body + below(call.size() - body)] =
                below(4) > 0 ? likely[below(likely.size())] : static_cast<char>(random());
        return bytes;
    };
    constexpr std::size_t kCalls = 20'000;
    Recorder library(Recorder::Way::Library);
    std::vector<std::optional<Dictionary>> plain;
    for (std::size_t i = 0; i < kCalls; ++i) {
        const std::string bytes = changed();
        library.write(bytes);
        // Of its own memory, so that a sanitizer sees a byte read past the end.
        plain.push_back(readPlainDictionary(
            std::vector<std::uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(body), bytes.end())));
    }
    ASSERT_EQ(library.end().size(), kCalls);
    std::size_t read = 0;
    for (std::size_t i = 0; i < kCalls; ++i) {
        if (!plain[i]) continue;
        EXPECT_EQ(plain[i]->description(), library.end()[i]);
        ++read;
    }
    EXPECT_GT(read, kCalls / 10);

    // Of what comes before the body, much ends the connection.
    read = 0;
    const auto expectSame = [&](const std::string& bytes) {
        Recorder first, second(Recorder::Way::Library);
        first.write(bytes + callOf({}));
        second.write(bytes + callOf({}));
        ASSERT_EQ(first.end(), second.end()) << hexOf(bytesOf(bytes));
        ASSERT_EQ(first.answers(), second.answers()) << hexOf(bytesOf(bytes));
        read += first.direct();
    };
    for (std::size_t at = 0; at < body; ++at) {
        for (const char c : "\0\1\2\x06\xff/osgu"sv) {
            std::string bytes = call;
            bytes[at] = c;
            expectSame(bytes);
        }
    }
    expectSame(callOf({.sender = "no name"}));
    EXPECT_GT(read, body);
}

TEST(BusDirectCalls, AnswersThatAreNotReadBoundThem) {
    constexpr std::uint32_t kCalls = 400;
    std::string calls;
    for (std::uint32_t serial = 1; serial <= kCalls; ++serial)
        calls += callOf({.serial = serial, .flags = 0});
    // The smaller ones are written past the bus library until the socket is full.
    for (const auto& [bytes, most] : {std::pair{50'000u, 100u}, {12'000u, 200u}}) {
        Recorder recorder(Recorder::Way::Direct, bytes);
        recorder.write(calls);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_LT(recorder.calls(), most);
        while (recorder.answers() < kCalls && recorder.receive()) continue;
        EXPECT_EQ(recorder.answers(), kCalls);
        EXPECT_EQ(recorder.end().size(), kCalls);
        EXPECT_GT(recorder.direct(), 0u);
    }
}

TEST(BusDirectCalls, PlainDictionariesKeepTheirKindsAndNothingBehindTheirEndIsRead) {
    Wire body;
    body.array([&] { addEveryType(body); });
    EXPECT_EQ(readPlainDictionary(bytesOf(body.bytes)),
              (Dictionary{{"text", "gr\xc3\xbc\xc3\x9f\xef\xbf\xbd"},
                          {"flag", true},
                          {"byte", 200u},
                          {"short", -3},
                          {"port", 65535u},
                          {"least", std::numeric_limits<std::int64_t>::min()},
                          {"most", std::numeric_limits<std::uint64_t>::max()},
                          {"real", 0.5},
                          {"empty", Dictionary{}},
                          {"inner", Dictionary{{"int", 1}}},
                          {"int", 6}}));
    EXPECT_EQ(readPlainDictionary(bytesOf(body.bytes + "\0"s)), std::nullopt);
    for (std::size_t size = 0; size < body.bytes.size(); ++size) {
        const auto part = bytesOf(body.bytes).first(size);
        std::vector<std::uint8_t> cut(part.begin(), part.end());
        EXPECT_EQ(readPlainDictionary(cut), std::nullopt);
        const auto fitting = static_cast<std::uint32_t>(size - 8);
        if (size >= 8) std::memcpy(cut.data(), &fitting, sizeof fitting);
        readPlainDictionary(cut);
    }
    Wire deep;
    const std::function<void(int)> nest = [&](int levels) {
        deep.array([&] {
            deep.entry("k", "a{sv}");
            if (levels > 0) nest(levels - 1);
        });
    };
    nest(1000);
    EXPECT_EQ(readPlainDictionary(bytesOf(deep.bytes)), std::nullopt);
}

}  // namespace
}  // namespace quorvane::platform
