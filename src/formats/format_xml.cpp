#include "formats/format_xml.hpp"

#include <sstream>

#include <pugixml.hpp>

#include "core/log.hpp"
#include "core/node_factory.hpp"
#include "core/root.hpp"
#include "core/x2x.hpp"

#define ZEL_VALUE_TEXT_OPERATIONS(T)                                                                  \
  bool FormatXML::read(std::string_view text, T& out) const { return x2x::from_json(text, out); } \
  void FormatXML::write(const T& value, std::string& out) const { x2x::to_json(value, out); }
ZEL_VALUE_TEXT_OPERATIONS(bool)
ZEL_VALUE_TEXT_OPERATIONS(int)
ZEL_VALUE_TEXT_OPERATIONS(unsigned char)
ZEL_VALUE_TEXT_OPERATIONS(unsigned short)
ZEL_VALUE_TEXT_OPERATIONS(unsigned int)
ZEL_VALUE_TEXT_OPERATIONS(unsigned long long)
ZEL_VALUE_TEXT_OPERATIONS(float)
ZEL_VALUE_TEXT_OPERATIONS(double)
ZEL_VALUE_TEXT_OPERATIONS(std::vector<bool>)
ZEL_VALUE_TEXT_OPERATIONS(std::vector<double>)
ZEL_VALUE_TEXT_OPERATIONS(std::vector<std::string>)
#undef ZEL_VALUE_TEXT_OPERATIONS

// Strings in XML attributes stand as they are, without quotes.
bool FormatXML::read(std::string_view text, std::string& out) const {
  out.assign(text);
  return true;
}
void FormatXML::write(const std::string& value, std::string& out) const { out.append(value); }

const FormatXML& FormatXML::instance() {
  static const FormatXML format;
  return format;
}

namespace {

// The deepest element nesting a configuration may have. The tree is built by
// recursion, one level per element, each level keeping its whole path: a
// deeper document is refused like one that does not parse.
constexpr unsigned kMaxElementDepth = 64;

// The first element nested deeper than kMaxElementDepth below the document
// element, or an empty node. pugixml walks the document without recursion.
pugi::xml_node first_too_deep(pugi::xml_node top) {
  struct Walker : pugi::xml_tree_walker {
    pugi::xml_node found;
    bool for_each(pugi::xml_node& node) override {
      if (node.type() != pugi::node_element || static_cast<unsigned>(depth()) < kMaxElementDepth) return true;
      found = node;
      return false;
    }
  } walker;
  top.traverse(walker);
  return walker.found;
}

VTree convert(const pugi::xml_node& element, const std::string& path, const Format* format) {
  VTree tree(element.name(), element.attribute("type").value(), path);
  tree.set_format(format);
  for (auto attribute : element.attributes()) {
    if (std::string_view(attribute.name()) == "type") continue;
    tree.set(attribute.name(), attribute.value());
  }
  for (auto child : element.children()) {
    if (child.type() != pugi::node_element) continue;
    std::string child_path = path.empty() ? child.name() : path + "/" + child.name();
    tree.add_child(convert(child, child_path, format));
  }
  return tree;
}

// The line printed with a parse error: lines are read one by one and their
// lengths (without line ends) added up until the sum reaches the offset.
std::string offending_line(std::string_view text, ptrdiff_t offset) {
  std::istringstream in{std::string(text)};
  std::string line;
  std::string last;
  ptrdiff_t sum = 0;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    sum += static_cast<ptrdiff_t>(line.size());
    last = line;
    if (sum >= offset) break;
  }
  return last;
}

}  // namespace

std::optional<VTree> FormatXML::parse(std::string_view text) const {
  pugi::xml_document document;
  auto result = document.load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!result) {
    ZEL_ERROR("XML parse {} line:{} '{}'", result.description(), result.offset,
              offending_line(text, result.offset));
    return std::nullopt;
  }
  auto top = document.document_element();
  if (!top) {
    ZEL_ERROR("XML parse {} line:{} '{}'", "No document element", 0, offending_line(text, 0));
    return std::nullopt;
  }
  if (auto deep = first_too_deep(top)) {
    ZEL_ERROR("XML parse {} line:{} '{}'", "Elements nested too deep", deep.offset_debug(),
              offending_line(text, deep.offset_debug()));
    return std::nullopt;
  }
  VTree tree = convert(top, "", this);
  return tree;
}

std::unique_ptr<Root> FormatXML::build(std::string_view text) const {
  auto tree = parse(text);
  if (!tree) return nullptr;
  try {
    // The root must exist: a bad setting of its own is left out like one of
    // its built-in children's.
    return NodeFactory::make_built_in<Root>(*tree);
  } catch (const std::exception& e) {
    ZEL_ERROR("Root construction failed: {}", e.what());
    return nullptr;
  }
}
