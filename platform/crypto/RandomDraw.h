#pragma once

namespace quorvane::platform {

/// A uniform draw in [0, 1) from the process's 48-bit linear congruential generator (drand48(3)), which
/// nothing seeds. Thread-safe.
double randomDraw();

/// Puts another source behind randomDraw(); null puts the generator back. For tests.
void replaceRandomDraw(double (*source)());

}  // namespace quorvane::platform
