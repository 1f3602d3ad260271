// The process's resident memory, the figure MemLimit and SoftMemLimit are compared with.
#include <unistd.h>

#include <cstdio>

#include "engine/engine.h"

namespace kvr {

double resident_gigabytes() {
  // statm holds sizes in pages: total program size, then the resident set.
  std::FILE *f = std::fopen("/proc/self/statm", "r");
  if (!f) return kNaN;
  unsigned long long size = 0, resident = 0;
  int got = std::fscanf(f, "%llu %llu", &size, &resident);
  std::fclose(f);
  long page = ::sysconf(_SC_PAGESIZE);
  if (got != 2 || page <= 0) return kNaN;
  return static_cast<double>(resident) * static_cast<double>(page) / 1e9;
}

}  // namespace kvr
