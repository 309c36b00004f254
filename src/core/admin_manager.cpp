#include "core/admin_manager.hpp"

ZEL_REGISTER_NODE("admin_manager", AdminManager);

AdminManager::AdminManager(const VTree& config) : Component(config) {
  describe("Administration", "Stop, restart, reboot and update the instrument.", "settings");
}
