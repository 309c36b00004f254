#pragma once
// Vertex: an element of the system tree. It has a name, a parent and children
// (fields and nodes, owned, in the order they were added), can write itself as
// JSON and read itself back, and takes part in the staged stop.
//
// The tree's structure is built on one thread before any context runs and
// does not change afterwards, so lookups take no lock.
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/event_emitter.hpp"

enum class VertexEvent {
  Changed,  // a field's value was assigned a new value
};

// The four stop stages, run in order over the whole tree at shutdown.
enum class StopStage : int {
  Stop0 = 0,  // stop producing: cancel periodic work, close listeners and mounts
  Stop1 = 1,  // stop the contexts and join their threads
  Stop2 = 2,  // the tree is quiet: final writes (stores, reports)
  Stop3 = 3,  // release hardware and other outside resources
};

class Vertex : public EventEmitter<VertexEvent> {
 public:
  explicit Vertex(std::string name);
  virtual ~Vertex();
  Vertex(const Vertex&) = delete;
  Vertex& operator=(const Vertex&) = delete;

  const std::string& name() const { return name_; }
  Vertex* parent() const { return parent_; }
  // Names from the top joined by "/", without a leading "/": "pulse/rate".
  // The top of the tree has the empty path.
  std::string path() const;

  const std::vector<std::unique_ptr<Vertex>>& children() const { return children_; }
  Vertex* child(std::string_view name) const;
  // A descendant by relative path ("a/b/c"); leading and doubled "/" are ignored.
  Vertex* find(std::string_view path) const;

  // Takes ownership of `child` and appends it; returns it.
  template <class T>
  T& adopt(std::unique_ptr<T> child) {
    T& ref = *child;
    adopt_vertex(std::unique_ptr<Vertex>(child.release()));
    return ref;
  }
  template <class T, class... Args>
  T& add(Args&&... args) {
    return adopt(std::make_unique<T>(std::forward<Args>(args)...));
  }

  virtual bool is_field() const { return false; }

  // JSON of the vertex: an object of its admitted children (no spaces, no line
  // breaks); a field writes its value text instead.
  virtual void write_json(std::string& out) const;
  std::string json() const;
  // Applies a JSON object member by member to the children it names. Logs and
  // returns false on malformed text or unknown members; known members are
  // applied even so.
  virtual bool read_json(std::string_view text);
  // The output-selection test: a vertex is admitted when any child is.
  virtual bool admitted() const;

  // Called once per stage on every vertex, top down, in child order.
  virtual void stop(StopStage stage) {}
  void stop_tree(StopStage stage);

  // Builds lookup indexes for vertices with many children; called once the
  // tree is complete.
  void index_tree();

  // Visits this vertex and all descendants in tree order (pre-order).
  template <class F>
  void visit(F&& f) {
    f(*this);
    for (auto& c : children_) c->visit(f);
  }

 protected:
  void emit_changed() const { emit(VertexEvent::Changed); }

 private:
  void adopt_vertex(std::unique_ptr<Vertex> child);
  void index_tree_level();

  std::string name_;
  Vertex* parent_ = nullptr;
  std::vector<std::unique_ptr<Vertex>> children_;
  std::unique_ptr<std::unordered_map<std::string_view, Vertex*>> index_;
};
