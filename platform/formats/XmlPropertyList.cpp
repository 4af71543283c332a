#include "platform/formats/XmlPropertyList.h"

#include "platform/base/Owned.h"
#include "platform/crypto/Crypto.h"
#include "platform/formats/PropertyListDate.h"
#include "platform/formats/ValueBuilder.h"
#include "platform/formats/ValueLimits.h"

#include <expat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::string_view kWhitespace = " \t\r\n";
constexpr const char* kNoValue = "holds an element that is no value";

enum class Element { PropertyList, Array, Dictionary, Key, String, Integer, Real, Date, Data, True, False };

constexpr std::pair<std::string_view, Element> kElements[] = {
    {"key", Element::Key},     {"string", Element::String},     {"integer", Element::Integer},
    {"true", Element::True},   {"false", Element::False},       {"dict", Element::Dictionary},
    {"array", Element::Array}, {"real", Element::Real},         {"data", Element::Data},
    {"date", Element::Date},   {"plist", Element::PropertyList}};

std::optional<Element> elementNamed(std::string_view name) {
    for (const auto& [known, element] : kElements)
        if (known == name) return element;
    return std::nullopt;
}

bool isContainer(Element element) {
    return element <= Element::Dictionary;
}

/// As strtoull(3) reads numbers: in base 8, 10 or 16, up to the first character that is no digit, held to the
/// range. A number above the signed range is unsigned.
Value integerIn(const std::string& text) {
    const bool negative = text.starts_with('-');
    const std::uint64_t number = std::strtoull(text.c_str() + (negative ? 1 : 0), nullptr, 0);
    if (!negative && number > std::numeric_limits<std::int64_t>::max()) return number;
    return static_cast<std::int64_t>(negative ? 0 - number : number);
}

/// A fraction and a time zone are ignored.
std::optional<Value> dateIn(const std::string& text) {
    std::tm parts{};
    if (::strptime(text.c_str(), " %Y-%m-%dT%H:%M:%S", &parts) == nullptr) return std::nullopt;
    const std::int64_t seconds = ::timegm(&parts);
    if (!isXmlDate(seconds)) return std::nullopt;
    return Value(Date{seconds * 1'000'000});
}

std::optional<Value> dataIn(const std::string& text) {
    auto bytes = base64Decode(text);
    return bytes ? std::optional<Value>(*std::move(bytes)) : std::nullopt;
}

/// Expat's handlers. None of them throws, since expat is C. After XML_StopParser() expat still calls the
/// handlers of the tag it is at, so each checks for an earlier failure.
class XmlReader {
  public:
    XmlReader() : _parser(::XML_ParserCreate("UTF-8")) {
        XML_Parser parser = _parser.get();
        ::XML_SetUserData(parser, this);
        ::XML_SetElementHandler(
            parser,
            [](void* reader, const XML_Char* name, const XML_Char**) noexcept { at(reader).start(name); },
            [](void* reader, const XML_Char*) noexcept { at(reader).end(); });
        ::XML_SetCharacterDataHandler(parser, [](void* reader, const XML_Char* text, int size) noexcept {
            at(reader).takeText({text, static_cast<std::size_t>(size)});
        });
        ::XML_SetStartDoctypeDeclHandler(parser, [](void* reader, const XML_Char*, const XML_Char*,
                                                    const XML_Char*, int hasDeclarations) noexcept {
            if (hasDeclarations != 0) at(reader).fail("declares a document type of its own");
        });
        // When the document type names a file, which is never fetched, expat skips unknown entities silently.
        ::XML_SetSkippedEntityHandler(parser, [](void* reader, const XML_Char*, int) noexcept {
            at(reader).fail("holds an unknown entity");
        });
    }

    Result<Value> read(std::string_view text) {
        const auto status = ::XML_Parse(_parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE);
        if (_failure != nullptr) return failure(fmt::format("the property list {}", _failure));
        if (status != XML_STATUS_OK)
            return failure(fmt::format("the bytes are no property list: line {}: {}",
                                       ::XML_GetCurrentLineNumber(_parser.get()),
                                       ::XML_ErrorString(::XML_GetErrorCode(_parser.get()))));
        if (auto root = _builder.take()) return *std::move(root);
        return failure("the property list is empty");
    }

  private:
    static XmlReader& at(void* reader) { return *static_cast<XmlReader*>(reader); }

    void start(std::string_view name) {
        if (_failure != nullptr) return;
        const auto element = elementNamed(name);
        const bool isOutermost = _open.empty();
        if (!element || (*element == Element::PropertyList && !isOutermost)) return fail(kNoValue);
        if (!isOutermost && !isContainer(_open.back())) return fail("holds an element within a text");
        if (*element == Element::Array) check(_builder.openArray());
        if (*element == Element::Dictionary) check(_builder.openDictionary());
        _open.push_back(*element);
        _text.clear();
    }

    void takeText(std::string_view text) {
        if (_failure != nullptr) return;
        if (isContainer(_open.back())) {
            if (text.find_first_not_of(kWhitespace) != std::string_view::npos)
                fail("holds text between its values");
            return;
        }
        _bytes += text.size();
        if (_bytes > kMaximumBytes) return fail(kTooLarge);
        _text += text;
    }

    void end() {
        if (_failure != nullptr) return;
        const Element element = _open.back();
        _open.pop_back();
        if (element == Element::PropertyList) return;
        if (isContainer(element)) return check(_builder.close());
        if (element == Element::Key && _builder.isDictionaryOpen()) return check(_builder.setKey(_text));
        if (auto value = valueOf(element)) return check(_builder.add(*std::move(value)));
        fail("holds a date out of range or data that is no base64");
    }

    std::optional<Value> valueOf(Element element) const {
        switch (element) {
            case Element::Integer:
                return integerIn(_text);
            case Element::Real:
                return std::strtod(_text.c_str(), nullptr);
            case Element::Date:
                return dateIn(_text);
            case Element::Data:
                return dataIn(_text);
            case Element::True:
            case Element::False:
                return element == Element::True;
            default:
                return _text;
        }
    }

    void check(bool taken) {
        if (taken) return;
        fail(_builder.passedLimit() != nullptr ? _builder.passedLimit()
                                               : "holds a dictionary whose keys and values do not alternate");
    }

    void fail(const char* failure) {
        if (_failure == nullptr) _failure = failure;
        ::XML_StopParser(_parser.get(), XML_FALSE);
    }

    Owned<std::remove_pointer_t<XML_Parser>, ::XML_ParserFree> _parser;
    ValueBuilder _builder;
    std::vector<Element> _open;
    std::string _text;  ///< Of the innermost element.
    std::size_t _bytes = 0;
    const char* _failure = nullptr;
};

}  // namespace

Result<Value> parseXmlPropertyList(std::string_view text) {
    // XML allows no blanks in front of its declaration, but some servers send them.
    text.remove_prefix(std::min(text.find_first_not_of(kWhitespace), text.size()));
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        return failure("the property list is larger than 2 GiB");
    return XmlReader().read(text);
}

}  // namespace quorvane::platform
