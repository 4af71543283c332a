#include "platform/sandbox/SandboxProfile.h"

#include "platform/base/Root.h"

#include <fmt/format.h>
#include <seccomp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace quorvane::platform {

namespace {

constexpr std::array<std::pair<std::string_view, SandboxAccess>, 4> kAccesses{
    {{"read", SandboxAccess::Read},
     {"write", SandboxAccess::Write},
     {"load", SandboxAccess::Load},
     {"socket", SandboxAccess::Socket}}};
constexpr std::array<std::pair<std::string_view, int>, 2> kErrors{{{"EPERM", EPERM}, {"ENOSYS", ENOSYS}}};

template <typename Table>
auto* named(const Table& table, std::string_view name) {
    const auto at =
        std::find_if(table.begin(), table.end(), [&](const auto& entry) { return entry.first == name; });
    return at == table.end() ? nullptr : &at->second;
}

/// Calls the function with each text of the array; the first failure ends it.
template <typename Function>
Result<void> forEachText(const std::string& key, const Value& value, Function&& function) {
    const Array* array = value.array();
    if (array == nullptr) return failure(key + ": a list of texts is expected");
    for (const Value& element : *array) {
        const std::string* text = element.string();
        if (text == nullptr) return failure(key + ": a list of texts is expected");
        if (auto taken = function(*text); !taken) return failure(key + ": " + taken.error().message);
    }
    return {};
}

Result<void> addPath(std::string path, SandboxAccess access, bool product, SandboxProfile& profile) {
    if (path.empty() || path.front() != '/') return failure("\"" + path + "\" is not an absolute path");
    if (product) path = rooted(path);
    profile.paths.push_back({std::move(path), access, product});
    return {};
}

Result<void> addRefusal(const std::string& name, int error, SandboxProfile& profile) {
    const int systemCall = ::seccomp_syscall_resolve_name(name.c_str());
    if (systemCall == __NR_SCMP_ERROR) return failure("\"" + name + "\" is no system call");
    // The C library starts a thread with clone once clone3 is said not to exist, and gives up on any other
    // error.
    if (name == "clone3" && error != ENOSYS) return failure("clone3 can be refused with ENOSYS only");
    profile.refusals.push_back({name, systemCall, error});
    return {};
}

Result<void> readPaths(const std::string& section, const Dictionary& table, SandboxProfile& profile) {
    for (const auto& [name, value] : table) {
        const std::string key = fmt::format("{}.{}", section, name);
        const SandboxAccess* access = named(kAccesses, name);
        if (access == nullptr) return failure(key + ": unknown key");
        auto taken = forEachText(key, value, [&](const std::string& path) {
            return addPath(path, *access, section == "product", profile);
        });
        if (!taken) return taken;
    }
    return {};
}

Result<void> readRefusals(const std::string& section, const Dictionary& table, SandboxProfile& profile) {
    for (const auto& [name, value] : table) {
        const std::string key = fmt::format("{}.{}", section, name);
        const int* error = named(kErrors, name);
        if (error == nullptr) return failure(key + ": unknown key");
        auto taken = forEachText(key, value,
                                 [&](const std::string& call) { return addRefusal(call, *error, profile); });
        if (!taken) return taken;
    }
    return {};
}

Result<void> readSections(const Dictionary& root, SandboxProfile& profile) {
    for (const auto& [section, value] : root) {
        const bool paths = section == "product" || section == "system";
        if (!paths && section != "refuse") return failure(section + ": unknown key");
        const Dictionary* table = value.dictionary();
        if (table == nullptr) return failure(section + ": a table is expected");
        auto read = paths ? readPaths(section, *table, profile) : readRefusals(section, *table, profile);
        if (!read) return read;
    }
    return {};
}

}  // namespace

Result<SandboxProfile> sandboxProfile(const Dictionary& settings) {
    SandboxProfile profile;
    if (auto read = readSections(settings, profile); !read) return failure(read.error().message);
    return profile;
}

}  // namespace quorvane::platform
