#pragma once
// JSONAPI: the ".json" files. A vertex reads as the object of its admitted
// children, a field as its value text; a write goes through the write path
// (the file names its vertex; a node's file takes an object of members).
// Fields the write path never lets a user write are mode 0444; a node's file
// stays writable and the write path checks every member it names.
#include "core/api/file_api.hpp"

class JSONAPI : public FileAPI {
 public:
  bool writable(Vertex* vertex) const override;
  void serialize(Vertex* vertex, std::string& out) const override;
  int deserialize(Vertex* vertex, std::string_view text) const override;
};
