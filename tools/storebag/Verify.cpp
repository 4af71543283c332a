#include "tools/common/Failure.h"
#include "tools/common/Files.h"
#include "tools/common/Output.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Envelope.h"
#include "tools/storebag/Warnings.h"

#include <fmt/format.h>

namespace quorvane::tools {

int run(const Verify& command) {
    const std::string_view name = nameOfInput(command.storebag);
    const auto key = readPublicKey(command.publicKey);
    const SignedBag envelope = openEnvelope(readBytes(command.storebag), name);
    if (!envelope.isSignedWith(*key))
        throw Failure(fmt::format("{}: the signature is not good for {}", name, command.publicKey));
    const Dictionary bag = bagOf(envelope, name);
    warnAbout(bag, name, command.strict);
    refuseUntakeable(bag, name);
    printLine(fmt::format("{}: good", name));
    return 0;
}

}  // namespace quorvane::tools
