#include "core/io/poly_model.hpp"

#include <cmath>

#include <algorithm>
#include <chrono>
#include <span>

#include "core/io/poly_fit.hpp"
#include "core/log.hpp"

ZEL_REGISTER_NODE("poly_model", PolyModel<4, 7>);

namespace {

// A point's value is configured from the point's child element of its name;
// what that leaves open comes from the model: its store, units, permissions
// and format.
VTree point_value_config(const VTree& point, const std::string& name, std::string label, const Node& model,
                         const char* store) {
  VTree config = point.child_or_empty(name);
  config.set_default(std::string(LabelField::key), std::move(label));
  config.set_default(std::string(StoreField::key), store);
  if (auto units = model.units(); !units.empty()) config.set_default(std::string(UnitsField::key), units);
  auto permissions = model.permissions();
  config.set_default(std::string(PermissionsField::key), permissions.empty() ? "rw" : permissions);
  auto format = model.format();
  config.set_default(std::string(FormatField::key), format.empty() ? "%.6g" : format);
  return config;
}

}  // namespace

template <int N, int P>
PolyModel<N, P>::Point::Point(const VTree& config, PolyModel& model) : Component(config) {
  expected_ = &adopt(NodeFactory::make<AnalogIO>(point_value_config(config, "expected", "Expected", model, kStore)));
  measured_ = &adopt(NodeFactory::make<AnalogIO>(point_value_config(config, "measured", "Measured", model, kStore)));
  add<ButtonField>("command_button", "", [this, &model] { model.command(*this); });
  add<ButtonField>("measure_button", "Measure", [this, &model] { model.measure(*this); });
  add<ButtonField>("collect_button", "Collect", [this, &model] { model.collect(*this); });
  expected_->on_change([&model] { model.fit(); });
  measured_->on_change([&model] { model.fit(); });
}

template <int N, int P>
PolyModel<N, P>::PolyModel(const VTree& config) : Component(config), channel_(*this) {
  describe("Calibration Model", "Measurement points and the least-squares fit of a calibration", "calibration");

  auto& group = add_node<Node>(config, "model");
  group.set_default(LabelField::key, std::string("Measurement Data"));
  auto group_config = config.child_or_empty("model");
  for (int i = 0; i < P; ++i) {
    points_[i] = &group.template add_node<Point>(group_config, fmt::format("p{}", i), *this);
    points_[i]->set_default(LabelField::key, fmt::format("Point {}", i + 1));
  }

  order_ = &add<ChoiceField>("order", ChoiceField::Choices{{"linear", "Linear"}, {"quad", "Quadratic"}, {"cubic", "Cubic"}},
                             "linear");
  order_->attributes_for_update().label = "Fit Mode";
  order_->attributes_for_update().store = kStore;
  std::string configured_order;
  if (config.get("order", configured_order)) {
    if (!order_->accepts(configured_order))
      throw ConfigError(fmt::format("Setting 'order' of '{}' is not one of linear, quad, cubic: '{}'", config.path(),
                                    configured_order));
    order_->set(configured_order);
  }

  fit_results_ = &add_node<PolyIO<N>>(config, "fit_results",
                                      [](int, VTree& element) { element.set_default("readonly", "true"); });
  fit_results_->set_default(LabelField::key, std::string("Fit Results"));
  add<ButtonField>("collect_all_button", "Collect All", [this] { collect_all(); });

  fit_failed_ = &add<ValueField<bool>>("fit_failed");
  fit_failed_->set_readonly(true);
  fit_failed_->attributes_for_update().label = "Fit Failed";
  channel_path_ = &add_setting<ValueField<std::string>>(config, "channel");
  channel_path_->set_readonly(true);
  channel_path_->attributes_for_update().label = "Channel";
  output_path_ = &add_setting<ValueField<std::string>>(config, "output");
  output_path_->set_readonly(true);
  output_path_->attributes_for_update().label = "Output";
  settle_time_ = &add_setting<ValueField<double>>(config, "settle_time");
  if (!settle_time_->assigned()) settle_time_->set(1.0);
  settle_time_->attributes_for_update().label = "Settle Time";
  settle_time_->attributes_for_update().units = "s";

  order_->listen([this] { fit(); });
}

template <int N, int P>
PolyModel<N, P>::~PolyModel() = default;

