#pragma once
// DirAPI: every vertex as a directory. Its listing is "index.json" first, then
// the children in child order: a field as its name with ".json", any other
// vertex under its bare name.
//
// The listing lives here, inline: its log lines carry this header's name.
#include <sys/stat.h>

#include "core/api/file_api.hpp"
#include "core/log.hpp"
#include "core/vertex.hpp"

class DirAPI : public FileAPI {
 public:
  // Names this long or longer end a listing (the kernel takes no longer ones).
  static constexpr size_t kMaxNameLength = 1024;

  bool is_directory(Vertex*) const override { return true; }
  void list(OpenFile& dir, uint64_t offset, DirectoryFiller& filler) const override;
};

// Entry i is index.json for i = 0 and child i - 1 after it; an entry's inode
// number in the listing is i + 2. Entries are made only from `offset` on, so
// a large directory costs each reply only what it carries.
inline void DirAPI::list(OpenFile& dir, uint64_t offset, DirectoryFiller& filler) const {
  const auto& children = dir.attribute->vertex->children();
  std::string name;
  for (uint64_t index = offset; index <= children.size(); ++index) {
    bool directory = false;
    if (index == 0) {
      name = "index";
      name += kJsonExtension;
    } else {
      const Vertex& child = *children[index - 1];
      name = child.name();
      if (child.is_field()) name += kJsonExtension;
      else directory = true;
    }
    if (name.size() >= kMaxNameLength) {
      ZEL_ERROR("Filename too long {}", name);
      return;
    }
    if (!filler.add(name, index + 2, directory ? S_IFDIR : S_IFREG, index + 1)) return;
  }
}
