#include "session/FileURL.h"

#include "platform/value/Text.h"
#include "platform/value/Url.h"

#include <algorithm>
#include <utility>

namespace quorvane {

namespace {

bool isControlOrBlank(char c) {
    return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
}

/// The path, which cannot hold a NUL.
std::optional<std::string> decodedPath(std::string_view encoded) {
    if (std::any_of(encoded.begin(), encoded.end(), isControlOrBlank)) return std::nullopt;
    std::optional<std::string> path = platform::percentDecoded(encoded);
    return path && path->find('\0') == std::string::npos ? std::move(path) : std::nullopt;
}

}  // namespace

std::optional<std::string> pathOfFileURL(std::string_view url) {
    if (url.size() > kMaximumFileURLBytes) return std::nullopt;
    constexpr std::string_view scheme = "file:";
    if (!platform::equalsIgnoringCase(url.substr(0, scheme.size()), scheme)) return std::nullopt;
    url.remove_prefix(scheme.size());
    if (url.starts_with("//")) {
        url.remove_prefix(2);
        const std::string_view host = url.substr(0, url.find('/'));
        if (!host.empty() && !platform::equalsIgnoringCase(host, "localhost")) return std::nullopt;
        url.remove_prefix(host.size());
    }
    // A query or a fragment may follow the path.
    return url.starts_with('/') ? decodedPath(url.substr(0, url.find_first_of("?#"))) : std::nullopt;
}

}  // namespace quorvane
