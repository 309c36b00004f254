#include "core/io/io.hpp"

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("io", IOBase);
ZEL_REGISTER_NODE("analog_io", AnalogIO);
ZEL_REGISTER_NODE("digital_io", DigitalIO);
ZEL_REGISTER_NODE("string_io", StringIO);

IOBase::IOBase(const VTree& config) : Node(config) {}

AnalogIO::AnalogIO(const VTree& config) : IO<double>(config) {}
DigitalIO::DigitalIO(const VTree& config) : IO<bool>(config) {}
StringIO::StringIO(const VTree& config) : IO<std::string>(config) {}
