#include "core/api/json_api.hpp"

#include "core/field.hpp"
#include "core/write_path.hpp"

bool JSONAPI::writable(Vertex* vertex) const {
  if (!vertex->is_field()) return true;
  return WritePath::writable(*static_cast<FieldBase*>(vertex), WriteSource::File);
}

void JSONAPI::serialize(Vertex* vertex, std::string& out) const {
  out.clear();
  vertex->write_json(out);
}

int JSONAPI::deserialize(Vertex* vertex, std::string_view text) const {
  return WritePath::write_at(*vertex, {WriteSource::File, {}}, text).error_number();
}
