#pragma once

#include "platform/value/Value.h"

#include <string>

namespace quorvane::tools {

/// Writes the line to standard output at once. Throws a Failure when that cannot be.
void printLine(std::string text);

/// Tells one fact: as one line of JSON for programs, else as the text for people, whose control characters,
/// save for line breaks, are written as \xNN.
void printFact(bool json, const Dictionary& fact, const std::string& text);

}  // namespace quorvane::tools
