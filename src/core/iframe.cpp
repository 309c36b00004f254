#include "core/iframe.hpp"

ZEL_REGISTER_NODE("iframe", IFrame);

IFrame::IFrame(const VTree& config) : Component(config) {
  describe("Embedded Pages", "Serves pages of other instruments embedded in this one's interface.", "globe");
}
