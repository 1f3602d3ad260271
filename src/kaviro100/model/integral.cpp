#include "model/integral.h"

#include <algorithm>
#include <cmath>

namespace kvr {

void round_integral(const ModelData &m, double tol, double *x, size_t n) {
  const size_t cols = std::min(n, m.vars.vtype.size());
  for (size_t j = 0; j < cols; ++j) {
    const char t = m.vars.vtype[j];
    if (t != KVR_INTEGER && t != KVR_BINARY && t != KVR_SEMIINT) continue;
    const double r = std::nearbyint(x[j]);
    // + 0.0 turns -0.0 into 0.0.
    if (std::fabs(x[j] - r) <= tol) x[j] = r + 0.0;
  }
}

}  // namespace kvr
