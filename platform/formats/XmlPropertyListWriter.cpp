#include "platform/crypto/Crypto.h"
#include "platform/formats/PropertyList.h"
#include "platform/formats/PropertyListDate.h"
#include "platform/value/Text.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
constexpr std::string_view kTail = "</plist>\n";

/// Whether XML 1.0 can hold the text.
bool isXmlText(std::string_view text) {
    const auto allowed = [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
    };
    constexpr std::string_view fffe = "\xef\xbf\xbe";
    constexpr std::string_view ffff = "\xef\xbf\xbf";
    return isUtf8(text) && std::all_of(text.begin(), text.end(), allowed) &&
           text.find(fffe) == std::string_view::npos && text.find(ffff) == std::string_view::npos;
}

/// A value or element a line, indented by its depth. Functions answer false for what XML cannot hold.
class XmlWriter {
  public:
    std::optional<Data> write(const Value& value) {
        put(kHead);
        if (!add(value)) return std::nullopt;
        put(kTail);
        return std::move(_xml);
    }

  private:
    bool add(const Value& value) {
        return value.visit([this](const auto& held) { return add(held); });
    }
    bool add(const std::string& text) { return addText("string", text); }
    bool add(bool flag) { return addLine(flag ? "<true/>" : "<false/>"); }
    bool add(std::int64_t number) { return addLine(fmt::format("<integer>{}</integer>", number)); }
    bool add(std::uint64_t number) { return addLine(fmt::format("<integer>{}</integer>", number)); }
    bool add(double number) { return addLine(fmt::format("<real>{}</real>", number)); }
    bool add(const Data& data) { return addLine(fmt::format("<data>{}</data>", base64Encode(data))); }

    bool add(Date date) {
        const auto since1970 = std::chrono::microseconds(date.microseconds);
        const std::chrono::sys_seconds time(std::chrono::floor<std::chrono::seconds>(since1970));
        const auto seconds = time.time_since_epoch().count();
        return isXmlDate(seconds) &&
               addLine(fmt::format("<date>{:%Y-%m-%dT%H:%M:%S}Z</date>", fmt::gmtime(seconds)));
    }

    bool add(const Array& array) {
        if (array.empty()) return addLine("<array/>");
        addLine("<array>");
        ++_depth;
        for (const Value& element : array)
            if (!add(element)) return false;
        --_depth;
        return addLine("</array>");
    }

    bool add(const Dictionary& dictionary) {
        if (dictionary.empty()) return addLine("<dict/>");
        addLine("<dict>");
        ++_depth;
        for (const auto& [key, value] : dictionary)
            if (!addText("key", key) || !add(value)) return false;
        --_depth;
        return addLine("</dict>");
    }

    bool addText(std::string_view element, std::string_view text) {
        if (!isXmlText(text)) return false;
        putIndent();
        put(fmt::format("<{}>", element));
        for (const char c : text) putEscaped(c);
        put(fmt::format("</{}>\n", element));
        return true;
    }

    bool addLine(std::string_view line) {
        putIndent();
        put(line);
        _xml.push_back('\n');
        return true;
    }

    /// A carriage return that is not escaped is read as a line feed.
    void putEscaped(char c) {
        switch (c) {
            case '&':
                return put("&amp;");
            case '<':
                return put("&lt;");
            case '>':
                return put("&gt;");
            case '\r':
                return put("&#13;");
            default:
                _xml.push_back(static_cast<std::uint8_t>(c));
        }
    }

    void putIndent() { _xml.insert(_xml.end(), _depth, '\t'); }
    void put(std::string_view text) { _xml.insert(_xml.end(), text.begin(), text.end()); }

    Data _xml;
    std::size_t _depth = 0;
};

}  // namespace

std::optional<Data> xmlPropertyList(const Value& value) {
    return XmlWriter().write(value);
}

}  // namespace quorvane::platform
