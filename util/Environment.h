#pragma once

#include <array>
#include <string_view>

namespace quorvane {

/// Which section of a storebag this device runs with.
enum class EnvironmentType : unsigned { None = 0, Development = 1, Internal = 2, Seed = 3, Release = 4 };

/// The keys of a storebag's sections, in the order of the environments from Development on.
inline constexpr std::array<std::string_view, 4> kStorebagSections{"development", "velmora_internal", "seed",
                                                                   "release"};

/// The process-wide environment type, settled by userDefaultsEnvironment on first use. Thread-safe.
EnvironmentType environmentType();

/// Works the environment type out from the user default "environmentType", else from the build, and logs it.
EnvironmentType userDefaultsEnvironment();

/// The environment's entry in kStorebagSections; empty for None, which has no section.
std::string_view environmentSectionKey(EnvironmentType type);

/// Puts another type in force from now on. For tests.
void replaceEnvironmentType(EnvironmentType type);

}  // namespace quorvane
