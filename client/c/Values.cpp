#include "client/c/Guard.h"
#include "client/c/Handles.h"

#include <cstring>

using quorvane::Array;
using quorvane::Data;
using quorvane::Date;
using quorvane::Value;
using quorvane::client::guarded;
using quorvane::client::newOrNull;

namespace {

/// Stores the value that the function makes.
template <typename Make>
int set(QuorvaneDictionary* dictionary, const char* key, const Make& make) {
    if (dictionary == nullptr || key == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        dictionary->held.set(key, Value(make()));
        return QUORVANE_OK;
    });
}

template <typename Make>
int add(QuorvaneArray* array, const Make& make) {
    if (array == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        array->held.emplace_back(make());
        return QUORVANE_OK;
    });
}

Data dataOf(const void* bytes, std::size_t size) {
    Data data(size);
    if (size > 0) std::memcpy(data.data(), bytes, size);
    return data;
}

}  // namespace

// Dictionaries.

QuorvaneDictionary* quorvane_dictionary_new() {
    return newOrNull<QuorvaneDictionary>();
}

void quorvane_dictionary_free(QuorvaneDictionary* dictionary) {
    delete dictionary;
}

size_t quorvane_dictionary_count(const QuorvaneDictionary* dictionary) {
    return dictionary != nullptr ? dictionary->held.size() : 0;
}

void quorvane_dictionary_clear(QuorvaneDictionary* dictionary) {
    if (dictionary != nullptr) dictionary->held.clear();
}

int quorvane_dictionary_remove(QuorvaneDictionary* dictionary, const char* key) {
    if (dictionary == nullptr || key == nullptr) return QUORVANE_INVALID_ARGUMENT;
    dictionary->held.remove(key);
    return QUORVANE_OK;
}

int quorvane_dictionary_set_text(QuorvaneDictionary* dictionary, const char* key, const char* text) {
    if (text == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return set(dictionary, key, [=] { return text; });
}

int quorvane_dictionary_set_boolean(QuorvaneDictionary* dictionary, const char* key, bool flag) {
    return set(dictionary, key, [=] { return flag; });
}

int quorvane_dictionary_set_signed(QuorvaneDictionary* dictionary, const char* key, int64_t number) {
    return set(dictionary, key, [=] { return number; });
}

int quorvane_dictionary_set_unsigned(QuorvaneDictionary* dictionary, const char* key, uint64_t number) {
    return set(dictionary, key, [=] { return number; });
}

int quorvane_dictionary_set_real(QuorvaneDictionary* dictionary, const char* key, double number) {
    return set(dictionary, key, [=] { return number; });
}

int quorvane_dictionary_set_date(QuorvaneDictionary* dictionary, const char* key, int64_t microseconds) {
    return set(dictionary, key, [=] { return Date{microseconds}; });
}

int quorvane_dictionary_set_data(QuorvaneDictionary* dictionary, const char* key, const void* bytes,
                                 size_t size) {
    if (bytes == nullptr && size > 0) return QUORVANE_INVALID_ARGUMENT;
    return set(dictionary, key, [=] { return dataOf(bytes, size); });
}

int quorvane_dictionary_set_array(QuorvaneDictionary* dictionary, const char* key,
                                  const QuorvaneArray* array) {
    if (array == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return set(dictionary, key, [=] { return array->held; });
}

int quorvane_dictionary_set_dictionary(QuorvaneDictionary* dictionary, const char* key,
                                       const QuorvaneDictionary* value) {
    if (value == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return set(dictionary, key, [=] { return value->held; });
}

int quorvane_dictionary_describe(const QuorvaneDictionary* dictionary, char** text) {
    if (text == nullptr) return QUORVANE_INVALID_ARGUMENT;
    *text = nullptr;
    if (dictionary == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        quorvane::client::handOut(dictionary->held.description(), text);
        return QUORVANE_OK;
    });
}

// Arrays.

QuorvaneArray* quorvane_array_new() {
    return newOrNull<QuorvaneArray>();
}

void quorvane_array_free(QuorvaneArray* array) {
    delete array;
}

size_t quorvane_array_count(const QuorvaneArray* array) {
    return array != nullptr ? array->held.size() : 0;
}

int quorvane_array_add_text(QuorvaneArray* array, const char* text) {
    if (text == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return add(array, [=] { return text; });
}

int quorvane_array_add_boolean(QuorvaneArray* array, bool flag) {
    return add(array, [=] { return flag; });
}

int quorvane_array_add_signed(QuorvaneArray* array, int64_t number) {
    return add(array, [=] { return number; });
}

int quorvane_array_add_unsigned(QuorvaneArray* array, uint64_t number) {
    return add(array, [=] { return number; });
}

int quorvane_array_add_real(QuorvaneArray* array, double number) {
    return add(array, [=] { return number; });
}

int quorvane_array_add_date(QuorvaneArray* array, int64_t microseconds) {
    return add(array, [=] { return Date{microseconds}; });
}

int quorvane_array_add_data(QuorvaneArray* array, const void* bytes, size_t size) {
    if (bytes == nullptr && size > 0) return QUORVANE_INVALID_ARGUMENT;
    return add(array, [=] { return dataOf(bytes, size); });
}

int quorvane_array_add_array(QuorvaneArray* array, const QuorvaneArray* value) {
    if (value == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return add(array, [=] { return value->held; });
}

int quorvane_array_add_dictionary(QuorvaneArray* array, const QuorvaneDictionary* value) {
    if (value == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return add(array, [=] { return value->held; });
}
