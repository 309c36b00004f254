#include "core/io_server.hpp"

ZEL_REGISTER_NODE("io_server", IOServer);
ZEL_REGISTER_NODE("browser", Browser);

IOServer::IOServer(const VTree& config) : CtxComp(config) {
  describe("IO Server", "The file IO driver for the system.", "database");
  set_default("hidden", true);
  auto test_config = config.child_or_empty("json_test");
  auto& test = adopt(std::make_unique<SelfTest>(test_config, &IOServer::json_test));
  test.set_default("label", std::string("JSON Test"));
}

Browser::Browser(const VTree& config) : Component(config) {
  describe("Browser", "Browse all the available controls in the system.", "cog");
  set_default("element", std::string("zel-browser"));
  set_default("style", std::string("height: 80vh; width: 90vw;"));
  set_default("hidden", true);
}
