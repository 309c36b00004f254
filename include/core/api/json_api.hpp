#pragma once
// JSONAPI: the ".json" files. A vertex reads as the object of its admitted
// children, a field as its value text; a write is applied through the
// vertex's JSON read. Read-only fields, and the fields and JSON of read-only
// nodes, are not writable (mode 0444).
#include "core/api/file_api.hpp"

class JSONAPI : public FileAPI {
 public:
  bool writable(Vertex* vertex) const override;
  void serialize(Vertex* vertex, std::string& out) const override;
  void deserialize(Vertex* vertex, std::string_view text) const override;
};
