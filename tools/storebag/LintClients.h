#pragma once

#include "platform/value/Value.h"

#include <string>
#include <vector>

namespace quorvane::tools {

/// Adds what is well-formed in a client list and yet does not do what whoever wrote it means: names with
/// blanks, countries that are none, entries and filters that stand behind others which take all of their
/// sessions or events. The path is that of the list.
void lintClients(const Array& clients, const std::string& path, std::vector<std::string>& findings);

}  // namespace quorvane::tools
