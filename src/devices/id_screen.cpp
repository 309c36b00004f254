#include "devices/id_screen.hpp"

#include "core/root.hpp"
#include "std/host_address.hpp"

#ifndef ZEL_VERSION
#define ZEL_VERSION "unknown"
#endif

ZEL_REGISTER_NODE("id_screen", IDScreen);

namespace {
VTree with_three_lines(VTree config) {
  config.set("lines", "3");
  return config;
}
}  // namespace

IDScreen::IDScreen(const VTree& config) : US2066(with_three_lines(config)) {
  describe("Identification screen", "Shows the instrument's name, address and version.", "id-number");
}

void IDScreen::refresh_rows() {
  auto* r = root();
  std::string name = r && !r->label().empty() ? r->label() : "ZEL";
  std::string ip = primary_ipv4_address();
  row(0).set("Name " + name);
  row(1).set("IP " + (ip.empty() ? std::string("none") : ip));
  row(2).set(std::string("Vers ") + ZEL_VERSION);
}
