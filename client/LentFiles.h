#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <quorvane/Result.h>

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace quorvane::client {

/// A regular file open for reading. While it is open its inode number is not given to another file.
struct OpenFile {
    std::string path;  ///< Absolute and, but for its last component, without links, "." and "..".
    std::string name;  ///< That last component, in the folder.
    platform::UniqueDescriptor folder;
    platform::UniqueDescriptor descriptor;
    std::uint64_t bytes = 0;
    dev_t device = 0;
    ino_t number = 0;
};

/// Opens the file at the path. A symbolic link as the last component is refused, and a named pipe does not
/// make it wait for a writer.
Result<std::shared_ptr<const OpenFile>> openRegularFile(const std::string& path);

/// The files that the daemon may ask to be removed, by the tokens it issued for them. Thread-safe.
class LentFiles {
  public:
    void add(const std::string& token, std::shared_ptr<const OpenFile> file);
    void forget(const std::string& token);
    /// Keeps the token of an upload that timed out: the daemon goes on with it and may still ask for the
    /// removal. Only the latest few are kept, since each holds two descriptors.
    void keepLate(const std::string& token);

    /// Removes the file that the token was issued for, provided that its name still leads to it. False when
    /// nothing was removed.
    bool removeFile(const std::string& token);

  private:
    platform::Mutex _mutex;
    std::map<std::string, std::shared_ptr<const OpenFile>> _files GUARDED_BY(_mutex);
    std::deque<std::string> _late GUARDED_BY(_mutex);
};

}  // namespace quorvane::client
