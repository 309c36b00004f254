#include "core/upnp.hpp"

ZEL_REGISTER_NODE("upnp", UPnP);

UPnP::UPnP(const VTree& config) : Component(config) {
  describe("UPnP", "Announces the instrument on the local network.", "satellite");
}
