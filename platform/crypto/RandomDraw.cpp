#include "platform/crypto/RandomDraw.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace quorvane::platform {

namespace {

double nextOfGenerator() {
    static std::mutex guard;
    const std::scoped_lock lock(guard);
    return ::drand48();
}

std::atomic<double (*)()> drawSource{nextOfGenerator};

}  // namespace

double randomDraw() {
    return drawSource.load(std::memory_order_relaxed)();
}

void replaceRandomDraw(double (*source)()) {
    drawSource = source != nullptr ? source : nextOfGenerator;
}

}  // namespace quorvane::platform
