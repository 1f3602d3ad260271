// Convexity of quadratic forms (the objective, and the quadratic constraints through the outer
// approximation): x'Qx must be positive semi-definite up to PSDTol. The terms split into
// independent blocks of variables linked by cross terms; a block passes at once when it is
// diagonally dominant, otherwise a pivoted Cholesky factorization decides.
#include "reform/psd.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>
#include <unordered_map>

#include "reform/internal.h"
#include "util/error.h"

namespace kvr {
namespace {

// Larger blocks that are not diagonally dominant are not factorized (the caller is told).
constexpr int kDenseLimit = 2000;

int find_root(std::vector<int> &parent, int i) {
  while (parent[i] != i) i = parent[i] = parent[parent[i]];
  return i;
}

}  // namespace

std::optional<Curvature> find_negative_curvature(const QuadTerms &q, int n, double sign,
                                                 double psdtol, int *unchecked) {
  if (q.size() == 0) return std::nullopt;
  // Symmetric form S with x'Qx = x'Sx: S_jj = q_jj, S_ij = S_ji = q_ij / 2.
  std::vector<double> diag(n, 0.0);
  std::vector<int> parent(n);
  std::iota(parent.begin(), parent.end(), 0);
  std::vector<char> used(n, 0);
  for (size_t k = 0; k < q.size(); ++k) {
    int r = q.row[k], c = q.col[k];
    used[r] = used[c] = 1;
    if (r == c) {
      diag[r] += sign * q.val[k];
    } else {
      int a = find_root(parent, r), b = find_root(parent, c);
      if (a != b) parent[a] = b;
    }
  }
  std::vector<double> offsum(n, 0.0);
  for (size_t k = 0; k < q.size(); ++k)
    if (q.row[k] != q.col[k]) {
      double h = std::fabs(q.val[k]) / 2;
      offsum[q.row[k]] += h;
      offsum[q.col[k]] += h;
    }
  // Blocks and their diagonal dominance.
  std::unordered_map<int, std::vector<int>> blocks;
  for (int j = 0; j < n; ++j)
    if (used[j]) blocks[find_root(parent, j)].push_back(j);
  for (auto &[root, vars] : blocks) {
    bool dominant = true;
    for (int j : vars) {
      if (diag[j] < -psdtol) return Curvature{j, diag[j]};
      if (diag[j] - offsum[j] < -psdtol) dominant = false;
    }
    if (dominant) continue;
    if (static_cast<int>(vars.size()) > kDenseLimit) {
      if (unchecked) ++*unchecked;
      continue;
    }
    // Dense pivoted Cholesky of the block.
    const int b = static_cast<int>(vars.size());
    std::unordered_map<int, int> pos;
    for (int i = 0; i < b; ++i) pos[vars[i]] = i;
    std::vector<double> a(static_cast<size_t>(b) * b, 0.0);
    auto at = [&](int i, int j) -> double & { return a[static_cast<size_t>(i) * b + j]; };
    for (int i = 0; i < b; ++i) at(i, i) = diag[vars[i]];
    for (size_t k = 0; k < q.size(); ++k) {
      int r = q.row[k], c = q.col[k];
      if (r == c) continue;
      auto ir = pos.find(r);
      if (ir == pos.end()) continue;
      int i = ir->second, j = pos[c];
      at(i, j) += sign * q.val[k] / 2;
      at(j, i) += sign * q.val[k] / 2;
    }
    std::vector<char> done(b, 0);
    for (int step = 0; step < b; ++step) {
      int p = -1;
      for (int i = 0; i < b; ++i)
        if (!done[i] && (p < 0 || at(i, i) > at(p, p))) p = i;
      double d = at(p, p);
      if (d < -psdtol) return Curvature{vars[p], d};
      if (d <= psdtol) {
        // What remains must vanish: any sizeable coupling makes a 2x2 minor negative.
        for (int i = 0; i < b; ++i)
          for (int j = 0; j < b; ++j)
            if (!done[i] && !done[j] && i != j && std::fabs(at(i, j)) > psdtol)
              return Curvature{vars[i], -std::fabs(at(i, j))};
        break;
      }
      done[p] = 1;
      for (int i = 0; i < b; ++i) {
        if (done[i] || at(i, p) == 0.0) continue;
        double f = at(i, p) / d;
        for (int j = 0; j < b; ++j)
          if (!done[j]) at(i, j) -= f * at(p, j);
      }
    }
  }
  return std::nullopt;
}

void check_convex_objective(const ModelData &m, const ParamValues &params) {
  const double sign = m.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  auto bad = find_negative_curvature(m.q, m.num_vars(), sign, params.get_dbl(ParamId::PSDTol));
  if (!bad) return;
  fail(KVR_ERROR_Q_NOT_PSD,
       "Objective Q not %s: the quadratic terms of variable %s give curvature %g beyond PSDTol; "
       "the engine solves convex quadratic objectives only%s",
       m.sense == KVR_MAXIMIZE ? "negative semi-definite (maximization)" : "positive semi-definite",
       reform::var_name(m, bad->var).c_str(), bad->value, nonconvex_note(params));
}

const char *nonconvex_note(const ParamValues &params) {
  return params.get_int(ParamId::NonConvex) == 2
             ? " (NonConvex 2 cannot be honoured: the engine has no spatial branching)"
             : "";
}

}  // namespace kvr
