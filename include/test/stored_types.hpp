#pragma once
// StoredTypes ("stored_types"): one field of every value type, named b, i,
// u8, u16, u32, u64, f, d, s, vb, vd, vs, each a member of the store its
// "store" attribute names ("config" without one). For tests of the store files.
#include "core/node.hpp"

class StoredTypes : public Node {
 public:
  explicit StoredTypes(const VTree& config);

 private:
  template <class T>
  void add_typed(const char* name, const std::string& store);
};
