#pragma once

#include "session/SessionView.h"
#include "storebag/StorebagStatus.h"

#include <vector>

namespace quorvane {

/// What an inspection looks at. Thread-safe, and waits for no download.
class InspectionSource {
  public:
    virtual ~InspectionSource() = default;

    virtual std::vector<SessionView> sessionViews() = 0;
    virtual std::vector<StorebagStatus> storebagStatuses() = 0;
};

}  // namespace quorvane
