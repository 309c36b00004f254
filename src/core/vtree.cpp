#include "core/vtree.hpp"

#include <fmt/format.h>

#include "core/field.hpp"
#include "formats/format_xml.hpp"

VTree::VTree(std::string name, std::string type, std::string path)
    : name_(std::move(name)), type_(std::move(type)), path_(std::move(path)) {}

std::optional<std::string_view> VTree::attribute(std::string_view key) const {
  for (auto& [k, v] : attributes_)
    if (k == key) return std::string_view(v);
  return std::nullopt;
}

const VTree* VTree::child(std::string_view name) const {
  for (auto& c : children_)
    if (c.name_ == name) return &c;
  return nullptr;
}

VTree VTree::child_or_empty(std::string_view name) const {
  if (auto* c = child(name)) return *c;
  VTree empty(std::string(name), {}, path_.empty() ? std::string(name) : path_ + "/" + std::string(name));
  empty.format_ = format_;
  return empty;
}

VTree& VTree::set(std::string key, std::string value) {
  for (auto& [k, v] : attributes_) {
    if (k == key) {
      v = std::move(value);
      return *this;
    }
  }
  attributes_.emplace_back(std::move(key), std::move(value));
  return *this;
}

bool VTree::erase(std::string_view key) {
  auto before = attributes_.size();
  std::erase_if(attributes_, [key](const Attribute& a) { return a.first == key; });
  return attributes_.size() != before;
}

VTree& VTree::add_child(VTree child) {
  if (child.path_.empty()) child.path_ = path_.empty() ? child.name_ : path_ + "/" + child.name_;
  if (!child.format_) child.format_ = format_;
  children_.push_back(std::move(child));
  return *this;
}

const Format& VTree::format() const { return format_ ? *format_ : FormatXML::instance(); }

void VTree::throw_conversion(std::string_view key, std::string_view text, std::string_view type) const {
  throw ConfigError(fmt::format("Setting '{}' of '{}' can't be read as {}: '{}'", key, path_, type, text), path_,
                    std::string(key));
}

template <class T>
std::string_view VTree::type_name(const T&) {
  return detail::type_label<T>();
}

#define ZEL_INSTANTIATE(T) template std::string_view VTree::type_name<T>(const T&);
ZEL_FORMAT_VALUE_TYPES(ZEL_INSTANTIATE)
#undef ZEL_INSTANTIATE
