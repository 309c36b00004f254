#include "core/vertex.hpp"

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "core/x2x.hpp"

namespace {
// Below this many children a linear scan beats hashing.
constexpr size_t kIndexThreshold = 16;
}  // namespace

Vertex::Vertex(std::string name) : name_(std::move(name)) {}

Vertex::~Vertex() {
  // Children go in reverse order of creation: later ones may refer to earlier.
  while (!children_.empty()) children_.pop_back();
}

std::string Vertex::path() const {
  if (!parent_) return {};
  std::string parent_path = parent_->path();
  if (parent_path.empty()) return name_;
  parent_path.push_back('/');
  parent_path.append(name_);
  return parent_path;
}

Vertex* Vertex::child(std::string_view name) const {
  if (index_) {
    auto it = index_->find(name);
    return it == index_->end() ? nullptr : it->second;
  }
  for (auto& c : children_)
    if (c->name_ == name) return c.get();
  return nullptr;
}

Vertex* Vertex::find(std::string_view path) const {
  const Vertex* at = this;
  while (at) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    if (path.empty()) return const_cast<Vertex*>(at);
    auto slash = path.find('/');
    auto part = path.substr(0, slash);
    at = at->child(part);
    path = slash == std::string_view::npos ? std::string_view{} : path.substr(slash);
  }
  return nullptr;
}

void Vertex::adopt_vertex(std::unique_ptr<Vertex> child) {
  child->parent_ = this;
  if (index_) index_->emplace(child->name_, child.get());
  children_.push_back(std::move(child));
  // Large vertices get their index while they grow, so building stays linear.
  if (!index_ && children_.size() >= kIndexThreshold) index_tree_level();
}

void Vertex::index_tree_level() {
  index_ = std::make_unique<std::unordered_map<std::string_view, Vertex*>>();
  index_->reserve(children_.size());
  // The first of two children with the same name is the one found.
  for (auto& c : children_) index_->emplace(c->name_, c.get());
}

void Vertex::write_json(std::string& out) const {
  out.push_back('{');
  bool first = true;
  for (auto& c : children_) {
    if (!c->admitted()) continue;
    if (!first) out.push_back(',');
    first = false;
    out.push_back('"');
    out.append(c->name_);
    out.append("\":");
    c->write_json(out);
  }
  out.push_back('}');
}

std::string Vertex::json() const {
  std::string out;
  write_json(out);
  return out;
}

bool Vertex::read_json(std::string_view text) {
  if (!x2x::json_depth_within(text)) {
    ZEL_ERROR("Malformed JSON object for '{}'", path());
    return false;
  }
  auto parsed = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  // A NUL after the text (as a file write delivers it) is not part of the JSON.
  if (parsed.is_discarded()) {
    auto end = text.find('\0');
    if (end != std::string_view::npos)
      parsed = nlohmann::json::parse(text.begin(), text.begin() + end, nullptr, false);
  }
  if (parsed.is_discarded() || !parsed.is_object()) {
    ZEL_ERROR("Malformed JSON object for '{}'", path());
    return false;
  }
  bool ok = true;
  for (auto& [key, value] : parsed.items()) {
    Vertex* c = child(key);
    if (!c) {
      ZEL_ERROR("Unknown member '{}' in JSON for '{}'", key, path());
      ok = false;
      continue;
    }
    if (!c->read_json(value.dump())) ok = false;
  }
  return ok;
}

bool Vertex::admitted() const {
  for (auto& c : children_)
    if (c->admitted()) return true;
  return false;
}

void Vertex::stop_tree(StopStage stage) {
  stop(stage);
  for (auto& c : children_) c->stop_tree(stage);
}

void Vertex::index_tree() {
  if (children_.size() >= kIndexThreshold && !index_) index_tree_level();
  for (auto& c : children_) c->index_tree();
}
