#pragma once
// Peers: the root's "peers" node. The other instruments this one works with.
#include "core/component.hpp"

class Peers : public Component {
 public:
  explicit Peers(const VTree& config);
};
