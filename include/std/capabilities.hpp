#pragma once
// Linux capabilities. The process asks for none: it runs with what it was
// given (see packaging/zel.service) and says which of those it needs it
// lacks, so that a failing port or device is explained at start-up.
#include <cstdint>
#include <string_view>
#include <vector>

struct Capability {
  int number;                // CAP_NET_BIND_SERVICE is 10, ...
  std::string_view name;     // "CAP_NET_BIND_SERVICE"
  std::string_view purpose;  // "binding port 80"
};

class Capabilities {
 public:
  // The effective set of this process: bit n stands for capability n.
  static uint64_t effective();

  // What the system needs with this web port: binding a port below 1024,
  // and raw IO (memory-mapped devices, the PRU link).
  static std::vector<Capability> needed(uint16_t port);

  // The needed capabilities that are not in `effective`, in order.
  static std::vector<Capability> missing(uint64_t effective, uint16_t port);
};
