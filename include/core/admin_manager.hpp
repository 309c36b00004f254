#pragma once
// AdminManager: the root's "admin", the administration of the instrument.
#include "core/component.hpp"

class AdminManager : public Component {
 public:
  explicit AdminManager(const VTree& config);
};
