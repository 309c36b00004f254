#include "core/io/digital_interlock_io.hpp"

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("digital_interlock_io", DigitalInterlockIO);

DigitalInterlockIO::DigitalInterlockIO(const VTree& config) : DigitalInterlockIO(config, IOLink<bool>(config, "input")) {}

DigitalInterlockIO::DigitalInterlockIO(const VTree& config, DigitalIO& input)
    : DigitalInterlockIO(config, IOLink<bool>(input)) {}

DigitalInterlockIO::DigitalInterlockIO(const VTree& config, IOLink<bool> input)
    : InterlockIO(config), input_(std::move(input)), polarity_(add_setting<ValueField<int>>(config, "polarity")) {
  if (!polarity_.assigned()) polarity_.set(1);
  polarity_.attributes_for_update().detail = "Non-zero: error while the input is true; zero: error while it is false.";
  set_condition_function([this] { return digital_code(); });
  polarity_.listen([this] { refresh(); });
  if (input_.bound()) watch(*input_.io());
}

void DigitalInterlockIO::init() { link_inputs({&input_}); }

std::string DigitalInterlockIO::describe_condition() const {
  auto text = describe_exception();
  if (!text.empty()) return text;
  auto* input = input_.get();
  if (!input) return "no input";
  return fmt::format("'{}' is {} (in error while {})", input->path(),
                     input->assigned() ? (input->get() ? "true" : "false") : "not assigned",
                     polarity_.get() != 0 ? "true" : "false");
}

int DigitalInterlockIO::digital_code() const {
  auto* input = input_.get();
  if (!input || !input->assigned()) return Ok;
  bool value = input->get();
  bool error = polarity_.get() != 0 ? value : !value;
  return error ? Error : Ok;
}
