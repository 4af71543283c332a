#pragma once

#include "backends/CreateBackends.h"
#include "backends/SessionLedger.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <memory>
#include <string>

namespace quorvane {

/// A session as it looks from outside at one moment: shares of what it has published, so that it can be read
/// without the session.
struct SessionView {
    std::shared_ptr<const SessionLedger> ledger;
    std::shared_ptr<const SessionLedger::Identity> identity;  ///< null before the client has told it
    std::string identifier;                                   ///< sessionIDString()
    std::shared_ptr<const Dictionary> sessionInfo;            ///< or null
    std::shared_ptr<const BackendDictionary> backends;        ///< null while the session is not started
    std::int32_t level = 0;
    bool aggregates = false;
};

}  // namespace quorvane
