#pragma once

#include "backends/HeldBytes.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UserAccount.h"
#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace quorvane {

/// The records that a backend holds, in their order, with a count for each method. What it may hold is
/// bounded in bytes, for itself, for its user and for all: a client whose backend never gets to report would
/// otherwise fill the memory. Thread-safe.
class EventBatch {
  public:
    bool isEmpty() const;

    /// Opens the batch if it is closed; how many records of the method it counts.
    std::int32_t open(std::int64_t method);

    enum class Outcome { Held, Lost, NoRoom };

    /// Takes the record and stores its method's count. A closed batch stores the count alone, and the record
    /// is lost. When there is no room for it, the record stays the caller's.
    ///   account  the same from the first record until they are taken
    Outcome hold(Dictionary& record, std::int64_t method, std::int32_t count, platform::UserAccount& account);

    /// Takes the records, of which there must be some, sets all counts to 0 and closes the batch.
    Array take();

    /// Sets "_sessionID" in every record.
    void setSessionID(const std::string& sessionID);

    /// Whether this is the first record dropped since the batch was taken last.
    bool noteDrop();

  private:
    mutable platform::Mutex _lock;
    std::optional<Array> _records GUARDED_BY(_lock);
    std::unordered_map<std::int64_t, std::int32_t> _methodCounts GUARDED_BY(_lock);
    HeldBytes _heldBytes GUARDED_BY(_lock);
    bool _dropNoted GUARDED_BY(_lock) = false;
};

}  // namespace quorvane
