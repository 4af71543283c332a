#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// Where everything that arrives is written, one JSON text a line: a file, or standard output. Thread-safe.
class EventSink {
  public:
    /// Without a file, standard output. Throws StartError when the file cannot be opened or made.
    explicit EventSink(std::optional<std::string> file);

    /// Writes whole lines, the last of them ended too; lines of several callers never mix. False when not all
    /// of them could be written; a file then holds none of them.
    bool append(std::string_view lines);

    /// Opens the file anew, after somebody has moved it away. Goes on with the old one when that fails.
    void reopen();

  private:
    const std::optional<std::string> _file;
    platform::Mutex _lock;
    platform::UniqueDescriptor _opened GUARDED_BY(_lock);  ///< none for standard output
};

}  // namespace quorvane::collector
