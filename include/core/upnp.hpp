#pragma once
// UPnP: the root's "upnp" node. Announces the instrument on the local network.
#include "core/component.hpp"

class UPnP : public Component {
 public:
  explicit UPnP(const VTree& config);
};