template <int N, int P>
void PolyModel<N, P>::resolve_channel() {
  channel_.resolve(channel_path_->get(), output_path_->get());
}

template <int N, int P>
void PolyModel<N, P>::init() {
  resolve_channel();
  fit();
}

template <int N, int P>
std::size_t PolyModel<N, P>::fit_order() const {
  return std::min<std::size_t>(order_->index() + 1, N - 1);
}

template <int N, int P>
bool PolyModel<N, P>::fit() {
  std::lock_guard lock(fit_mutex_);
  std::array<double, P> x{};
  std::array<double, P> y{};
  for (int i = 0; i < P; ++i) {
    auto& point = *points_[i];
    if (!point.expected().assigned() || !point.measured().assigned()) return fail();
    x[i] = point.measured().get();
    y[i] = point.expected().get();
  }
  auto coefficients = poly_fit(x, y, fit_order());
  coefficients.resize(N, 0.0);
  for (int k = 0; k < N; ++k) (*fit_results_)[k].set(coefficients[k]);
  // A solution that is not finite (a zero pivot) is no fit at all.
  for (double c : coefficients)
    if (!std::isfinite(c)) return fail();
  fit_failed_->set(false);
  set_attribute(ColorField::key, "green");
  return true;
}

template <int N, int P>
bool PolyModel<N, P>::fail() {
  fit_failed_->set(true);
  set_attribute(ColorField::key, "red");
  return false;
}

template <int N, int P>
bool PolyModel<N, P>::command(Point& point) {
  if (channel_.output() && !point.expected().assigned()) {
    ZEL_ERROR("{} has no expected value to command", point.path());
    return false;
  }
  return channel_.command(point.expected().get());
}

template <int N, int P>
bool PolyModel<N, P>::collect(Point& point) {
  double raw = 0.0;
  if (!channel_.read(raw)) return false;
  point.measured().set(raw);
  return true;
}

template <int N, int P>
void PolyModel<N, P>::measure(Point& point) {
  Point* one = &point;
  enqueue(std::span<Point* const>(&one, 1));
}

template <int N, int P>
void PolyModel<N, P>::collect_all() {
  enqueue(points_);
}

template <int N, int P>
void PolyModel<N, P>::enqueue(std::span<Point* const> points) {
  {
    std::lock_guard lock(queue_mutex_);
    if (stopped_) return;
    queue_.insert(queue_.end(), points.begin(), points.end());
    if (busy_) return;
    busy_ = true;
  }
  run_next_measurement();
}

template <int N, int P>
bool PolyModel<N, P>::measuring() const {
  std::lock_guard lock(queue_mutex_);
  return busy_;
}

// One measurement: command (when an output is attached), settle, collect. The
// settling wait is a timer on the model's context, so the context stays free.
template <int N, int P>
void PolyModel<N, P>::run_next_measurement() {
  for (;;) {
    Point* point = nullptr;
    {
      std::lock_guard lock(queue_mutex_);
      if (stopped_ || queue_.empty()) {
        busy_ = false;
        return;
      }
      point = queue_.front();
      queue_.pop_front();
    }
    if (channel_.output() && !command(*point)) continue;  // nothing was set up to measure

    double seconds = std::clamp(settle_time_->get(), 0.0, 3600.0);
    Context* context = this->context();
    if (!(seconds > 0.0) || !context || !context->running()) {
      collect(*point);
      continue;
    }
    std::lock_guard lock(queue_mutex_);
    if (stopped_) {
      busy_ = false;
      return;
    }
    auto period = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
    settle_timer_ = context->every(period, [this, context, point] {
      {
        std::lock_guard lock(queue_mutex_);
        context->cancel(settle_timer_);  // a one-shot wait
        settle_timer_ = 0;
      }
      collect(*point);
      run_next_measurement();
    });
    return;
  }
}

template <int N, int P>
void PolyModel<N, P>::stop(StopStage stage) {
  Component::stop(stage);
  if (stage != StopStage::Stop0) return;
  std::lock_guard lock(queue_mutex_);
  stopped_ = true;
  queue_.clear();
  if (settle_timer_) {
    if (auto* context = this->context()) context->cancel(settle_timer_);
    settle_timer_ = 0;
  }
  busy_ = false;
}

template class PolyModel<4, 7>;
