#pragma once

#include "platform/value/Value.h"

#include <string_view>

namespace quorvane::tools {

/// What a backend reads a key of its profile as.
enum class Form {
    Text,
    Texts,
    Url,
    Address,
    Port,
    Integer,
    Count,
    EventNumber,
    Share,
    Entries,
    FilterAction
};

struct KeyRule {
    std::string_view key;
    Form form;
    bool required = false;
};

bool hasForm(const Value& value, Form form);
/// As in "a text".
std::string_view nameOf(Form form);

/// Whether the value is a text that reads as the number that the form asks for.
bool isNumberAsText(const Value& value, Form form);

}  // namespace quorvane::tools
