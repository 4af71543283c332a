#include "platform/value/Value.h"

#include "platform/value/Bytes.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iterator>
#include <limits>
#include <type_traits>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::platform {

namespace {

template <typename Integer>
Integer truncated(double number) {
    if (std::isnan(number)) return 0;
    constexpr double low = static_cast<double>(std::numeric_limits<Integer>::min());
    // The largest 64-bit numbers have no double of their own; their neighbour above is the first out of
    // range.
    constexpr double above = std::is_signed_v<Integer> ? 0x1p63 : 0x1p64;
    if (number <= low) return std::numeric_limits<Integer>::min();
    if (number >= above) return std::numeric_limits<Integer>::max();
    return static_cast<Integer>(number);
}

void describe(const Value& value, std::string& out);

void describe(const Dictionary& dictionary, std::string& out) {
    out += '{';
    for (const auto& [key, value] : dictionary) {
        out += key;
        out += " = ";
        describe(value, out);
        out += "; ";
    }
    if (!dictionary.empty()) out.pop_back();
    out += '}';
}

void describe(const Array& array, std::string& out) {
    out += '(';
    for (std::size_t i = 0; i < array.size(); ++i) {
        if (i > 0) out += ", ";
        describe(array[i], out);
    }
    out += ')';
}

void describe(const Data& data, std::string& out) {
    out += '<';
    out += hexOf(data);
    out += '>';
}

void describe(const Value& value, std::string& out) {
    value.visit([&out](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string>) {
            out += held;
        } else if constexpr (std::is_same_v<Held, bool>) {
            out += held ? '1' : '0';
        } else if constexpr (std::is_same_v<Held, Date>) {
            out += description(held);
        } else if constexpr (std::is_arithmetic_v<Held>) {
            fmt::format_to(std::back_inserter(out), "{}", held);
        } else {
            describe(held, out);
        }
    });
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary& other) = default;
Dictionary::Dictionary(Dictionary&& other) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary& other) = default;
Dictionary& Dictionary::operator=(Dictionary&& other) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    _entries.reserve(entries.size());
    for (const auto& [key, value] : entries) set(key, value);
}

bool Dictionary::empty() const {
    return _entries.empty();
}

std::size_t Dictionary::size() const {
    return _entries.size();
}

Dictionary::const_iterator Dictionary::begin() const {
    return _entries.data();
}

Dictionary::const_iterator Dictionary::end() const {
    return _entries.data() + _entries.size();
}

Dictionary::Entry* Dictionary::begin() {
    return _entries.data();
}

Dictionary::Entry* Dictionary::end() {
    return _entries.data() + _entries.size();
}

namespace {

template <typename Entries>
auto lowerBound(Entries& entries, std::string_view key) {
    return std::lower_bound(entries.begin(), entries.end(), key,
                            [](const auto& entry, std::string_view sought) { return entry.key < sought; });
}

template <typename Entries, typename Key>
void insertOrAssign(Entries& entries, Key&& key, Value&& value) {
    // Decoders and record builders mostly append in order.
    if (entries.empty() || entries.back().key < key) {
        entries.push_back({std::string(std::forward<Key>(key)), std::move(value)});
        return;
    }
    const auto at = lowerBound(entries, key);
    if (at != entries.end() && at->key == key)
        at->value = std::move(value);
    else
        entries.insert(at, {std::string(std::forward<Key>(key)), std::move(value)});
}

}  // namespace

namespace {

bool before(const Dictionary::Entry& a, const Dictionary::Entry& b) {
    return a.key < b.key;
}

/// Stable. A payload's few keys, mostly in order already, are put in place without the scratch memory that
/// std::stable_sort takes.
void sortByKey(std::vector<Dictionary::Entry>& entries) {
    constexpr std::size_t few = 32;
    if (entries.size() > few) {
        std::stable_sort(entries.begin(), entries.end(), before);
        return;
    }
    for (auto at = entries.begin(); at != entries.end(); ++at)
        std::rotate(std::upper_bound(entries.begin(), at, *at, before), at, at + 1);
}

}  // namespace

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
    // Whoever sends a dictionary has mostly kept it in order, too.
    const auto misplaced = [](const Entry& a, const Entry& b) { return a.key >= b.key; };
    if (std::adjacent_find(entries.begin(), entries.end(), misplaced) != entries.end()) {
        sortByKey(entries);
        // Backwards, so that std::unique, which keeps the first of equal ones, keeps the last.
        const auto sameKey = [](const Entry& a, const Entry& b) { return a.key == b.key; };
        entries.erase(entries.begin(), std::unique(entries.rbegin(), entries.rend(), sameKey).base());
    }
    Dictionary result;
    result._entries = std::move(entries);
    return result;
}

