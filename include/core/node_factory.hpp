#pragma once
// NodeFactory: the process-wide map from type name or alias to a creator that
// makes a node from its configuration subtree.
//
// A class's type name comes from its demangled run-time type name: the
// argument of a "boost::typeindex::detail::cvr_saver<...>" wrapper is taken
// out, '<', ',' and ':' become '-', and blanks and '>' are removed. So IO<double>
// is "IO-double" and B in namespace A is "A--B". Node::type reports the same.
//
// Every node class registers itself from its own source file, before main:
//   ZEL_REGISTER_NODE("analog_io", AnalogIO);
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "core/vtree.hpp"

class Node;

// Steps 2 to 4 of the type-name rule, applied to a demangled name.
std::string factory_type_name(std::string demangled);
// The whole rule for a run-time type; throws "Type name demangling failed".
std::string factory_type_name(const std::type_info& type);

class NodeFactory {
 public:
  using Creator = std::function<std::unique_ptr<Node>(const VTree&)>;

  // Registers `creator` under the class's type name and under `alias`.
  static void register_type(const std::string& type_name, const std::string& alias, Creator creator);

  // A new node of the named type (type name or alias); null for an unknown
  // name. Exceptions of the creator pass through.
  static std::unique_ptr<Node> create(std::string_view type, const VTree& config);
  static bool known(std::string_view type);
  // The type name that a type name or alias registers ("analog_io" gives
  // "AnalogIO"); empty for an unknown name.
  static std::string type_name_of(std::string_view type);
  static std::vector<std::string> registered_names();

  // Constructs T from `config` and then the configured children that T's own
  // constructor did not create.
  template <class T, class... Args>
  static std::unique_ptr<T> make(const VTree& config, Args&&... args);
  // make<T> for a node that must exist whatever the configuration says (the
  // root, a class's built-in children): a setting of its own that does not
  // convert is logged, counted as a configuration error and left out, so the
  // node keeps that setting's default.
  template <class T, class... Args>
  static std::unique_ptr<T> make_built_in(VTree config, Args&... args);

  template <class T>
  struct Registration {
    explicit Registration(const char* alias) {
      register_type(factory_type_name(typeid(T)), alias,
                    [](const VTree& config) -> std::unique_ptr<Node> { return make<T>(config); });
    }
  };
};

#define ZEL_CONCAT_INNER(a, b) a##b
#define ZEL_CONCAT(a, b) ZEL_CONCAT_INNER(a, b)
#define ZEL_REGISTER_NODE(alias, ...) \
  static const NodeFactory::Registration<__VA_ARGS__> ZEL_CONCAT(zel_node_registration_, __COUNTER__) { alias }

#include "core/node.hpp"

template <class T, class... Args>
std::unique_ptr<T> NodeFactory::make(const VTree& config, Args&&... args) {
  auto node = std::make_unique<T>(config, std::forward<Args>(args)...);
  node->build_configured_children(config);
  return node;
}

// Logs and counts `fault` and removes its setting from `config`; false (the
// fault is not one of config's own settings) leaves both alone.
bool leave_out_bad_setting(VTree& config, const ConfigError& fault);

template <class T, class... Args>
std::unique_ptr<T> NodeFactory::make_built_in(VTree config, Args&... args) {
  for (;;) {
    try {
      return make<T>(config, args...);
    } catch (const ConfigError& fault) {
      if (!leave_out_bad_setting(config, fault)) throw;
    }
  }
}
