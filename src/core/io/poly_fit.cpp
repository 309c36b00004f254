#include "core/io/poly_fit.hpp"

#include <cmath>
#include <stdexcept>
#include <utility>

std::vector<double> poly_fit(std::span<const double> x, std::span<const double> y, std::size_t order) {
  if (x.size() != y.size()) throw std::runtime_error("The size of x & y arrays are different");
  if (x.empty()) throw std::runtime_error("The size of x or y arrays is 0");

  const std::size_t n = order;
  const std::size_t rows = n + 1;
  const std::size_t cols = n + 2;  // the normal matrix and the right-hand side

  // Power sums S[k] = sum x^k for k = 0..2n, and the right-hand side sum x^i y;
  // both accumulate in point order.
  std::vector<double> sums(2 * n + 1, 0.0);
  std::vector<double> b(rows * cols, 0.0);
  auto at = [&](std::size_t i, std::size_t j) -> double& { return b[i * cols + j]; };
  for (std::size_t p = 0; p < x.size(); ++p) {
    for (std::size_t k = 0; k <= 2 * n; ++k) {
      // pow(x, 0) and pow(x, 1) are exactly 1 and x: only the others need the call.
      double power = k == 0 ? 1.0 : k == 1 ? x[p] : std::pow(x[p], static_cast<double>(k));
      sums[k] += power;
      if (k <= n) at(k, n + 1) += power * y[p];
    }
  }
  for (std::size_t i = 0; i < rows; ++i)
    for (std::size_t j = 0; j <= n; ++j) at(i, j) = sums[i + j];

  for (std::size_t i = 0; i < rows; ++i) {
    // Signed comparison on purpose (see the header).
    for (std::size_t k = i + 1; k < rows; ++k) {
      if (at(i, i) < at(k, i))
        for (std::size_t j = 0; j < cols; ++j) std::swap(at(i, j), at(k, j));
    }
    for (std::size_t k = i + 1; k < rows; ++k) {
      double t = at(k, i) / at(i, i);
      for (std::size_t j = 0; j < cols; ++j) at(k, j) -= t * at(i, j);
    }
  }

  // Back substitution; the coefficients not yet solved are still zero.
  std::vector<double> c(rows, 0.0);
  for (std::size_t i = rows; i-- > 0;) {
    c[i] = at(i, n + 1);
    for (std::size_t j = 0; j < rows; ++j)
      if (j != i) c[i] -= at(i, j) * c[j];
    c[i] /= at(i, i);
  }
  return c;
}
