#pragma once
// IDScreen ("id_screen"): the identification screen, a US2066 display of
// three rows: "Name" (the instrument's label), "IP" (the host's address) and
// "Vers" (the program's version), refreshed as they change.
#include "devices/us2066.hpp"

class IDScreen : public US2066 {
 public:
  explicit IDScreen(const VTree& config);

 protected:
  void refresh_rows() override;
};
