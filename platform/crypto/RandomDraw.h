#pragma once

namespace quorvane::platform {

/// A uniform draw in [0, 1) from the system's random source. Thread-safe.
double randomDraw();

/// Puts another source behind randomDraw(); null puts the system's back. For tests.
void replaceRandomDraw(double (*source)());

}  // namespace quorvane::platform
