#include "core/io/interlock_manager.hpp"

ZEL_REGISTER_NODE("interlock_manager", InterlockManager);

InterlockManager::InterlockManager(const VTree& config) : Component(config) {
  describe("Interlocks", "View and configure all interlocks and permits.", "lock");
}
