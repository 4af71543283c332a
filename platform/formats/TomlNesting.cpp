#include "platform/formats/TomlNesting.h"

#include "platform/formats/ValueLimits.h"

#include <algorithm>
#include <string>
#include <vector>

namespace quorvane::platform {

namespace {

/// Follows the depth through a TOML text. What it makes of a malformed text does not matter: toml++ stops at
/// the first error, and up to there both read the same.
class Nesting {
  public:
    explicit Nesting(std::string_view text) : _rest(text) {
        if (constexpr std::string_view byteOrderMark = "\xef\xbb\xbf"; _rest.starts_with(byteOrderMark))
            _rest.remove_prefix(byteOrderMark.size());
    }

    std::optional<std::size_t> lineTooDeep() {
        while (!_rest.empty()) {
            take(_rest.front());
            if (_depth > kMaximumDepth) return _line;
        }
        return std::nullopt;
    }

  private:
    void take(char c) {
        if (c == '"' || c == '\'') return skipText(c);
        if (c == '#') return skip(std::min(_rest.find('\n'), _rest.size()));
        const bool opensHeader = c == '[' && _open.empty() && !_isStatement;
        if (c != ' ' && c != '\t' && c != '\n') _isStatement = true;
        if (opensHeader) startHeader();
        if (_isHeader)
            takeInHeader(c);
        else
            takeInEntry(c);
        if (c == '\n') endLine();
        skip(1);
    }

    void startHeader() {
        _isHeader = true;
        _depth = 1;
    }

    void takeInHeader(char c) {
        if (c == '[' || c == '.') ++_depth;
    }

    void takeInEntry(char c) {
        switch (c) {
            case '.':
                if (_isKey) ++_depth;
                break;
            case '=':
                _isKey = false;
                break;
            case '[':
            case '{':
                _open.push_back(++_depth);
                _isKey = true;
                break;
            case ']':
            case '}':
                if (!_open.empty()) _open.pop_back();
                break;
            case ',':
                if (_open.empty()) break;
                _depth = _open.back();
                _isKey = true;
                break;
            default:
                break;
        }
    }

    void endLine() {
        if (!_open.empty()) return;
        if (_isHeader) _tableDepth = _depth;
        _isHeader = false;
        _isStatement = false;
        _depth = _tableDepth;
        _isKey = true;
    }

    /// A text in three quotes may hold lines. Up to two quotes right before the closing three belong to it.
    void skipText(char quote) {
        _isStatement = true;
        const std::string longQuote(3, quote);
        const bool isLong = _rest.starts_with(longQuote);
        const std::string_view close = isLong ? std::string_view(longQuote) : _rest.substr(0, 1);
        skip(close.size());
        while (!_rest.empty() && !_rest.starts_with(close)) {
            if (!isLong && _rest.front() == '\n') return;
            skip(quote == '"' && _rest.front() == '\\' ? 2 : 1);
        }
        skip(close.size());
        for (int i = 0; isLong && i < 2 && _rest.starts_with(quote); ++i) skip(1);
    }

    void skip(std::size_t size) {
        const std::string_view skipped = _rest.substr(0, size);
        _line += static_cast<std::size_t>(std::count(skipped.begin(), skipped.end(), '\n'));
        _rest.remove_prefix(skipped.size());
    }

    std::string_view _rest;
    std::size_t _line = 1;
    std::size_t _depth = 1;          ///< Of the place that _rest starts at; the root is a table.
    std::size_t _tableDepth = 1;     ///< Of the table that the last header named.
    std::vector<std::size_t> _open;  ///< The depths of what stands in the open arrays and inline tables.
    bool _isStatement = false;       ///< More than blanks stood on this line.
    bool _isHeader = false;
    bool _isKey = true;  ///< Or an element of an array, whose one dot may count.
};

}  // namespace

std::optional<std::size_t> lineNestedTooDeep(std::string_view text) {
    return Nesting(text).lineTooDeep();
}

}  // namespace quorvane::platform
