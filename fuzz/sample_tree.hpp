#pragma once
// The small tree the tree-facing targets work on: a value field of every
// value type at the top (named by its type: "double", "string[]", ...), a
// nested vertex with "x" and "s" and a deeper one with "b", and an analog IO
// "io".
#include <memory>
#include <string>

#include "core/field.hpp"
#include "core/format.hpp"
#include "core/io/io.hpp"
#include "core/vtree.hpp"

namespace fuzz {

inline std::unique_ptr<Vertex> make_sample_tree() {
  auto top = std::make_unique<Vertex>("top");
#define ZEL_ADD_FIELD(T) top->add<ValueField<T>>(std::string(detail::type_label<T>()));
  ZEL_FORMAT_VALUE_TYPES(ZEL_ADD_FIELD)
#undef ZEL_ADD_FIELD
  auto& nested = top->add<Vertex>("nested");
  nested.add<ValueField<double>>("x");
  nested.add<ValueField<std::string>>("s");
  nested.add<Vertex>("deeper").add<ValueField<bool>>("b");
  top->adopt(std::make_unique<AnalogIO>(VTree("io")));
  return top;
}

}  // namespace fuzz
