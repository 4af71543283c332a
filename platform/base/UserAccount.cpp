#include "platform/base/UserAccount.h"

#include "platform/base/ThreadAnnotations.h"

#include <cassert>
#include <map>

namespace quorvane::platform {

namespace {

constexpr std::size_t kReservedPart = 8;

struct Books {
    Mutex mutex;
    std::map<uid_t, std::weak_ptr<UserAccount>> accounts GUARDED_BY(mutex);
    std::array<UserAccount::Bounds, UserAccount::kSlots> bounds GUARDED_BY(mutex){
        UserAccount::Bounds{4096, 8192},
        {256u << 20, 512u << 20},
        {128u << 20, 256u << 20},
        {1024, 4096},
        {16, 64}};
    std::array<std::size_t, UserAccount::kSlots> taken GUARDED_BY(mutex){};
};

/// Never destroyed: threads of connections may outlive the end of main().
Books& books() {
    static Books& all = *new Books;
    return all;
}

bool isRoom(std::size_t taken, std::size_t amount, std::size_t most) {
    return amount <= most && taken <= most - amount;
}

}  // namespace

std::shared_ptr<UserAccount> UserAccount::of(uid_t user) {
    const MutexLock lock(books().mutex);
    std::weak_ptr<UserAccount>& kept = books().accounts[user];
    if (auto account = kept.lock()) return account;
    auto account = std::make_shared<UserAccount>(user);
    kept = account;
    return account;
}

UserAccount::~UserAccount() {
    const MutexLock lock(books().mutex);
    const auto own = books().accounts.find(_user);
    // Another may have been opened since the last share of this one went.
    if (own != books().accounts.end() && own->second.expired()) books().accounts.erase(own);
}

void UserAccount::setBounds(Slot slot, Bounds bounds) {
    const MutexLock lock(books().mutex);
    books().bounds[static_cast<std::size_t>(slot)] = bounds;
}

UserAccount::Bounds UserAccount::bounds(Slot slot) {
    const MutexLock lock(books().mutex);
    return books().bounds[static_cast<std::size_t>(slot)];
}

std::optional<UserAccount::Charge> UserAccount::charge(Slot slot, std::size_t amount) {
    if (!take(slot, amount)) return std::nullopt;
    return Charge(shared_from_this(), slot, amount);
}

bool UserAccount::take(Slot slot, std::size_t amount) {
    const auto at = static_cast<std::size_t>(slot);
    const MutexLock lock(books().mutex);
    const Bounds& bounds = books().bounds[at];
    const bool mayUseReserve = _user == 0 || _taken[at] == 0;
    const std::size_t inAll = mayUseReserve ? bounds.inAll : bounds.inAll - bounds.inAll / kReservedPart;
    if (!isRoom(_taken[at], amount, bounds.perUser) || !isRoom(books().taken[at], amount, inAll))
        return false;
    _taken[at] += amount;
    books().taken[at] += amount;
    return true;
}

std::size_t UserAccount::taken(Slot slot) const {
    const MutexLock lock(books().mutex);
    return _taken[static_cast<std::size_t>(slot)];
}

std::size_t UserAccount::takenInAll(Slot slot) {
    const MutexLock lock(books().mutex);
    return books().taken[static_cast<std::size_t>(slot)];
}

bool UserAccount::Charge::grow(std::size_t amount) {
    assert(_account != nullptr && "nothing was charged that could grow");
    if (!_account->take(_slot, amount)) return false;
    _amount += amount;
    return true;
}

UserAccount::Charge::~Charge() {
    if (_account == nullptr) return;
    const auto at = static_cast<std::size_t>(_slot);
    const MutexLock lock(books().mutex);
    // What is given back was taken, or every later charge would be let past the bounds.
    assert(_account->_taken[at] >= _amount && books().taken[at] >= _amount);
    _account->_taken[at] -= _amount;
    books().taken[at] -= _amount;
}

}  // namespace quorvane::platform