const Value* Dictionary::find(std::string_view key) const {
    const auto at = lowerBound(_entries, key);
    return at != _entries.end() && at->key == key ? &at->value : nullptr;
}

Value* Dictionary::find(std::string_view key) {
    return const_cast<Value*>(std::as_const(*this).find(key));
}

void Dictionary::set(std::string_view key, Value value) {
    insertOrAssign(_entries, key, std::move(value));
}

void Dictionary::setOwned(std::string key, Value value) {
    insertOrAssign(_entries, std::move(key), std::move(value));
}

void Dictionary::merge(const Dictionary& other) {
    const auto fresh =
        std::count_if(other.begin(), other.end(), [&](const Entry& entry) { return !contains(entry.key); });
    std::size_t mine = _entries.size();
    std::size_t theirs = other._entries.size();
    _entries.resize(mine + static_cast<std::size_t>(fresh));
    // From the back into the room made there, so that each entry moves once.
    for (std::size_t to = _entries.size(); theirs > 0;) {
        const Entry& next = other._entries[theirs - 1];
        if (mine > 0 && _entries[mine - 1].key >= next.key) {
            if (_entries[mine - 1].key == next.key) {
                --theirs;
                _entries[mine - 1].value = next.value;
            }
            --mine;
            --to;
            if (to != mine) _entries[to] = std::move(_entries[mine]);
        } else {
            _entries[--to] = next;
            --theirs;
        }
    }
}

void Dictionary::remove(std::string_view key) {
    const auto at = lowerBound(_entries, key);
    if (at != _entries.end() && at->key == key) _entries.erase(at);
}

void Dictionary::clear() {
    _entries.clear();
}

void Dictionary::reserve(std::size_t entries) {
    _entries.reserve(entries);
}

const std::string* Dictionary::string(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->string() : nullptr;
}

std::optional<std::string> Dictionary::text(std::string_view key) const {
    const std::string* held = string(key);
    return held != nullptr ? std::optional(*held) : std::nullopt;
}

const Dictionary* Dictionary::dictionary(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->dictionary() : nullptr;
}

const Array* Dictionary::array(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->array() : nullptr;
}

std::int64_t Dictionary::integer(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->integer() : 0;
}

std::uint64_t Dictionary::unsignedInteger(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->unsignedInteger() : 0;
}

bool Dictionary::boolean(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr && value->boolean();
}

std::string Dictionary::description() const {
    std::string out;
    describe(*this, out);
    return out;
}

bool Dictionary::operator==(const Dictionary& other) const = default;

std::int64_t Value::integer() const {
    return visit([](const auto& held) -> std::int64_t {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, double>)
            return truncated<std::int64_t>(held);
        else if constexpr (std::is_arithmetic_v<Held>)
            return static_cast<std::int64_t>(held);
        else
            return 0;
    });
}

std::uint64_t Value::unsignedInteger() const {
    if (const double* number = std::get_if<double>(&_held); number != nullptr && *number >= 0)
        return truncated<std::uint64_t>(*number);
    if (const std::uint64_t* number = std::get_if<std::uint64_t>(&_held)) return *number;
    return static_cast<std::uint64_t>(integer());
}

double Value::real() const {
    return visit([](const auto& held) -> double {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_arithmetic_v<Held>)
            return static_cast<double>(held);
        else
            return 0;
    });
}

std::string Value::description() const {
    std::string out;
    describe(*this, out);
    return out;
}

std::string description(Date date) {
    const auto seconds = static_cast<std::time_t>(std::floor(static_cast<double>(date.microseconds) / 1e6));
    return fmt::format("{:%Y-%m-%d %H:%M:%S} +0000", fmt::gmtime(seconds));
}

std::string description(const Array& array) {
    std::string out;
    describe(array, out);
    return out;
}

namespace {

std::size_t heldBytes(const Value& value) {
    return value.visit([](const auto& held) -> std::size_t {
        using Held = std::decay_t<decltype(held)>;
        std::size_t bytes = sizeof(Value);
        if constexpr (std::is_same_v<Held, std::string> || std::is_same_v<Held, Data>)
            bytes += held.size();
        else if constexpr (std::is_same_v<Held, Array>)
            for (const Value& element : held) bytes += heldBytes(element);
        else if constexpr (std::is_same_v<Held, Dictionary>)
            bytes += platform::heldBytes(held);
        return bytes;
    });
}

}  // namespace

std::size_t heldBytes(const Dictionary& dictionary) {
    std::size_t bytes = 0;
    for (const auto& [key, value] : dictionary) bytes += sizeof(std::string) + key.size() + heldBytes(value);
    return bytes;
}

}  // namespace quorvane::platform
