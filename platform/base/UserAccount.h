#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

namespace quorvane::platform {

/// What one user makes the process hold, whoever of his processes it is for. There is a bound for each user
/// and one for all, of which the last eighth is kept for root and for users who hold nothing of the kind, so
/// that no user shuts others out. All functions are thread-safe.
class UserAccount : public std::enable_shared_from_this<UserAccount> {
  public:
    enum class Slot : std::size_t {
        Connections,
        Bytes,       ///< Of messages, of calls that wait to be sent, and of what sessions keep.
        EventBytes,  ///< Of events that are held: apart, so that they take no room from messages.
        Files,       ///< Lent, and not used yet.
        Watches,     ///< Connections that are told what happens.
    };
    static constexpr std::size_t kSlots = 5;

    struct Bounds {
        std::size_t perUser;
        std::size_t inAll;
    };

    /// So much of a slot, given back at its end.
    class Charge {
      public:
        Charge() = default;
        Charge(Charge&& other) noexcept { swap(other); }
        Charge& operator=(Charge&& other) noexcept {
            Charge taken(std::move(other));
            swap(taken);
            return *this;
        }
        ~Charge();

        std::size_t amount() const { return _amount; }
        /// Takes so much more; false when it would go past a bound.
        bool grow(std::size_t amount);

      private:
        friend UserAccount;
        Charge(std::shared_ptr<UserAccount> account, Slot slot, std::size_t amount)
            : _account(std::move(account)), _slot(slot), _amount(amount) {}
        void swap(Charge& other) noexcept {
            std::swap(_account, other._account);
            std::swap(_slot, other._slot);
            std::swap(_amount, other._amount);
        }

        std::shared_ptr<UserAccount> _account;
        Slot _slot = Slot::Connections;
        std::size_t _amount = 0;
    };

    static std::shared_ptr<UserAccount> of(uid_t user);
    /// The bounds that a process begins with: 4,096 and 8,192 connections, 256 and 512 MiB, 128 and 256 MiB
    /// of events, 1,024 and 4,096 files, 16 and 64 watches.
    static void setBounds(Slot slot, Bounds bounds);
    static Bounds bounds(Slot slot);

    explicit UserAccount(uid_t user) : _user(user) {}
    ~UserAccount();
    UserAccount(const UserAccount&) = delete;
    UserAccount& operator=(const UserAccount&) = delete;

    /// Nothing when it would go past a bound.
    std::optional<Charge> charge(Slot slot, std::size_t amount);
    /// What the user has of the slot.
    std::size_t taken(Slot slot) const;
    /// What all users have of it.
    static std::size_t takenInAll(Slot slot);

  private:
    bool take(Slot slot, std::size_t amount);

    const uid_t _user;
    std::array<std::size_t, kSlots> _taken{};  ///< Guarded by the lock of all accounts.
};

}  // namespace quorvane::platform
