#include "client/c/Handles.h"

#include <cstddef>
#include <string>
#include <utility>

using quorvane::Array;
using quorvane::Date;
using quorvane::Dictionary;
using quorvane::Value;

namespace {

// A QuorvaneValue is never defined: it stands for a Value.

const QuorvaneValue* outOf(const Value* value) {
    return reinterpret_cast<const QuorvaneValue*>(value);
}

const Value* into(const QuorvaneValue* value) {
    return reinterpret_cast<const Value*>(value);
}

template <typename T>
T ifAny(const QuorvaneValue* value, T (Value::*get)() const) {
    return value != nullptr ? (into(value)->*get)() : T();
}

const Dictionary::Entry* entryAt(const Dictionary* dictionary, size_t index) {
    return dictionary != nullptr && index < dictionary->size() ? dictionary->begin() + index : nullptr;
}

const QuorvaneValue* elementAt(const Array* array, size_t index) {
    return array != nullptr && index < array->size() ? outOf(&(*array)[index]) : nullptr;
}

const Dictionary* asDictionary(const QuorvaneValue* value) {
    return value != nullptr ? into(value)->dictionary() : nullptr;
}

const Array* asArray(const QuorvaneValue* value) {
    return value != nullptr ? into(value)->array() : nullptr;
}

static_assert(static_cast<int>(Value::Kind::String) == QUORVANE_KIND_TEXT);
static_assert(static_cast<int>(Value::Kind::Boolean) == QUORVANE_KIND_BOOLEAN);
static_assert(static_cast<int>(Value::Kind::Signed) == QUORVANE_KIND_SIGNED);
static_assert(static_cast<int>(Value::Kind::Unsigned) == QUORVANE_KIND_UNSIGNED);
static_assert(static_cast<int>(Value::Kind::Real) == QUORVANE_KIND_REAL);
static_assert(static_cast<int>(Value::Kind::Date) == QUORVANE_KIND_DATE);
static_assert(static_cast<int>(Value::Kind::Data) == QUORVANE_KIND_DATA);
static_assert(static_cast<int>(Value::Kind::Array) == QUORVANE_KIND_ARRAY);
static_assert(static_cast<int>(Value::Kind::Dictionary) == QUORVANE_KIND_DICTIONARY);

}  // namespace

const QuorvaneValue* quorvane_dictionary_find(const QuorvaneDictionary* dictionary, const char* key) {
    if (dictionary == nullptr || key == nullptr) return nullptr;
    return outOf(std::as_const(dictionary->held).find(key));
}

const QuorvaneValue* quorvane_dictionary_at(const QuorvaneDictionary* dictionary, size_t index,
                                            const char** key) {
    const auto* entry = entryAt(dictionary != nullptr ? &dictionary->held : nullptr, index);
    if (key != nullptr) *key = entry != nullptr ? entry->key.c_str() : nullptr;
    return entry != nullptr ? outOf(&entry->value) : nullptr;
}

const QuorvaneValue* quorvane_array_at(const QuorvaneArray* array, size_t index) {
    return elementAt(array != nullptr ? &array->held : nullptr, index);
}

int quorvane_value_kind(const QuorvaneValue* value) {
    return value != nullptr ? static_cast<int>(into(value)->kind()) : -1;
}

const char* quorvane_value_text(const QuorvaneValue* value) {
    const std::string* text = value != nullptr ? into(value)->string() : nullptr;
    return text != nullptr ? text->c_str() : nullptr;
}

bool quorvane_value_boolean(const QuorvaneValue* value) {
    return ifAny(value, &Value::boolean);
}

int64_t quorvane_value_signed(const QuorvaneValue* value) {
    return ifAny(value, &Value::integer);
}

uint64_t quorvane_value_unsigned(const QuorvaneValue* value) {
    return ifAny(value, &Value::unsignedInteger);
}

double quorvane_value_real(const QuorvaneValue* value) {
    return ifAny(value, &Value::real);
}

int64_t quorvane_value_date(const QuorvaneValue* value) {
    const Date* date = value != nullptr ? into(value)->date() : nullptr;
    return date != nullptr ? date->microseconds : 0;
}

const void* quorvane_value_data(const QuorvaneValue* value, size_t* size) {
    const quorvane::Data* data = value != nullptr ? into(value)->data() : nullptr;
    if (size != nullptr) *size = data != nullptr ? data->size() : 0;
    return data != nullptr ? data->data() : nullptr;
}

size_t quorvane_value_count(const QuorvaneValue* value) {
    if (const Array* array = asArray(value)) return array->size();
    const Dictionary* dictionary = asDictionary(value);
    return dictionary != nullptr ? dictionary->size() : 0;
}

const QuorvaneValue* quorvane_value_at(const QuorvaneValue* value, size_t index) {
    if (const auto* entry = entryAt(asDictionary(value), index)) return outOf(&entry->value);
    return elementAt(asArray(value), index);
}

const char* quorvane_value_key_at(const QuorvaneValue* value, size_t index) {
    const auto* entry = entryAt(asDictionary(value), index);
    return entry != nullptr ? entry->key.c_str() : nullptr;
}
