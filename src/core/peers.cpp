#include "core/peers.hpp"

ZEL_REGISTER_NODE("peers", Peers);

Peers::Peers(const VTree& config) : Component(config) {
  describe("Peers", "The other instruments this one works with.", "people");
}
