#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// These classes stand in the interface of a shared library whose inside is hidden.
#pragma GCC visibility push(default)

namespace quorvane::platform {

class Value;

/// A point in time, in microseconds since 1970.
struct Date {
    std::int64_t microseconds = 0;
    auto operator<=>(const Date&) const = default;
};

using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;

/// A flat map from text to Value, kept sorted by key (byte order); enumeration follows that order.
class Dictionary {
  public:
    struct Entry;
    using const_iterator = const Entry*;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);
    /// A dictionary of the entries, whatever their order; of two with the same key the later one counts.
    static Dictionary fromEntries(std::vector<Entry> entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept;
    Dictionary& operator=(const Dictionary& other);
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    bool empty() const;
    std::size_t size() const;
    const_iterator begin() const;
    const_iterator end() const;
    Entry* begin();
    Entry* end();

    /// The value under the key, or null. Valid until the dictionary changes.
    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    /// Stores the value under the key, in place of an earlier one.
    void set(std::string_view key, Value value);
    void setOwned(std::string key, Value value);
    /// Stores every entry of the other dictionary, in place of earlier ones.
    void merge(const Dictionary& other);
    void remove(std::string_view key);
    void clear();
    void reserve(std::size_t entries);

    /// The value under the key read as one type; null, 0 or false when it is absent or of another type.
    const std::string* string(std::string_view key) const;
    /// A copy of the text under the key, for who keeps it; nothing when it is absent or of another type.
    std::optional<std::string> text(std::string_view key) const;
    const Dictionary* dictionary(std::string_view key) const;
    const Array* array(std::string_view key) const;
    std::int64_t integer(std::string_view key) const;
    std::uint64_t unsignedInteger(std::string_view key) const;
    bool boolean(std::string_view key) const;

    std::string description() const;
    bool operator==(const Dictionary& other) const;

  private:
    std::vector<Entry> _entries;
};

/// One property-list value. Booleans, signed, unsigned and real numbers are kept apart, and all four count as
/// numbers for the getters.
class Value {
  public:
    enum class Kind { String, Boolean, Signed, Unsigned, Real, Date, Data, Array, Dictionary };

    Value() : _held(std::string()) {}
    Value(const char* text) : _held(std::string(text)) {}
    Value(std::string_view text) : _held(std::string(text)) {}
    Value(std::string text) : _held(std::move(text)) {}
    /// Any other pointer would be read as a boolean. Texts of unsigned characters are to be cast.
    template <typename Pointed>
    Value(const Pointed*) = delete;
    Value(std::nullptr_t) = delete;
    Value(bool flag) : _held(flag) {}
    Value(short number) : _held(std::int64_t{number}) {}
    Value(int number) : _held(std::int64_t{number}) {}
    Value(long number) : _held(std::int64_t{number}) {}
    Value(long long number) : _held(std::int64_t{number}) {}
    Value(unsigned char number) : _held(std::uint64_t{number}) {}
    Value(unsigned short number) : _held(std::uint64_t{number}) {}
    Value(unsigned number) : _held(std::uint64_t{number}) {}
    Value(unsigned long number) : _held(std::uint64_t{number}) {}
    Value(unsigned long long number) : _held(std::uint64_t{number}) {}
    Value(double number) : _held(number) {}
    Value(Date date) : _held(date) {}
    Value(Data data) : _held(std::move(data)) {}
    Value(Array array) : _held(std::move(array)) {}
    Value(Dictionary dictionary) : _held(std::move(dictionary)) {}

    Kind kind() const { return static_cast<Kind>(_held.index()); }
    bool isNumber() const { return kind() >= Kind::Boolean && kind() <= Kind::Real; }
    /// A number that is neither boolean nor real.
    bool isInteger() const { return kind() == Kind::Signed || kind() == Kind::Unsigned; }

    /// The value as one type, or null when it holds another.
    const std::string* string() const { return std::get_if<std::string>(&_held); }
    const Date* date() const { return std::get_if<platform::Date>(&_held); }
    const Data* data() const { return std::get_if<platform::Data>(&_held); }
    const Array* array() const { return std::get_if<platform::Array>(&_held); }
    Array* array() { return std::get_if<platform::Array>(&_held); }
    const Dictionary* dictionary() const { return std::get_if<platform::Dictionary>(&_held); }
    Dictionary* dictionary() { return std::get_if<platform::Dictionary>(&_held); }

    /// The number as a signed integer; reals are truncated toward zero and held to the range, an unsigned
    /// number above the range wraps. 0 for what is no number.
    std::int64_t integer() const;
    /// The number as an unsigned integer; a negative number wraps. 0 for what is no number.
    std::uint64_t unsignedInteger() const;
    double real() const;
    bool boolean() const { return isNumber() && real() != 0; }

    /// The printed form used in log lines: texts as they stand, <hex> for data, (a, b) for arrays and
    /// {key = value; } for dictionaries, on one line.
    std::string description() const;

    bool operator==(const Value& other) const { return _held == other._held; }

    /// Calls the function with the held alternative.
    template <typename Function>
    decltype(auto) visit(Function&& function) const {
        return std::visit(std::forward<Function>(function), _held);
    }

  private:
    std::variant<std::string, bool, std::int64_t, std::uint64_t, double, platform::Date, platform::Data,
                 platform::Array, platform::Dictionary>
        _held;
};

struct Dictionary::Entry {
    std::string key;
    Value value;
    bool operator==(const Entry&) const = default;
};

/// The date as "2025-11-16 08:00:00 +0000".
std::string description(Date date);
/// The array as a Value prints it.
std::string description(const Array& array);

/// About what the dictionary takes in memory, in bytes.
std::size_t heldBytes(const Dictionary& dictionary);

}  // namespace quorvane::platform

namespace quorvane {
using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::Value;
}  // namespace quorvane

#pragma GCC visibility pop
