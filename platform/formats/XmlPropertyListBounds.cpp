#include "platform/formats/XmlPropertyListBounds.h"

#include <algorithm>
#include <cstdint>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumDepth = 128;
constexpr std::uint64_t kMaximumValues = 1'000'000;

constexpr const char* kTooDeep = "is nested deeper than 128 levels";
constexpr const char* kTooLarge = "has more than a million elements";
constexpr const char* kOpenQuote = "has a tag with an open quote";
constexpr const char* kOwnDocumentType = "declares a document type of its own";

/// Walks over the tags of an XML list. The parser behind it looks for the end of a tag outside of quotes;
/// where quotes are closed at the first end, both see the same tags.
class XmlBounds {
  public:
    explicit XmlBounds(std::string_view text) : _rest(text) {}

    Result<void> check() {
        while (skipPast("<")) {
            if (skipWhole("!--", "-->") || skipWhole("![CDATA[", "]]>")) continue;
            const std::string_view tag = takeTag();
            if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) return failure(kOpenQuote);
            if (tag.starts_with('!') && tag.find_first_of("[<") != std::string_view::npos)
                return failure(kOwnDocumentType);
            if (tag.starts_with('?') || tag.starts_with('!')) continue;
            if (auto counted = count(tag); !counted) return counted;
        }
        return {};
    }

  private:
    bool skipPast(std::string_view mark) {
        const std::size_t at = _rest.find(mark);
        _rest.remove_prefix(at == std::string_view::npos ? _rest.size() : at + mark.size());
        return at != std::string_view::npos;
    }

    bool skipWhole(std::string_view start, std::string_view end) {
        if (!_rest.starts_with(start)) return false;
        _rest.remove_prefix(start.size());
        skipPast(end);
        return true;
    }

    std::string_view takeTag() {
        const std::size_t end = _rest.starts_with('?')   ? _rest.find("?>")
                                : _rest.starts_with('!') ? _rest.find('>')
                                                         : _rest.find_first_of("<>");
        const std::string_view tag = _rest.substr(0, end);
        _rest.remove_prefix(tag.size());
        return tag;
    }

    Result<void> count(std::string_view tag) {
        const bool closing = tag.starts_with('/');
        if (closing) tag.remove_prefix(1);
        const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
        const bool nests = name == "array" || name == "dict";
        if (closing) {
            if (nests && _depth > 0) --_depth;
            return {};
        }
        if (++_values > kMaximumValues) return failure(kTooLarge);
        if (nests && !tag.ends_with('/') && ++_depth > kMaximumDepth) return failure(kTooDeep);
        return {};
    }

    std::string_view _rest;
    std::size_t _depth = 0;
    std::uint64_t _values = 0;
};

}  // namespace

Result<void> outOfXmlBounds(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return failure("has a NUL in it");
    return XmlBounds(text).check();
}

}  // namespace quorvane::platform
