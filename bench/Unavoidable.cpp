#include "bench/Unavoidable.h"

#include "bench/BusMessage.h"
#include "bench/Die.h"
#include "bench/Load.h"
#include "platform/base/Owned.h"
#include "platform/formats/Json.h"
#include "platform/value/Bytes.h"

#include <openssl/evp.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <string>
#include <string_view>
#include <type_traits>

namespace quorvane::bench {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void write(const std::string& text, Writer& writer) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void write(const Value& value, Writer& writer) {
    value.visit([&writer](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string>)
            write(held, writer);
        else if constexpr (std::is_same_v<Held, bool>)
            writer.Bool(held);
        else if constexpr (std::is_same_v<Held, std::int64_t>)
            writer.Int64(held);
        else if constexpr (std::is_same_v<Held, std::uint64_t>)
            writer.Uint64(held);
        else if constexpr (std::is_same_v<Held, double>)
            writer.Double(held);
    });
}

void write(const Dictionary& record, Writer& writer) {
    writer.StartObject();
    for (const auto& [key, value] : record) {
        write(key, writer);
        write(value, writer);
    }
    writer.EndObject();
}

Array eventsOf(const Data& message) {
    const auto parsed = platform::parseJson(platform::textOf(message));
    const Array* events = parsed && parsed->dictionary() ? parsed->dictionary()->array("events") : nullptr;
    if (events == nullptr || events->empty()) die("posted message", "holds no events");
    return *events;
}

void compress(const Data& message, Data& out) {
    z_stream stream{};
    if (::deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) die("zlib", "no stream");
    out.resize(::deflateBound(&stream, message.size()));
    stream.next_in = const_cast<Bytef*>(message.data());
    stream.avail_in = static_cast<uInt>(message.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    if (::deflate(&stream, Z_FINISH) != Z_STREAM_END) die("zlib", "not all compressed");
    out.resize(stream.total_out);
    ::deflateEnd(&stream);
}

class Hasher {
  public:
    void hash(std::string_view text) {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
        if (EVP_DigestInit_ex2(_context.get(), _sha256.get(), nullptr) != 1 ||
            EVP_DigestUpdate(_context.get(), text.data(), text.size()) != 1 ||
            EVP_DigestFinal_ex(_context.get(), digest.data(), nullptr) != 1)
            die("SHA-256", "failed");
    }

  private:
    const platform::Owned<EVP_MD_CTX, EVP_MD_CTX_free> _context{EVP_MD_CTX_new()};
    const platform::Owned<EVP_MD, EVP_MD_free> _sha256{EVP_MD_fetch(nullptr, "SHA256", nullptr)};
};

/// CPU time per event of a function that is called with batches, round and round, and tells how many events
/// it has worked on.
template <typename Batch, typename Function>
Nanoseconds perEvent(const std::vector<Batch>& batches, std::uint64_t events, const Function& function) {
    std::uint64_t done = 0;
    const CpuMeter cpu(::getpid());
    for (std::size_t at = 0; done < events; at = (at + 1) % batches.size()) done += function(batches[at], at);
    return cpu.used() / static_cast<double>(done);
}

Nanoseconds readingPerEvent(std::uint64_t events) {
    const Bus bus = makeBus();
    std::vector<BusMessage> calls;
    for (std::uint64_t number = 0; number < 500; ++number)
        calls.push_back(makeReadableCall(bus.get(), message(number)));
    return perEvent(calls, events, [](const BusMessage& call, std::size_t) {
        readAllValues(call.get());
        return 1;
    });
}

}  // namespace

UnavoidableWork measureUnavoidableWork(const std::vector<Data>& messages, std::uint64_t events) {
    std::vector<Array> batches;
    double bytes = 0;
    double records = 0;
    for (const Data& message : messages) {
        batches.push_back(eventsOf(message));
        bytes += static_cast<double>(message.size());
        records += static_cast<double>(batches.back().size());
    }

    UnavoidableWork work;
    work.jsonBytes = bytes / records;
    work.reading = readingPerEvent(events);
    rapidjson::StringBuffer buffer;
    work.json = perEvent(batches, events, [&](const Array& batch, std::size_t) {
        buffer.Clear();
        for (const Value& record : batch) {
            Writer writer(buffer);
            write(*record.dictionary(), writer);
        }
        return batch.size();
    });
    Data compressed;
    work.gzip = perEvent(messages, events, [&](const Data& message, std::size_t at) {
        compress(message, compressed);
        return batches[at].size();
    });
    Hasher hasher;
    std::array<std::string, 2> texts{"user123", "host42"};
    work.sha256 = perEvent(batches, events, [&](const Array& batch, std::size_t) {
        for (std::size_t each = 0; each < batch.size(); ++each)
            for (const std::string& text : texts) hasher.hash(text);
        return batch.size();
    });
    return work;
}

Data compressAlone(const Data& bytes) {
    Data compressed;
    compress(bytes, compressed);
    return compressed;
}

}  // namespace quorvane::bench
