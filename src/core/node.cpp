#include "core/node.hpp"

#include <algorithm>
#include <mutex>
#include <typeindex>
#include <unordered_map>

#include "core/context.hpp"
#include "core/log.hpp"
#include "core/root.hpp"

ZEL_REGISTER_NODE("node", Node);

namespace {

// Attribute fields count as assigned from the start, so clients see them.
template <class F>
std::unique_ptr<FieldBase> make_attribute(std::string value) {
  auto field = std::make_unique<F>();
  if constexpr (std::is_same_v<typename F::value_type, bool>) {
    bool b = false;
    x2x::from_json(value, b);
    field->set(b);
  } else {
    field->set(std::move(value));
  }
  return field;
}

// The smallest change of an IO's value that monitors of its value report
// (the EPICS server's monitors); read as an extra attribute.
class DeadbandField : public AttributeField<std::string> {
 public:
  static constexpr std::string_view key = "deadband";
  explicit DeadbandField(std::string value = {}) : AttributeField<std::string>(std::string(key), std::move(value)) {}
};

using AttributeMaker = std::unique_ptr<FieldBase> (*)(std::string);

struct AttributeKind {
  std::string_view key;
  AttributeMaker make;
  bool is_bool;
};

constexpr AttributeKind kAttributeKinds[] = {
    {LabelField::key, &make_attribute<LabelField>, false},
    {DetailField::key, &make_attribute<DetailField>, false},
    {IconField::key, &make_attribute<IconField>, false},
    {ColorField::key, &make_attribute<ColorField>, false},
    {UnitsField::key, &make_attribute<UnitsField>, false},
    {FormatField::key, &make_attribute<FormatField>, false},
    {StoreField::key, &make_attribute<StoreField>, false},
    {AliasField::key, &make_attribute<AliasField>, false},
    {PermissionsField::key, &make_attribute<PermissionsField>, false},
    {ReadonlyField::key, &make_attribute<ReadonlyField>, true},
    {HiddenField::key, &make_attribute<HiddenField>, true},
    {DynamicField::key, &make_attribute<DynamicField>, true},
    {DeadbandField::key, &make_attribute<DeadbandField>, false},
};

const AttributeKind* attribute_kind(std::string_view key) {
  for (auto& kind : kAttributeKinds)
    if (kind.key == key) return &kind;
  return nullptr;
}

}  // namespace

Node::Node(const VTree& config) : Vertex(config.name()) { read_attributes(config); }

Node::~Node() = default;

std::string Node::type() const {
  static std::mutex mutex;
  static std::unordered_map<std::type_index, std::string> names;
  std::type_index key(typeid(*this));
  std::lock_guard lock(mutex);
  auto it = names.find(key);
  if (it == names.end()) it = names.emplace(key, factory_type_name(typeid(*this))).first;
  return it->second;
}

void Node::read_attributes(const VTree& config) {
  for (auto& [key, value] : config.attributes()) {
    auto* kind = attribute_kind(key);
    if (!kind) continue;
    if (kind->is_bool) {
      bool b;
      if (!x2x::from_json(value, b))
        throw ConfigError(fmt::format("Setting '{}' of '{}' can't be read as bool: '{}'", key, config.path(), value),
                          config.path(), key);
    }
    adopt(kind->make(value));
  }
}

FieldBase* Node::attribute_field(std::string_view key) const {
  for (auto& c : children()) {
    if (c->name() != key || !c->is_field()) continue;
    auto* f = static_cast<FieldBase*>(c.get());
    if (!f->admitted()) return f;
  }
  return nullptr;
}

std::string Node::text_attribute(std::string_view key) const {
  if (auto* f = dynamic_cast<Field<std::string>*>(attribute_field(key))) return f->get();
  return {};
}

bool Node::bool_attribute(std::string_view key) const {
  if (auto* f = dynamic_cast<Field<bool>*>(attribute_field(key))) return f->get();
  return false;
}

std::string Node::extra_attribute(std::string_view key) const { return text_attribute(key); }

