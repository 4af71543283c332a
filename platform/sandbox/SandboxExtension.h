#pragma once

#include "platform/base/UniqueDescriptor.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace quorvane::platform {

/// How a client lends the sandboxed daemon one of its files: it passes the open file and gets a token, and
/// whoever consumes the token may read that file through the passed descriptor. A token is a random text,
/// good once. All functions are thread-safe.

/// Whose tokens they are: a connection, and the user at its other end.
struct ExtensionOwner {
    std::uint64_t number;
    uid_t user;
};

/// With a number that no other connection has had.
ExtensionOwner newExtensionOwner(uid_t user);

/// What an owner may have outstanding; for users the account has a slot (UserAccount.h). Each holds a
/// descriptor open.
inline constexpr std::size_t kExtensionsPerOwner = 64;

/// Asks the file's owner to remove it. Called at most once, from any thread; must not block.
using RemoveFileRequest = std::function<void(const std::string& token)>;

/// Nothing when the descriptor cannot be read from or too many tokens are outstanding.
std::optional<std::string> issueSandboxExtension(ExtensionOwner owner, UniqueDescriptor file,
                                                 RemoveFileRequest removeFile);

/// Whether the token is outstanding and the owner's own. A token that a client names must pass this before it
/// goes further: nothing else ties it to its connection.
bool ownsSandboxExtension(ExtensionOwner owner, const std::string& token);

/// Forgets the owner's outstanding tokens. What is consumed already stays usable.
void revokeSandboxExtensions(ExtensionOwner owner);

/// Tokens of all owners that are outstanding.
std::size_t outstandingSandboxExtensions();

/// A consumed token.
class SandboxExtension {
  public:
    /// Holds nothing when the token is not outstanding. A path that does not name the passed file itself (a
    /// symbolic link to it does not) uses the token up, too, and gives nothing.
    static SandboxExtension consume(const std::string& token, const std::string& path);

    /// Whether there is a file to read.
    explicit operator bool() const { return static_cast<bool>(_file); }
    /// The passed file, open for reading; its offset is shared with the client. -1 when there is none.
    int descriptor() const { return _file.get(); }
    void requestRemoval() const;

  private:
    std::string _token;
    UniqueDescriptor _file;
    RemoveFileRequest _removeFile;
};

}  // namespace quorvane::platform
