#pragma once
// FormatXML: the XML configuration file. An element whose "type" attribute
// names a factory type (type name or alias) becomes a node; the "type"
// attribute is not kept as a setting; the element's other attributes are the
// node's settings of the same name; nested elements are its named child
// subtrees. The document element is the root.
//
// Setting texts: strings as they stand; numbers and booleans in the value
// text format; vectors as JSON arrays.
#include <memory>
#include <optional>
#include <string_view>

#include "core/format.hpp"
#include "core/vtree.hpp"

class Root;

class FormatXML : public Format {
 public:
#define ZEL_FORMAT_OPERATIONS(T)                                   \
  bool read(std::string_view text, T& out) const override;        \
  void write(const T& value, std::string& out) const override;
  ZEL_FORMAT_VALUE_TYPES(ZEL_FORMAT_OPERATIONS)
#undef ZEL_FORMAT_OPERATIONS

  // The one instance; configuration trees refer to it.
  static const FormatXML& instance();

  // Parses the text into a configuration tree. Logs "XML parse " with the
  // parser's description, the character offset and the offending line, and
  // returns nothing, when the text is not XML.
  std::optional<VTree> parse(std::string_view text) const;

  // Parses and builds the root; null when the text does not parse or the
  // root cannot be made.
  std::unique_ptr<Root> build(std::string_view text) const;
};
