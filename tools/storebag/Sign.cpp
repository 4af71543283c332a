#include "platform/formats/PropertyList.h"
#include "tools/common/Failure.h"
#include "tools/common/Files.h"
#include "tools/storebag/BagSource.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Envelope.h"
#include "tools/storebag/SignStorebag.h"
#include "tools/storebag/Warnings.h"

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

std::unique_ptr<SigningKey> readPrivateKey(const std::string& path) {
    auto key = SigningKey::initWithPEM(textOf(readBytes(path)));
    if (!key) throw Failure(fmt::format("{}: no unencrypted RSA private key in PEM form", nameOfInput(path)));
    return key;
}

/// The way to what a property list cannot hold, as in ".release.ossel[2]".
std::string placeOfUnwritable(const Value& value) {
    if (const Dictionary* dictionary = value.dictionary())
        for (const auto& [key, held] : *dictionary)
            if (!platform::xmlPropertyList(Value(Dictionary{{key, held}})))
                return fmt::format(".{}{}", key, placeOfUnwritable(held));
    if (const Array* array = value.array())
        for (std::size_t index = 0; index < array->size(); ++index)
            if (!platform::xmlPropertyList((*array)[index]))
                return fmt::format("[{}]{}", index, placeOfUnwritable((*array)[index]));
    return {};
}

}  // namespace

int run(const Sign& command) {
    const auto key = readPrivateKey(command.privateKey);
    const std::string_view name = nameOfInput(command.source);
    const Dictionary bag = readBagSource(command.source, command.format);
    warnAbout(bag, name, command.strict);
    refuseUntakeable(bag, name);
    const auto envelope = signStorebag(bag, *key);
    if (!envelope)
        throw Failure(fmt::format("{}: {}: a property list cannot hold this value", name,
                                  placeOfUnwritable(Value(bag)).substr(1)));
    // Devices read within bounds; what is beyond them must not leave here.
    bagOf(openEnvelope(*envelope, name), name);
    writeBytes(command.output, *envelope, kEverybody);
    return 0;
}

}  // namespace quorvane::tools
