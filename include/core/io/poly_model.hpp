#pragma once
// PolyModel<N, P>: the measurement model of one calibration. It holds P points,
// each a pair of an expected (reference) value and a measured raw reading, the
// order of the polynomial to fit ("Fit Mode") and the fit's N coefficients.
//
// The fit maps a raw measured reading to the expected value. It runs whenever
// a point's value or the order changes (and once at init). While any point
// lacks either value the fit fails: `fit_failed` is raised, the model turns
// red and the previous results stay.
//
// The buttons act on the attached CalibrationChannel ("channel", "output"):
//   command_button      sets the output to the point's expected value;
//   collect_button      copies the channel's present reading into `measured`;
//   measure_button      commands (when an output is attached), waits
//                       "settle_time" seconds, then collects;
//   collect_all_button  measures every point in turn.
// Measurements queue up and run one after another on the model's context.
#include <cstddef>
#include <deque>
#include <mutex>
#include <span>

#include "core/choice_field.hpp"
#include "core/component.hpp"
#include "core/context.hpp"
#include "core/io/calibration_channel.hpp"
#include "core/io/io.hpp"
#include "core/io/poly_io.hpp"

template <int N, int P>
class PolyModel : public Component {
  static_assert(N >= 2 && P > 0);

 public:
  // The store that keeps the points and the fit mode.
  static constexpr const char* kStore = "calibration";

  class Point : public Component {
   public:
    Point(const VTree& config, PolyModel& model);

    AnalogIO& expected() const { return *expected_; }
    AnalogIO& measured() const { return *measured_; }

   private:
    AnalogIO* expected_;
    AnalogIO* measured_;
  };

  explicit PolyModel(const VTree& config);
  ~PolyModel() override;

  void init() override;
  void stop(StopStage stage) override;

  // Fits all points with the selected order. On success stores the N
  // coefficients in the fit results and lowers `fit_failed`; otherwise raises
  // it and keeps the previous results. Returns whether it succeeded.
  bool fit();
  // The order `order` selects: 1 "linear", 2 "quad", 3 "cubic" (at most N - 1).
  std::size_t fit_order() const;

  // The button actions; see above.
  bool command(Point& point);
  bool collect(Point& point);
  void measure(Point& point);
  void collect_all();
  // True while measurements are queued or waiting to settle.
  bool measuring() const;

  static constexpr int points() { return P; }
  Point& point(int i) const { return *points_[i]; }
  ChoiceField& order() const { return *order_; }
  PolyIO<N>& fit_results() const { return *fit_results_; }
  ValueField<bool>& fit_failed() const { return *fit_failed_; }
  ValueField<double>& settle_time() const { return *settle_time_; }
  // Resolved at init (call resolve_channel() to have it earlier).
  CalibrationChannel& channel() { return channel_; }
  void resolve_channel();

 private:
  bool fail();
  void enqueue(std::span<Point* const> points);
  void run_next_measurement();

  ChoiceField* order_;
  PolyIO<N>* fit_results_;
  ValueField<bool>* fit_failed_;
  ValueField<std::string>* channel_path_;
  ValueField<std::string>* output_path_;
  ValueField<double>* settle_time_;
  std::array<Point*, P> points_{};
  CalibrationChannel channel_;
  std::mutex fit_mutex_;

  mutable std::mutex queue_mutex_;  // guards the four below
  std::deque<Point*> queue_;
  bool busy_ = false;
  bool stopped_ = false;
  Context::TimerId settle_timer_ = 0;
};

extern template class PolyModel<4, 7>;
