#include "platform/crypto/RandomDraw.h"

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdint>

namespace quorvane::platform {

namespace {

/// As many bits as a double's mantissa holds, so that every draw is exact and none rounds up to 1.
constexpr int kDrawBits = 53;

double drawFromSystem() {
    std::uint64_t bits = 0;
    // Fails only where the kernel gives no random bytes at all.
    if (::getentropy(&bits, sizeof bits) != 0) return 0;
    return std::ldexp(static_cast<double>(bits >> (64 - kDrawBits)), -kDrawBits);
}

std::atomic<double (*)()> drawSource{drawFromSystem};

}  // namespace

double randomDraw() {
    return drawSource.load(std::memory_order_relaxed)();
}

void replaceRandomDraw(double (*source)()) {
    drawSource = source != nullptr ? source : drawFromSystem;
}

}  // namespace quorvane::platform
