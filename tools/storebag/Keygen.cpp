#include "tools/common/Failure.h"
#include "tools/common/Files.h"
#include "tools/common/Output.h"
#include "tools/storebag/Commands.h"

#include <filesystem>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

void refuseWhatIsThere(const std::string& path) {
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::symlink_status(path, error)))
        throw Failure(fmt::format("{} is there already; --force replaces it", path));
}

}  // namespace

int run(const Keygen& command) {
    if (command.privateKey == "-" || command.publicKey == "-")
        throw Failure("keys are written to files only", kUsage);
    if (!command.force) {
        refuseWhatIsThere(command.privateKey);
        refuseWhatIsThere(command.publicKey);
    }
    const auto key = SigningKey::generate(command.bits);
    if (!key) throw Failure("cannot make a key");
    const auto write = command.force ? writeBytes : writeNewFile;
    // The public key first: when only one can be written, what is replaced can be made again from the other.
    write(command.publicKey, key->publicDER(), kEverybody);
    write(command.privateKey, bytesOf(key->privatePEM()), kOwnerOnly);
    printLine(fmt::format("{}: the key that signs, {} bits; keep it secret\n{}: the key for the devices",
                          command.privateKey, key->bits(), command.publicKey));
    return 0;
}

}  // namespace quorvane::tools
