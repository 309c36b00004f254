#include "core/node_factory.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "core/log.hpp"
#include "core/root.hpp"

std::string factory_type_name(std::string name) {
  static constexpr std::string_view prefix = "boost::typeindex::detail::cvr_saver<";
  if (name.size() > 36) {
    auto at = name.find(prefix);
    if (at != std::string::npos) {
      auto begin = at + prefix.size();
      auto end = name.rfind('>');
      if (end == std::string::npos || end < begin) end = name.size();
      std::string inner = name.substr(begin, end - begin);
      inner.erase(0, inner.find_first_not_of(' '));
      inner.erase(inner.find_last_not_of(' ') + 1);
      name = std::move(inner);
    }
  }
  for (char& c : name)
    if (c == '<') c = '-';
  for (char& c : name)
    if (c == ',') c = '-';
  for (char& c : name)
    if (c == ':') c = '-';
  std::erase(name, ' ');
  std::erase(name, '>');
  return name;
}

std::string factory_type_name(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                    std::free);
  if (status != 0 || !demangled) throw std::runtime_error("Type name demangling failed");
  return factory_type_name(std::string(demangled.get()));
}

namespace {

using TypeMap = std::unordered_map<std::string, NodeFactory::Creator>;

std::mutex& map_mutex() {
  static std::mutex* mutex = new std::mutex;  // outlives every static user
  return *mutex;
}
// The holder itself is never destroyed: only the release registered below ends
// the map, so there is exactly one release at exit.
std::shared_ptr<TypeMap>& holder() {
  static auto* h = new std::shared_ptr<TypeMap>;
  return *h;
}
bool type_map_created = false;

// Type name or alias -> type name. Must be used with map_mutex() held; never
// destroyed, like the mutex.
std::unordered_map<std::string, std::string>& type_names() {
  static auto* names = new std::unordered_map<std::string, std::string>;
  return *names;
}

// The map, created on first use; its release is registered for process exit.
// Must be called with map_mutex() held.
std::shared_ptr<TypeMap> type_map() {
  auto& type_map_holder = holder();
  if (!type_map_holder) {
    if (type_map_created) {
      ZEL_ERROR("Factory type map somehow dealocated?!");
      return nullptr;
    }
    type_map_holder = std::make_shared<TypeMap>();
    type_map_holder->max_load_factor(1.0f);
    type_map_created = true;
    std::atexit([] {
      std::lock_guard lock(map_mutex());
      holder().reset();
    });
  }
  return type_map_holder;
}

}  // namespace

void NodeFactory::register_type(const std::string& type_name, const std::string& alias, Creator creator) {
  std::lock_guard lock(map_mutex());
  auto map = type_map();
  if (!map) return;
  (*map)[type_name] = creator;
  type_names()[type_name] = type_name;
  if (!alias.empty() && alias != type_name) {
    (*map)[alias] = std::move(creator);
    type_names()[alias] = type_name;
  }
}

std::unique_ptr<Node> NodeFactory::create(std::string_view type, const VTree& config) {
  Creator creator;
  {
    std::lock_guard lock(map_mutex());
    auto map = type_map();
    if (!map) return nullptr;
    auto it = map->find(std::string(type));
    if (it == map->end()) return nullptr;
    creator = it->second;
  }
  return creator(config);
}

std::string NodeFactory::type_name_of(std::string_view type) {
  std::lock_guard lock(map_mutex());
  auto it = type_names().find(std::string(type));
  return it == type_names().end() ? std::string() : it->second;
}

bool leave_out_bad_setting(VTree& config, const ConfigError& fault) {
  if (fault.key().empty() || fault.path() != config.path() || !config.erase(fault.key())) return false;
  ZEL_ERROR("{}: default kept", fault.what());
  Root::count_configuration_error();
  return true;
}

bool NodeFactory::known(std::string_view type) {
  std::lock_guard lock(map_mutex());
  auto map = type_map();
  return map && map->contains(std::string(type));
}

std::vector<std::string> NodeFactory::registered_names() {
  std::lock_guard lock(map_mutex());
  std::vector<std::string> names;
  if (auto map = type_map())
    for (auto& [name, creator] : *map) names.push_back(name);
  return names;
}
