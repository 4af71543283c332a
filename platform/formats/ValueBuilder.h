#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorvane::platform {

/// Builds a value from a parser's events, within the limits on depth and values. An event answers false when
/// it cannot be taken; the parse is to end then.
class ValueBuilder {
  public:
    bool openArray() { return open(false); }
    bool openDictionary() { return open(true); }
    /// Ends what was opened last.
    bool close();
    /// The key of the next value, in a dictionary only.
    bool setKey(std::string key);
    /// The first value that is in no other is the root; later ones are ignored.
    bool add(Value value);

    bool isDictionaryOpen() const { return !_open.empty() && _open.back().isDictionary; }
    /// The limit that was passed: kTooDeep or kTooLarge; else null.
    const char* passedLimit() const { return _passedLimit; }
    /// The root; nothing when there was none.
    std::optional<Value> take() { return std::exchange(_root, std::nullopt); }

  private:
    struct Container {
        bool isDictionary = false;
        Array elements;
        std::vector<Dictionary::Entry> entries;
        std::optional<std::string> key;
    };

    bool open(bool isDictionary);
    bool count();
    bool put(Value value);

    std::vector<Container> _open;
    std::optional<Value> _root;
    std::size_t _values = 0;
    const char* _passedLimit = nullptr;
};

}  // namespace quorvane::platform
