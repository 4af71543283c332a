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
    void putQuoted(std::string_view text) {
        reserve(text.size() + 2);
        putUnsafe('"');
        std::copy(text.begin(), text.end(), _buffer.begin() + static_cast<std::ptrdiff_t>(_size));
        _size += text.size();
        putUnsafe('"');
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

/// Whether the text is ASCII that JSON takes as it stands (RFC 8259, section 7). Looks at eight bytes at a
/// time: special() sets the highest bit of each byte that is a control character, a quote, a backslash or not
/// ASCII.
bool isPlain(std::string_view text) {
    constexpr std::uint64_t each = 0x0101'0101'0101'0101;
    const auto zeroBytes = [](std::uint64_t word) { return (word - each) & ~word; };
    const auto special = [&](std::uint64_t word) {
        return (word | (word - each * 0x20) | zeroBytes(word ^ (each * '"')) |
                zeroBytes(word ^ (each * '\\'))) &
               (each * 0x80);
    };
    std::uint64_t found = 0;
    for (; text.size() >= sizeof found; text.remove_prefix(sizeof found)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data(), sizeof word);
        found |= special(word);
    }
    std::uint64_t rest = each * ' ';
    std::memcpy(&rest, text.data(), text.size());
    return (found | special(rest)) == 0;
}

/// Writes a plain text in one piece; RapidJSON would write it character by character.
template <typename Stream, typename Pool>
class CompactWriter : public rapidjson::Writer<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool> {
  public:
    using Base = rapidjson::Writer<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool>;
    using Base::Base;

    void plainString(std::string_view text) {
        Base::Prefix(rapidjson::kStringType);
        Base::os_->putQuoted(text);
    }
};

template <typename Stream, typename Pool>
using PrettyWriter = rapidjson::PrettyWriter<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool>;

template <typename Writer>
bool write(const Value& value, Writer& writer);

template <typename Writer>
bool write(const std::string& text, Writer& writer) {
    if constexpr (requires { writer.plainString(text); })
        if (isPlain(text)) {
            writer.plainString(text);
            return true;
        }
    // RapidJSON 1.1's pretty writer cannot be told to check the encoding.
    return isUtf8(text) && text.size() <= std::numeric_limits<rapidjson::SizeType>::max() &&
           writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
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
