#pragma once

#include "platform/base/UserAccount.h"

#include <cassert>
#include <cstddef>
#include <optional>

namespace quorvane {

/// Counts the bytes that one backend holds, for itself and in the account of its user. That is charged in
/// blocks, so that hardly an event takes the lock of the accounts. An object belongs to one thread at a time;
/// different ones may be used at once.
class HeldBytes {
  public:
    static constexpr std::size_t kMaximum = 16u << 20;

    /// False, and nothing is added, when they would go past the maximum or a bound of the account.
    bool add(std::size_t bytes, platform::UserAccount& account) {
        assert(_bytes <= kMaximum && "past it the difference would wrap, and nothing be refused");
        if (bytes > kMaximum - _bytes || !charge(_bytes + bytes, account)) return false;
        _bytes += bytes;
        return true;
    }

    void clear() {
        _bytes = 0;
        _charge.reset();
    }

  private:
    static constexpr std::size_t kBlock = 16u << 10;

    bool charge(std::size_t bytes, platform::UserAccount& account) {
        const std::size_t charged = _charge ? _charge->amount() : 0;
        if (bytes <= charged) return true;
        const std::size_t blocks = (bytes - charged + kBlock - 1) / kBlock * kBlock;
        if (_charge) return _charge->grow(blocks);
        _charge = account.charge(platform::UserAccount::Slot::EventBytes, blocks);
        return _charge.has_value();
    }

    std::size_t _bytes = 0;
    std::optional<platform::UserAccount::Charge> _charge;
};

}  // namespace quorvane
