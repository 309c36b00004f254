#pragma once
// InterlockManager: the root's "interlocks"; one place where all interlocks of
// its subtree are summarised, enabled together and reported.
#include "core/component.hpp"

class InterlockManager : public Component {
 public:
  explicit InterlockManager(const VTree& config);
};
