#pragma once

#include "backends/CreateBackends.h"
#include "framework/Keys.h"
#include "util/MessageLog.h"

#include <fmt/core.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

/// Takes the answer if it is the client's: the HTTP post backend's where it has one, else the dashboard's
/// (which has none for a session's events).
inline void selectAnswer(std::optional<std::string>& selected, std::string_view backend,
                         std::optional<std::string> answer) {
    const bool preferred = backend == kQuorvaneBackendHTTPPost;
    const bool fallback = backend == kQuorvaneBackendDashboard && !selected;
    if (answer && (preferred || fallback)) selected = std::move(answer);
}

/// Calls every backend in turn, appends each answer to the local message log in the form of the line (backend
/// name, answer) and gives back the client's.
template <typename Call>
std::optional<std::string> collectAnswers(const BackendDictionary& backends,
                                          fmt::format_string<const std::string&, const std::string&> line,
                                          const Call& call) {
    std::optional<std::string> selected;
    for (const auto& [name, backend] : backends) {
        std::optional<std::string> answer = call(*backend);
        if (answer) writeToLogFile(line, name, *answer);
        selectAnswer(selected, name, std::move(answer));
    }
    return selected;
}

}  // namespace quorvane
