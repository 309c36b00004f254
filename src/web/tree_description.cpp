#include "web/tree_description.hpp"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

#include "core/io/interlock_io.hpp"
#include "core/io/interlock_manager.hpp"
#include "core/io/io.hpp"
#include "core/node.hpp"
#include "core/permissions.hpp"
#include "web/field_access.hpp"

namespace {

// Members keep the order they are written in, so the text reads well.
using json = nlohmann::ordered_json;

// Attribute keys that have their own member in a node's description.
constexpr std::array<std::string_view, 14> kDescribedAttributes{
    "label", "detail", "icon", "color", "units", "readonly", "hidden",
    "confirm", "name", "type", "format", "store", "alias", "permissions"};

// Labels come from the configuration as they stand: bytes that are not UTF-8
// are replaced rather than failing the whole description.
std::string dump(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

json value_of(const FieldBase& field) {
  std::string text;
  field.write_json(text);
  auto value = json::parse(text, nullptr, false);
  return value.is_discarded() ? json(text) : value;
}

bool node_asks_confirmation(const Node* node) {
  if (!node) return false;
  auto confirm = node->extra_attribute("confirm");
  return !confirm.empty() && confirm != "false";
}

json describe_field(const FieldBase& field) {
  const auto* attributes = field.attributes();
  const Node* owner = FieldAccess::owner(field);
  bool button = FieldAccess::is_button(field);
  json out{
      {"name", field.name()},
      {"path", field.path()},
      {"kind", button ? "button" : "field"},
      {"type", field.value_type_name()},
      {"label", attributes ? attributes->label : ""},
      {"detail", attributes ? attributes->detail : ""},
      {"units", attributes ? attributes->units : ""},
      {"format", attributes ? attributes->format : ""},
      {"readonly", FieldAccess::read_only_for_users(field)},
      {"role", to_string(Permissions::needed_for(field))},
      {"confirm", (attributes && attributes->confirm) || (button && node_asks_confirmation(owner))},
      {"value", value_of(field)},
      {"stamp", field.stamp()},
  };
  // An output a permit command owns: the page points to what commands it.
  if (auto* driver = field.driven_by()) out["driven_by"] = driver->path();
  // A selection offers its values, each with the label a user sees.
  if (attributes && !attributes->choices.empty()) {
    json choices = json::array();
    for (auto& [value, label] : attributes->choices) choices.push_back({{"value", value}, {"label", label}});
    out["choices"] = std::move(choices);
  }
  // An IO's value takes the IO's units and format when it has none of its own.
  auto* io = dynamic_cast<const IOBase*>(owner);
  if (io && io->value_field() == &field) {
    if (out["units"] == "") out["units"] = io->units();
    if (out["format"] == "") out["format"] = io->format();
  }
  return out;
}

json describe_node(const Node& node, int depth) {
  auto* io = dynamic_cast<const IOBase*>(&node);
  FieldBase* value = io ? io->value_field() : nullptr;
  auto confirm = node.extra_attribute("confirm");
  json out{
      {"name", node.name()},
      {"path", node.path()},
      {"kind", value ? "io" : "node"},
      {"type", node.type()},
      {"label", node.label()},
      {"detail", node.detail()},
      {"icon", node.icon()},
      {"color", node.color()},
      {"units", node.units()},
      {"format", node.format()},
      {"readonly", node.readonly()},
      {"hidden", node.hidden()},
      {"confirm", confirm == "false" ? "" : confirm},
  };
  if (value) out["value"] = describe_field(*value);
  json fields = json::array(), buttons = json::array(), children = json::array(), attributes = json::object();
  int nodes = 0;
  for (auto& child : node.children()) {
    if (!child->is_field()) {
      ++nodes;
      if (depth > 0)
        if (auto* child_node = dynamic_cast<const Node*>(child.get())) children.push_back(describe_node(*child_node, depth - 1));
      continue;
    }
    auto& field = static_cast<const FieldBase&>(*child);
    if (&field == value) continue;
    if (FieldAccess::is_button(field)) buttons.push_back(describe_field(field));
    else if (!FieldAccess::is_attribute(field)) fields.push_back(describe_field(field));
    else if (std::find(kDescribedAttributes.begin(), kDescribedAttributes.end(), field.name()) ==
             kDescribedAttributes.end())
      attributes[field.name()] = value_of(field);
  }
  out["nodes"] = nodes;
  out["fields"] = std::move(fields);
  out["buttons"] = std::move(buttons);
  out["attributes"] = std::move(attributes);
  if (depth > 0) out["children"] = std::move(children);
  return out;
}

template <class F>
void for_each_node(const Vertex& vertex, F&& f) {
  if (auto* node = dynamic_cast<const Node*>(&vertex)) f(node);
  for (auto& child : vertex.children())
    if (!child->is_field()) for_each_node(*child, f);
}

// Interlocks and permits anywhere, and whatever carries a state colour inside
// the interlock manager's subtree. A colour elsewhere (a calibration's fit
// state) is no interlock and must not raise an alarm here.
bool shows_in_interlock_overview(const Node& node, const Vertex* manager) {
  if (node.hidden() || &node == manager) return false;
  // The manager's own summary is shown as the manager's state, not as a lock.
  if (auto* interlock_manager = dynamic_cast<const InterlockManager*>(manager);
      interlock_manager && &node == &interlock_manager->summary())
    return false;
  auto type = node.type();
  if (type.find("Interlock") != std::string::npos || type.find("Permit") != std::string::npos) return true;
  if (!manager || !node.attribute_field("color")) return false;
  for (const Vertex* v = node.parent(); v; v = v->parent())
    if (v == manager) return true;
  return false;
}

}  // namespace

std::string TreeDescription::of(const Vertex& vertex, int depth) {
  if (vertex.is_field()) return dump(describe_field(static_cast<const FieldBase&>(vertex)));
  if (auto* node = dynamic_cast<const Node*>(&vertex)) return dump(describe_node(*node, depth));
  return "null";
}

std::string TreeDescription::interlocks(const Vertex& root) {
  json items = json::array();
  auto* manager = dynamic_cast<const Node*>(root.find("interlocks"));
  for_each_node(root, [&items, manager](const Node* node) {
    if (!shows_in_interlock_overview(*node, manager)) return;
    auto* io = dynamic_cast<const IOBase*>(node);
    FieldBase* state = io ? io->value_field() : nullptr;
    FieldBase* color = node->attribute_field("color");
    items.push_back(json{
        {"path", node->path()},
        {"label", node->label().empty() ? node->name() : node->label()},
        {"detail", node->detail()},
        {"type", node->type()},
        {"color", node->color()},
        {"color_field", color ? color->path() : ""},
        {"state_field", state ? state->path() : ""},
        {"state", state ? value_of(*state) : json()},
    });
    if (auto* interlock = dynamic_cast<const InterlockIO*>(node)) {
      json inputs = json::array();
      for (auto* field : interlock->watched()) inputs.push_back(field->path());
      items.back()["inputs"] = std::move(inputs);
    }
  });
  json out{{"items", std::move(items)}};
  // With its children: the summary, message and enable_all are IOs.
  out["manager"] = manager ? describe_node(*manager, 1) : json();
  return dump(out);
}
