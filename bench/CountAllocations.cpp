// A library to be preloaded into a program: counts how often the program asks for memory, in the file that
// its environment names.

#include "bench/AllocationFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's own names for what is put in front of it here; looking them up at run time would allocate.
extern "C" {
void* __libc_malloc(std::size_t size);                       // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);    // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* old, std::size_t size);           // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(std::size_t align, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
}

namespace {

using Counter = std::atomic<std::uint64_t>;
static_assert(sizeof(Counter) == quorvane::bench::kAllocationFileSize && Counter::is_always_lock_free);

Counter g_beforeTheFile;
/// Shared with whoever reads the file.
Counter* g_counter = &g_beforeTheFile;

/// Before main(), so that the program may close itself off from the file system.
[[gnu::constructor]] void mapCounter() {
    const char* path = std::getenv(quorvane::bench::kAllocationFileVariable);
    const int file = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* mapped = ::mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (mapped != MAP_FAILED) g_counter = static_cast<Counter*>(mapped);
}

void count() {
    g_counter->fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
    count();
    return __libc_malloc(size);
}

void* calloc(std::size_t elements, std::size_t size) noexcept {
    count();
    return __libc_calloc(elements, size);
}

void* realloc(void* old, std::size_t size) noexcept {
    count();
    return __libc_realloc(old, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) noexcept {
    count();
    *out = __libc_memalign(alignment, size);
    return *out != nullptr ? 0 : ENOMEM;
}

}  // extern "C"
