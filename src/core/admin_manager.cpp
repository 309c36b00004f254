#include "core/admin_manager.hpp"

#include "core/application.hpp"
#include "core/store_manager.hpp"

ZEL_REGISTER_NODE("admin_manager", AdminManager);

AdminManager::AdminManager(const VTree& config) : Component(config) {
  add_lifecycle_buttons();
  describe("Administration", "Stop, restart, reboot and update the instrument.", "settings");
  // Everything beneath it acts on the whole instrument.
  set_default("permissions", std::string("admin"));
  add_node<StoreManager>(config, "store_manager");
}

void AdminManager::add_lifecycle_buttons() {
  auto& application = Application::instance();
  auto button = [this](const char* name, const char* label, ButtonField::Action action) {
    add<ButtonField>(name, label, std::move(action)).attributes_for_update().confirm = true;
  };
  button("stop_button", "Stop", [&application] { application.request_stop(); });
  button("reset_button", "Restart", [&application] { application.request_restart(); });
  button("reboot_button", "Reboot", [&application] { application.request_reboot(); });
  button("update_button", "Update", [&application] { application.request_update(); });
}
