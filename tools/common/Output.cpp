#include "tools/common/Output.h"

#include "platform/value/Text.h"
#include "tools/common/Files.h"
#include "tools/common/Json.h"

#include <utility>

namespace quorvane::tools {

void printLine(std::string text) {
    text += '\n';
    writeBytes("-", bytesOf(text), 0);
}

void printFact(bool json, const Dictionary& fact, const std::string& text) {
    printLine(json ? compactJsonOf(Value(fact)) : platform::escapedControls(text, "\n"));
}

}  // namespace quorvane::tools
