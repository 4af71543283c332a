#pragma once

#include "tools/storebag/SigningKey.h"

#include <optional>
#include <string>
#include <variant>

namespace quorvane::tools {

struct Keygen {
    std::string privateKey = "privateKey.pem";
    std::string publicKey = "publicKey.der";
    unsigned bits = kMinimumKeyBits;
    bool force = false;
};

struct Sign {
    std::string source;
    std::string format;  ///< "toml", "json" or "plist"; empty to go by the source's name
    std::string privateKey;
    std::string output = "-";
    bool strict = false;
};

struct Verify {
    std::string storebag;
    std::string publicKey;
    bool strict = false;
};

struct Inspect {
    std::string storebag;
    std::optional<std::string> publicKey;
    bool json = false;
};

using Command = std::variant<Keygen, Sign, Verify, Inspect>;

/// Reads the command line. Nothing when the program is to end at once with the status: help was asked for, or
/// something in the command line is wrong and has been told.
std::optional<Command> readCommand(int argc, char** argv, int& status);

}  // namespace quorvane::tools
