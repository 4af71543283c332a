#include "platform/base/Log.h"
#include "session/QuorvanedSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <mutex>

namespace quorvane {

namespace {

/// Puts a backend in the state of the parent's backend of the same name.
void follow(QuorvaneBackend& backend, const QuorvanedSession& parent, const ReportingStates& reporting) {
    if (backend.state() == BackendState::SampledOut) return;
    const bool reports =
        reporting && std::find(reporting->begin(), reporting->end(), backend.name()) != reporting->end();
    if (!reports) {
        backend.setState(BackendState::Disabled, ReportingReason::ParentDoesNotReport);
        return;
    }
    backend.setState(BackendState::Enabled, ReportingReason::ParentReports);
    backend.setSamplingThreshold(parent.samplingThresholdWithBackendName(backend.name()));
}

}  // namespace

void QuorvanedSession::updateReportingStates() {
    if (_backends.own() == nullptr) return;
    for (const auto& [name, backend] : *_backends.own()) backend->finishSending();
    // A parent that hands its states down meanwhile acts on states that are gone already.
    const std::scoped_lock lock(_sessionDelegate.lock());
    for (const auto& [name, backend] : *_backends.own()) {
        backend->setUserInfoDict(_userInfo.own());
        backend->updateState();
    }
}

ReportingStates QuorvanedSession::fetchReportingStates() const {
    const auto backends = _backends.load();
    if (backends == nullptr) return std::nullopt;
    std::vector<std::string> reporting;
    for (const auto& [name, backend] : *backends)
        if (backend->state() == BackendState::Enabled) reporting.push_back(name);
    return reporting;
}

std::optional<Value> QuorvanedSession::samplingThresholdWithBackendName(const std::string& name) const {
    const auto backends = _backends.load();
    if (backends == nullptr) return std::nullopt;
    const auto found = backends->find(name);
    return found != backends->end() ? found->second->samplingThreshold() : std::nullopt;
}

void QuorvanedSession::syncReportingStates() {
    // Keeps the parent in its group, and its states as they are read.
    const std::scoped_lock lock(_sessionDelegate.lock());
    const QuorvanedSession* parent = _sessionDelegate.parentSessionForChild(*this);
    const ReportingStates reporting = parent != nullptr ? parent->fetchReportingStates() : std::nullopt;
    const auto backends = _backends.load();
    if (backends == nullptr) return;
    for (const auto& [name, backend] : *backends) {
        if (parent != nullptr)
            follow(*backend, *parent, reporting);
        else if (backend->hierarchy() >= 1)
            platform::logInfo("syncReportingStates: child session {} (backend {}) is missing its parent",
                              sessionID(), name);
    }
}

void QuorvanedSession::updateCombinedSessionID() {
    const auto parents = _sessionDelegate.parentSessionIDStringForSession(*this);
    if (!parents) return;
    const std::string combined = fmt::format("{}.{}", *parents, _sessionIDString);
    platform::logDebug("updateCombinedSessionID: Updating combined session ID '{}' for session {} backends",
                       combined, sessionID());
    const auto backends = _backends.load();
    if (backends == nullptr) return;
    for (const auto& [name, backend] : *backends) backend->setCorrelatedSessionID(combined);
}

}  // namespace quorvane
