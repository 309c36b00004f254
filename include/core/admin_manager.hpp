#pragma once
// AdminManager: the root's "admin", the administration of the instrument.
// Its buttons reach the Application: "stop_button" ends the run,
// "reset_button" restarts the program in place, "reboot_button" reboots the
// machine, "update_button" installs the update archive from the data root
// and reboots into it. The user interface asks before each.
#include "core/component.hpp"

class AdminManager : public Component {
 public:
  explicit AdminManager(const VTree& config);

 private:
  void add_lifecycle_buttons();
};
