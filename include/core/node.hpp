#pragma once
// Node: base of every object in the system tree. It is made from its
// configuration subtree, knows its factory type name, carries the attribute
// fields that describe it, and has a life: init once the whole tree exists,
// start after every node is initialised, then the staged stop.
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "core/attribute_fields.hpp"
#include "core/button_field.hpp"
#include "core/field.hpp"
#include "core/vertex.hpp"
#include "core/vtree.hpp"

class Context;
class Root;

class Node : public Vertex {
 public:
  explicit Node(const VTree& config);
  ~Node() override;

  // The factory type name of the most derived class ("AnalogIO", "IO-double").
  std::string type() const;

  // Called once, in tree order, after the whole tree has been built.
  virtual void init() {}
  // Called once, in tree order, after every node's init: settings kept in
  // stores are brought back into the tree here, before anything starts.
  virtual void restore() {}
  // Called once, in tree order, after every node's restore.
  virtual void start() {}

  // A field child by name; logs "Field not found '<name>' on <path>" and
  // returns null when there is none.
  FieldBase* field(std::string_view name) const;

  // The attributes (empty or false when not set).
  std::string label() const { return text_attribute(LabelField::key); }
  std::string detail() const { return text_attribute(DetailField::key); }
  std::string icon() const { return text_attribute(IconField::key); }
  std::string color() const { return text_attribute(ColorField::key); }
  std::string units() const { return text_attribute(UnitsField::key); }
  std::string format() const { return text_attribute(FormatField::key); }
  std::string store() const { return text_attribute(StoreField::key); }
  std::string alias() const { return text_attribute(AliasField::key); }
  std::string permissions() const { return text_attribute(PermissionsField::key); }
  bool hidden() const { return bool_attribute(HiddenField::key); }
  bool readonly() const { return bool_attribute(ReadonlyField::key); }
  bool dynamic() const { return bool_attribute(DynamicField::key); }
  // A descriptive attribute not among the fields above ("confirm", ...).
  std::string extra_attribute(std::string_view key) const;

  // Attributes set by a class: the configured value wins over this default.
  void set_default(std::string_view key, std::string value);
  void set_default(std::string_view key, bool value);
  // Defaults for the three texts every node shows: label, detail and icon.
  void describe(std::string label, std::string detail, std::string icon);
  // Sets an attribute whatever the configuration said (colour following state).
  void set_attribute(std::string_view key, std::string value);
  // The attribute field of that key, or null.
  FieldBase* attribute_field(std::string_view key) const;

  // The execution context whose thread runs this node's work: the nearest
  // context among its ancestors (itself included), else the root's "async".
  // Null outside a tree.
  Context* context() const;
  Root* root() const;

  // Creates the configured children (sub-elements that name a type) that the
  // class's own constructor did not create; failures are logged and skipped.
  // Mistakes that would otherwise pass unseen are logged and counted as
  // configuration errors too: a second element of one name (left out), a
  // typed element named like a child the class makes itself (its type is
  // ignored), and a typed element inside a settings group that the class
  // reads itself (never built).
  void build_configured_children(const VTree& config);
  // Logs a node that could not be built, in the factory's words, and counts
  // it as a configuration error. Also for failures found after construction
  // (a configured path that does not resolve once the tree exists).
  static void report_build_failure(std::string_view path, std::string_view type, std::string_view what);

  // Gives a numeric setting its range, kept for every later write. A value
  // the configuration gave outside it is logged with the range and counted
  // as a configuration error, and `fallback` (when given) replaces it.
  // Returns false when the configured value was refused. `config` is the
  // element the value came from (its path names it in the log).
  template <class T>
  bool restrict_setting(const VTree& config, ValueField<T>& field, FieldRange range,
                        std::type_identity_t<std::optional<T>> fallback) {
    field.set_range(range);
    if (!field.assigned() || range.contains(static_cast<double>(field.get()))) return true;
    report_refused_setting(config, field, range);
    if (fallback) field.set(*fallback);
    return false;
  }

  // A child node made from the named child subtree of `config` (defaults when
  // the subtree is absent, and for each of its settings that does not
  // convert: NodeFactory::make_built_in).
  template <class T, class... Args>
  T& add_node(const VTree& config, std::string_view name, Args&&... args);

  // A field made from the setting of its own name in `config`, if present.
  template <class F, class... Args>
  F& add_setting(const VTree& config, std::string name, Args&&... args) {
    auto& f = add<F>(name, std::forward<Args>(args)...);
    typename F::value_type v{};
    if (config.get(name, v)) f.set(v);
    return f;
  }

 private:
  // Logs a configured value outside its setting's range and counts it as a
  // configuration error.
  static void report_refused_setting(const VTree& config, const FieldBase& field, FieldRange range);

  std::string text_attribute(std::string_view key) const;
  bool bool_attribute(std::string_view key) const;
  void read_attributes(const VTree& config);
};

#include "core/node_factory.hpp"

template <class T, class... Args>
T& Node::add_node(const VTree& config, std::string_view name, Args&&... args) {
  return adopt(NodeFactory::make_built_in<T>(config.child_or_empty(name), args...));
}
