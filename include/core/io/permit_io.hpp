#pragma once
// PermitIO: true while none of its locks is in error. Its locks are the
// InterlockIO nodes beneath it, at any depth, collected in tree order at
// init() (the tree's structure does not change after start-up); the permit
// re-evaluates whenever one of them changes state. Warnings do not revoke.
#include <vector>

#include "core/io/interlock_io.hpp"

class PermitIO : public StateIO<bool> {
 public:
  explicit PermitIO(const VTree& config);

  // Collects the locks and follows their states.
  void init() override;
  // Publishes the value once the tree runs.
  void start() override;

  // Recomputes the value; assigns and notifies only when it changes or was
  // never assigned.
  virtual void evaluate();

  // Calls f(InterlockIO&) for each lock, in tree order.
  template <class F>
  void forEachLock(F&& f) const {
    for (auto* lock : locks_) f(*lock);
  }
  bool granted() const { return assigned() && get(); }

 private:
  std::vector<InterlockIO*> locks_;
};
