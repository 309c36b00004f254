#pragma once
// IOServer: publishes the system tree as files under the mount point (the
// root's "io_server"). It owns the "json_test" self-check of the value text
// format.
#include "core/ctx_comp.hpp"
#include "core/self_test.hpp"

class IOServer : public CtxComp {
 public:
  explicit IOServer(const VTree& config);

  // The value text format's self-check, in its named groups.
  static CheckReport json_test();
};

// Browser: the user-interface entry that lets a client browse all controls.
class Browser : public Component {
 public:
  explicit Browser(const VTree& config);
};
