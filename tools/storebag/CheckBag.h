#pragma once

#include "platform/value/Value.h"

#include <string>
#include <vector>

namespace quorvane::tools {

/// What a daemon would not take, or not as it is meant, each as "release.httppost.clients[0].filters: …".
/// Empty for a bag that is taken whole.
std::vector<std::string> checkBag(const Dictionary& bag);

}  // namespace quorvane::tools
