// Facts about the machine that do not change while the process runs.
#pragma once

#include <thread>

namespace kvr {

// The machine's hardware threads as the standard library reports them (0: unknown), asked once:
// the system reads them from a file on every call, which a fast re-solve would feel.
inline unsigned machine_threads() {
  static const unsigned count = std::thread::hardware_concurrency();
  return count;
}

}  // namespace kvr
