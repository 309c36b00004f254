#pragma once
// VTree: the configuration subtree handed to a node's constructor. It holds
// the element's name, its factory type (empty when none is named), its
// settings in document order and its named child subtrees. Setting texts are
// converted through the Format the tree was read with.
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/format.hpp"

// A configuration that cannot be built as it stands. A setting that is
// present but does not convert names the element's path, the key and the
// text, and carries the path and the key so that a node that must exist can
// be built without that setting.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ConfigError(const std::string& what, std::string path, std::string key)
      : std::runtime_error(what), path_(std::move(path)), key_(std::move(key)) {}

  // The element and the setting at fault; the key is empty when the fault is
  // not one setting's.
  const std::string& path() const { return path_; }
  const std::string& key() const { return key_; }

 private:
  std::string path_;
  std::string key_;
};

class VTree {
 public:
  using Attribute = std::pair<std::string, std::string>;

  VTree() = default;
  explicit VTree(std::string name, std::string type = {}, std::string path = {});

  const std::string& name() const { return name_; }
  const std::string& type() const { return type_; }
  // The element's path from the top of the configuration: "interlocks/pump".
  const std::string& path() const { return path_; }

  std::optional<std::string_view> attribute(std::string_view key) const;
  bool has(std::string_view key) const { return attribute(key).has_value(); }
  const std::vector<Attribute>& attributes() const { return attributes_; }

  // Converts the setting `key` into `out` if present; throws ConfigError when
  // present but not convertible. Returns whether it was present.
  template <class T>
  bool get(std::string_view key, T& out) const {
    auto text = attribute(key);
    if (!text) return false;
    if (!format().read(*text, out)) throw_conversion(key, *text, type_name(out));
    return true;
  }
  template <class T>
  T get_or(std::string_view key, T fallback) const {
    get(key, fallback);
    return fallback;
  }

  const std::vector<VTree>& children() const { return children_; }
  const VTree* child(std::string_view name) const;
  // The named child subtree, or an empty one of that name (defaults).
  VTree child_or_empty(std::string_view name) const;

  VTree& set(std::string key, std::string value);
  // Removes the setting; false when there was none.
  bool erase(std::string_view key);
  // Sets `key` only when the configuration does not have it (a class default).
  VTree& set_default(std::string key, std::string value) { return has(key) ? *this : set(std::move(key), std::move(value)); }
  VTree& add_child(VTree child);
  void set_format(const Format* format) { format_ = format; }
  const Format& format() const;

 private:
  [[noreturn]] void throw_conversion(std::string_view key, std::string_view text, std::string_view type) const;
  template <class T> static std::string_view type_name(const T&);

  std::string name_;
  std::string type_;
  std::string path_;
  std::vector<Attribute> attributes_;
  std::vector<VTree> children_;
  const Format* format_ = nullptr;
};
