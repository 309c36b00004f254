#include "core/io/permit_io.hpp"

#include <algorithm>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("permit_io", PermitIO);

PermitIO::PermitIO(const VTree& config) : StateIO<bool>(config) {
  set_default("detail", std::string("A generic permit."));
  set_default("icon", std::string("check"));
}

void PermitIO::init() {
  for (auto& child : children())
    child->visit([this](Vertex& v) {
      if (auto* lock = dynamic_cast<InterlockIO*>(&v)) locks_.push_back(lock);
    });
  for (auto* lock : locks_) lock->on_change([this] { evaluate(); });
}

void PermitIO::start() { evaluate(); }

void PermitIO::evaluate() {
  set(std::none_of(locks_.begin(), locks_.end(), [](const InterlockIO* lock) { return lock->is_error(); }));
}
