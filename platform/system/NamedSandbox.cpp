#include "platform/system/NamedSandbox.h"

#include "platform/base/FileManager.h"
#include "platform/base/Root.h"
#include "platform/formats/TomlFile.h"
#include "platform/sandbox/Sandbox.h"

#include <exception>
#include <string>

namespace quorvane::platform {

std::string sandboxProfileFile(std::string_view name) {
    return rooted("/usr/share/quorvane/sandbox/" + std::string(name) + ".toml");
}

Result<SandboxProfile> sandboxProfileNamed(std::string_view name) {
    if (name.find('/') != std::string_view::npos)
        return failure("no profile can be named " + std::string(name));
    const std::string file = sandboxProfileFile(name);
    const auto settings = readTomlFile(file);
    if (!settings) return failure((fileExists(file) ? "" : "cannot read ") + settings.error().message);
    auto profile = sandboxProfile(*settings);
    if (!profile) return failure(file + ": " + profile.error().message);
    return profile;
}

Result<void> applySandboxProfile(std::string_view name) {
    try {
        const auto profile = sandboxProfileNamed(name);
        return profile ? applySandbox(*profile) : failure(profile.error().message);
    } catch (const std::exception& error) {
        return failure(std::string("cannot apply the sandbox profile: ") + error.what());
    }
}

}  // namespace quorvane::platform
