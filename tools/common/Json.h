#pragma once

#include "platform/value/Value.h"
#include "tools/common/Failure.h"

#include <string>
#include <string_view>

namespace quorvane::tools {

/// Parses one JSON text. Throws a Failure that names the text, the line, the column and the fault.
Value parseJsonOrFail(std::string_view text, std::string_view name, int status = kFailed);

/// The value on one line, or over several, also when JSON has no form for all of it: dates become texts as in
/// "2025-11-16T08:00:00.250000Z", data base64 texts, and numbers that are not finite the texts "inf", "-inf"
/// and "nan".
std::string compactJsonOf(const Value& value);
std::string prettyJsonOf(const Value& value);

}  // namespace quorvane::tools
