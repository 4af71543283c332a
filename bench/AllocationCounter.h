#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace quorvane::bench {

/// Counts how often a program asks for memory: malloc and its relatives, C++'s new among them.
class AllocationCounter {
  public:
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    /// What the environment of the program to be counted needs.
    std::map<std::string, std::optional<std::string>> environment() const;

    /// How often it has asked so far.
    std::uint64_t count() const;

  private:
    std::filesystem::path _folder;
};

}  // namespace quorvane::bench
