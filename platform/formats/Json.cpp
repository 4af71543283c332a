#include "platform/formats/Json.h"

#include "platform/formats/ValueBuilder.h"
#include "platform/value/Text.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>
#include <type_traits>
#include <utility>

namespace quorvane::platform {

namespace {

/// Not 0 if one of the word's eight characters cannot stand in a JSON text as it is (RFC 8259, section 7) or
/// is not ASCII: the highest bit of its byte is set.
std::uint64_t specialIn(std::uint64_t word) {
    constexpr std::uint64_t each = 0x0101'0101'0101'0101;
    const auto zeroBytes = [](std::uint64_t bytes) { return (bytes - each) & ~bytes; };
    return (word | (word - each * 0x20) | zeroBytes(word ^ (each * '"')) | zeroBytes(word ^ (each * '\\'))) &
           (each * 0x80);
}

/// Copies the text and tells whether it is ASCII that JSON takes as it stands, both in one pass, word by
/// word; the last word overlaps the one before it.
bool copyPlain(std::string_view text, void* to) {
    auto* out = static_cast<char*>(to);
    const char* in = text.data();
    std::uint64_t word = 0;
    if (text.size() < sizeof word) {
        word = 0x0101'0101'0101'0101 * ' ';
        for (std::size_t at = 0; at < text.size(); ++at) {
            out[at] = in[at];
            word = word << 8 | static_cast<unsigned char>(in[at]);
        }
        return specialIn(word) == 0;
    }
    std::uint64_t found = 0;
    const auto copyWord = [&](std::size_t at) {
        std::memcpy(&word, in + at, sizeof word);
        std::memcpy(out + at, &word, sizeof word);
        found |= specialIn(word);
    };
    const std::size_t last = text.size() - sizeof word;
    for (std::size_t at = 0; at < last; at += sizeof word) copyWord(at);
    copyWord(last);
    return found == 0;
}

/// RapidJSON's output stream onto the end of a byte buffer, which then is the result itself.
template <typename Buffer>
class BufferStream {
  public:
    using Ch = char;

    explicit BufferStream(Buffer& buffer) : _buffer(buffer) { _buffer.resize(512); }

    void Put(char c) {
        reserve(1);
        putUnsafe(c);
    }
    void Flush() {}
    /// Puts the text out in quotes, if it is one that JSON takes as it stands.
    bool putPlain(std::string_view text) {
        reserve(text.size() + 2);
        auto* out = _buffer.data() + _size;
        if (!copyPlain(text, out + 1)) return false;
        out[0] = out[text.size() + 1] = '"';
        _size += text.size() + 2;
        return true;
    }

    void finish() {
        _buffer.resize(_size);
        // A text is given room for the case that all of it needs escaping.
        if (_buffer.capacity() > 4 * _size + 4096) _buffer.shrink_to_fit();
    }

    friend void PutReserve(BufferStream& stream, std::size_t count) { stream.reserve(count); }
    friend void PutUnsafe(BufferStream& stream, char c) { stream.putUnsafe(c); }

  private:
    void reserve(std::size_t count) {
        if (_buffer.size() - _size < count) _buffer.resize(std::max(2 * _buffer.size(), _size + count));
    }
    void putUnsafe(char c) { _buffer[_size++] = static_cast<typename Buffer::value_type>(c); }

    Buffer& _buffer;
    std::size_t _size = 0;
};

/// RapidJSON 1.1's pretty writer cannot be told to check the encoding.
bool isJsonText(std::string_view text) {
    return isUtf8(text) && text.size() <= std::numeric_limits<rapidjson::SizeType>::max();
}

/// Writes a plain text in one piece; RapidJSON would write it character by character.
template <typename Stream, typename Pool>
class CompactWriter : public rapidjson::Writer<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool> {
  public:
    using Base = rapidjson::Writer<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool>;
    using Base::Base;

