#pragma once
// Least-squares polynomial fit through the normal equations, sized for the
// calibration of a channel: a handful of points, orders up to the cubic.
//
// The Gaussian elimination keeps three properties on purpose, because they
// decide the coefficients on badly conditioned data and calibrations must come
// out the same as they always have:
// - the pivot of a column is the row with the largest *signed* entry, not the
//   largest magnitude (a strictly larger later row wins, ties keep the earlier);
// - a row is reduced over all its columns, also those left of the pivot;
// - a zero pivot is not checked for: it yields infinite or NaN coefficients.
#include <cstddef>
#include <span>
#include <vector>

// The coefficients c0..c<order> (rising powers of x) of the polynomial that
// fits y over x. Throws std::runtime_error "The size of x & y arrays are
// different" or "The size of x or y arrays is 0".
std::vector<double> poly_fit(std::span<const double> x, std::span<const double> y, std::size_t order);
