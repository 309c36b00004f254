#pragma once
// IFrame: the root's "iframe" node. Serves pages of other instruments embedded in this one's interface.
#include "core/component.hpp"

class IFrame : public Component {
 public:
  explicit IFrame(const VTree& config);
};
