#pragma once
// PolyIO<N>: a polynomial held as N analog IOs, its coefficients in rising
// order: "offset", "gain", "quadratic", "cubic" (as many as N). The active
// calibration of a channel is one; so are a calibration's fit results.
#include <array>

#include "core/io/io.hpp"
#include "core/io/io_array_node.hpp"

template <int N>
class PolyIO : public IOArrayNode<AnalogIO, N> {
  static_assert(N >= 1 && N <= 4, "a polynomial up to the cubic");
  using Base = IOArrayNode<AnalogIO, N>;

 public:
  explicit PolyIO(const VTree& config, const typename Base::Prepare& prepare = {})
      : Base(config, coefficients(), prepare) {}

  // The polynomial at x with the present coefficients (coefficient k
  // multiplies x to the power k).
  double evaluate(double x) const {
    double sum = 0.0;
    for (int k = N; k-- > 0;) sum = sum * x + (*this)[k].get();
    return sum;
  }

 private:
  static typename Base::Elements coefficients() {
    static constexpr typename Base::Element all[] = {
        {"offset", "Offset"}, {"gain", "Gain"}, {"quadratic", "Quadratic"}, {"cubic", "Cubic"}};
    typename Base::Elements out{};
    for (int k = 0; k < N; ++k) out[k] = all[k];
    return out;
  }
};
