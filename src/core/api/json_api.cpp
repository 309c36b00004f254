#include "core/api/json_api.hpp"

#include "core/field.hpp"
#include "core/node.hpp"

namespace {

bool readonly_node(const Vertex* vertex) {
  auto* node = dynamic_cast<const Node*>(vertex);
  return node && node->readonly();
}

}  // namespace

bool JSONAPI::writable(Vertex* vertex) const {
  if (!vertex->is_field()) return !readonly_node(vertex);
  return !static_cast<FieldBase*>(vertex)->readonly() && !readonly_node(vertex->parent());
}

void JSONAPI::serialize(Vertex* vertex, std::string& out) const {
  out.clear();
  vertex->write_json(out);
}

void JSONAPI::deserialize(Vertex* vertex, std::string_view text) const { vertex->read_json(text); }