    bool text(std::string_view text) {
        Base::Prefix(rapidjson::kStringType);
        return Base::os_->putPlain(text) ||
               (isJsonText(text) &&
                Base::WriteString(text.data(), static_cast<rapidjson::SizeType>(text.size())));
    }
};

template <typename Stream, typename Pool>
using PrettyWriter = rapidjson::PrettyWriter<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool>;

template <typename Writer>
bool write(const Value& value, Writer& writer);

template <typename Writer>
bool write(const std::string& text, Writer& writer) {
    if constexpr (requires { writer.text(text); })
        return writer.text(text);
    else
        return isJsonText(text) && writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

template <typename Writer>
bool write(const Array& array, Writer& writer) {
    return writer.StartArray() &&
           std::all_of(array.begin(), array.end(),
                       [&](const Value& element) { return write(element, writer); }) &&
           writer.EndArray();
}

template <typename Writer>
bool write(const Dictionary& dictionary, Writer& writer) {
    return writer.StartObject() &&
           std::all_of(dictionary.begin(), dictionary.end(),
                       [&](const Dictionary::Entry& entry) {
                           return write(entry.key, writer) && write(entry.value, writer);
                       }) &&
           writer.EndObject();
}

template <typename Writer>
bool write(const Value& value, Writer& writer) {
    return value.visit([&writer](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, bool>)
            return writer.Bool(held);
        else if constexpr (std::is_same_v<Held, std::int64_t>)
            return writer.Int64(held);
        else if constexpr (std::is_same_v<Held, std::uint64_t>)
            return writer.Uint64(held);
        else if constexpr (std::is_same_v<Held, double>)
            return writer.Double(held);
        else if constexpr (std::is_same_v<Held, Date> || std::is_same_v<Held, Data>)
            return false;
        else
            return write(held, writer);
    });
}

template <template <typename, typename> class Writer, typename Buffer>
std::optional<Buffer> serialised(const Value& value) {
    using Pool = rapidjson::MemoryPoolAllocator<>;
    using Stream = BufferStream<Buffer>;
    // Room for the usual number of levels, so that the writer allocates none.
    constexpr std::size_t usualDepth = 32;
    alignas(std::max_align_t) char levels[1024];
    Pool pool(levels, sizeof levels);
    Buffer buffer;
    Stream stream(buffer);
    Writer<Stream, Pool> writer(stream, &pool, usualDepth);
    if constexpr (requires { writer.SetIndent(' ', 2); }) writer.SetIndent(' ', 2);
    if (!write(value, writer)) return std::nullopt;
    stream.finish();
    return buffer;
}

/// Builds the value from RapidJSON's events; false from an event ends the parse.
class JsonEvents {
  public:
    bool Null() { return false; }
    bool Bool(bool flag) { return _builder.add(Value(flag)); }
    bool Int(int) { return false; }  // Numbers come as RawNumber.
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }
    bool RawNumber(const char* text, rapidjson::SizeType size, bool) {
        return addNumber<std::int64_t>(text, size) || addNumber<std::uint64_t>(text, size) ||
               addNumber<double>(text, size);
    }
    bool String(const char* text, rapidjson::SizeType size, bool) {
        return _builder.add(Value(std::string_view(text, size)));
    }
    bool Key(const char* text, rapidjson::SizeType size, bool) {
        return _builder.setKey(std::string(text, size));
    }
    bool StartArray() { return _builder.openArray(); }
    bool StartObject() { return _builder.openDictionary(); }
    bool EndArray(rapidjson::SizeType) { return _builder.close(); }
    bool EndObject(rapidjson::SizeType) { return _builder.close(); }

    std::optional<Value> take() { return _builder.take(); }

  private:
    /// RapidJSON has checked the form; false when the type cannot hold the number.
    template <typename Number>
    bool addNumber(const char* text, std::size_t size) {
        Number number{};
        const auto [end, error] = std::from_chars(text, text + size, number);
        return error == std::errc() && end == text + size && _builder.add(Value(number));
    }

    ValueBuilder _builder;
};

}  // namespace

std::optional<Data> compactJson(const Value& value) {
    return serialised<CompactWriter, Data>(value);
}

std::optional<std::string> prettyJson(const Value& value) {
    return serialised<PrettyWriter, std::string>(value);
}

std::optional<Value> parseJson(std::string_view text) {
    constexpr unsigned flags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                               rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    JsonEvents events;
    // RapidJSON's stream reads as NUL at its end, so a NUL in the text would end the text there.
    if (reader.Parse<flags>(stream, events).IsError() || stream.Tell() != text.size()) return std::nullopt;
    return events.take();
}

}  // namespace quorvane::platform
