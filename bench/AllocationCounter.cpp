#include "bench/AllocationCounter.h"

#include "bench/AllocationFile.h"
#include "bench/Folders.h"

#include <fstream>

namespace quorvane::bench {

namespace {

constexpr const char* kFile = "allocations";

}  // namespace

AllocationCounter::AllocationCounter() : _folder(makeFolder()) {
    std::ofstream(_folder / kFile, std::ios::binary) << std::string(kAllocationFileSize, '\0');
}

AllocationCounter::~AllocationCounter() {
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
}

std::map<std::string, std::optional<std::string>> AllocationCounter::environment() const {
    return {{"LD_PRELOAD", programPath("bench/libquorvane-bench-allocations.so")},
            {kAllocationFileVariable, _folder / kFile}};
}

std::uint64_t AllocationCounter::count() const {
    std::uint64_t count = 0;
    std::ifstream(_folder / kFile, std::ios::binary).read(reinterpret_cast<char*>(&count), sizeof count);
    return count;
}

}  // namespace quorvane::bench
