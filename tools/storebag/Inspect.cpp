#include "platform/value/Text.h"
#include "tools/common/Failure.h"
#include "tools/common/Files.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Envelope.h"
#include "util/Environment.h"

#include <optional>
#include <vector>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

struct Contents {
    std::size_t signatureBytes = 0;
    std::optional<bool> signatureGood = {};  ///< Only with a key.
    Dictionary bag;
};

Contents read(const Inspect& command) {
    const std::string_view name = nameOfInput(command.storebag);
    const SignedBag envelope = openEnvelope(readBytes(command.storebag), name);
    Contents contents{.signatureBytes = envelope.signatureSize(), .bag = bagOf(envelope, name)};
    if (command.publicKey) contents.signatureGood = envelope.isSignedWith(*readPublicKey(*command.publicKey));
    return contents;
}

Array backendsOf(const Value& section) {
    Array names;
    if (const Dictionary* backends = section.dictionary())
        for (const auto& [name, profile] : *backends) names.emplace_back(name);
    return names;
}

/// The bag's environments with the names of their backends.
Dictionary environmentsOf(const Dictionary& bag) {
    Dictionary environments;
    for (const std::string_view environment : kStorebagSections)
        if (const Value* section = bag.find(environment)) environments.set(environment, backendsOf(*section));
    return environments;
}

std::string json(const Contents& contents) {
    Dictionary signature{{"bytes", contents.signatureBytes}};
    if (contents.signatureGood) signature.set("good", *contents.signatureGood);
    Dictionary root{
        {"signature", signature}, {"environments", environmentsOf(contents.bag)}, {"bag", contents.bag}};
    for (const char* key : {"version", "refresh_cycle"})
        if (const Value* value = contents.bag.find(key)) root.set(key, *value);
    return prettyJsonOf(Value(std::move(root)));
}

std::string_view verdict(std::optional<bool> good) {
    if (!good) return "not checked";
    return *good ? "good" : "NOT GOOD for this key";
}

std::string text(const Contents& contents) {
    const auto printed = [&](const char* key) {
        const Value* value = contents.bag.find(key);
        return value != nullptr ? value->description() : "(none)";
    };
    std::string lines =
        fmt::format("signature         {} bytes, {}\nversion           {}\nrefresh_cycle     {}\n",
                    contents.signatureBytes, verdict(contents.signatureGood), printed("version"),
                    printed("refresh_cycle"));
    for (const auto& [environment, backends] : environmentsOf(contents.bag)) {
        lines += fmt::format("{:<17}", environment);
        for (const Value& backend : *backends.array()) lines += fmt::format(" {}", *backend.string());
        lines += '\n';
    }
    return lines + "\n" + prettyJsonOf(Value(contents.bag));
}

}  // namespace

int run(const Inspect& command) {
    const Contents contents = read(command);
    printLine(command.json ? json(contents) : platform::escapedControls(text(contents), "\n"));
    return contents.signatureGood.value_or(true) ? 0 : kFailed;
}

}  // namespace quorvane::tools