void Node::set_attribute(std::string_view key, std::string value) {
  if (auto* f = attribute_field(key)) {
    if (auto* text = dynamic_cast<Field<std::string>*>(f)) text->set(value);
    else f->read_json(value);
    return;
  }
  if (auto* kind = attribute_kind(key)) {
    adopt(kind->make(std::move(value)));
    return;
  }
  auto& field = add<AttributeField<std::string>>(std::string(key));
  field.set(std::move(value));
}

void Node::set_default(std::string_view key, std::string value) {
  if (attribute_field(key)) return;
  set_attribute(key, std::move(value));
}

void Node::set_default(std::string_view key, bool value) { set_default(key, std::string(value ? "true" : "false")); }

void Node::describe(std::string label, std::string detail, std::string icon) {
  set_default(LabelField::key, std::move(label));
  set_default(DetailField::key, std::move(detail));
  set_default(IconField::key, std::move(icon));
}

void Node::report_refused_setting(const VTree& config, const FieldBase& field, FieldRange range) {
  ZEL_ERROR("Setting '{}' of '{}' refused: {} is out of range: takes {}", field.name(), config.path(), field.json(),
            range.describe());
  Root::count_configuration_error();
}

FieldBase* Node::field(std::string_view name) const {
  auto* c = child(name);
  if (c && c->is_field()) return static_cast<FieldBase*>(c);
  ZEL_ERROR("Field not found '{}' on {}", name, path());
  return nullptr;
}

Context* Node::context() const {
  for (const Vertex* v = this; v; v = v->parent()) {
    if (auto* c = dynamic_cast<const Context*>(v)) return const_cast<Context*>(c);
  }
  auto* r = root();
  return r ? &r->async() : nullptr;
}

Root* Node::root() const {
  const Vertex* top = this;
  while (top->parent()) top = top->parent();
  return dynamic_cast<Root*>(const_cast<Vertex*>(top));
}

namespace {

template <class... Args>
void report_mistake(fmt::format_string<Args...> text, Args&&... args) {
  ZEL_ERROR(text, std::forward<Args>(args)...);
  Root::count_configuration_error();
}

// Typed elements at any depth of a settings group that no node is made of.
void report_typed_elements_in_group(const VTree& group, const VTree& sub) {
  for (auto& element : sub.children()) {
    if (!element.type().empty())
      report_mistake("Element '{}' of type '{}' lies in the settings group '{}', which makes no nodes: left out",
                     element.path(), element.type(), group.path());
    else report_typed_elements_in_group(group, element);
  }
}

}  // namespace

void Node::build_configured_children(const VTree& config) {
  std::vector<std::string_view> names;
  for (auto& sub : config.children()) {
    if (std::find(names.begin(), names.end(), sub.name()) != names.end()) {
      report_mistake("Element '{}' repeats the name of an earlier sibling: left out", sub.path());
      continue;
    }
    names.push_back(sub.name());
    Vertex* made = child(sub.name());  // by the class itself
    auto* made_node = dynamic_cast<Node*>(made);
    if (sub.type().empty()) {
      // A named subtree: made into a node by the class (which built its
      // children), or a settings group the class reads itself.
      if (!made_node) report_typed_elements_in_group(sub, sub);
      continue;
    }
    if (made) {
      if (!made_node) {
        report_mistake("Element '{}' of type '{}' has the name of a setting of '{}': left out", sub.path(), sub.type(),
                       path());
      } else if (NodeFactory::type_name_of(sub.type()) != made_node->type()) {
        report_mistake("Element '{}' names type '{}', but '{}' is built in as {}: the type is ignored", sub.path(),
                       sub.type(), sub.name(), made_node->type());
      }
      continue;
    }
    try {
      auto node = NodeFactory::create(sub.type(), sub);
      if (!node) {
        ZEL_ERROR("Unknown node type '{}' for '{}'", sub.type(), sub.path());
        Root::count_configuration_error();
        continue;
      }
      adopt(std::move(node));
    } catch (const std::exception& e) {
      report_build_failure(sub.path(), sub.type(), e.what());
    }
  }
}

void Node::report_build_failure(std::string_view path, std::string_view type, std::string_view what) {
  ZEL_ERROR("Failed to build '{}' ({}): {}", path, type, what);
  Root::count_configuration_error();
}
