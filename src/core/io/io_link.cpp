#include "core/io/io_link.hpp"

#include <fmt/format.h>

IOLinkBase::IOLinkBase(const VTree& config, std::string key) : key_(std::move(key)) {
  config.get(key_, path_);
  if (path_.empty()) throw ConfigError(fmt::format("'{}' needs the setting '{}': the path of an IO", config.path(), key_));
}

IOBase& IOLinkBase::resolve(const Node& owner) {
  const Vertex* top = &owner;
  while (top->parent()) top = top->parent();
  Vertex* found = top->find(path_);
  if (!found)
    throw ConfigError(fmt::format("'{}' setting '{}': no node at '{}'", owner.path(), key_, path_));
  auto* io = dynamic_cast<IOBase*>(found);
  if (!io || !fits(*io))
    throw ConfigError(fmt::format("'{}' setting '{}': '{}' is not {}", owner.path(), key_, path_, kind()));
  io_ = io;
  return *io;
}
