#include "std/capabilities.hpp"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

uint64_t Capabilities::effective() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, data) != 0) return 0;
  return static_cast<uint64_t>(data[0].effective) | static_cast<uint64_t>(data[1].effective) << 32;
}

std::vector<Capability> Capabilities::needed(uint16_t port) {
  std::vector<Capability> list;
  if (port != 0 && port < 1024)
    list.push_back({CAP_NET_BIND_SERVICE, "CAP_NET_BIND_SERVICE", "binding a web port below 1024"});
  list.push_back({CAP_SYS_RAWIO, "CAP_SYS_RAWIO", "raw IO: memory-mapped devices and the PRU link"});
  return list;
}

std::vector<Capability> Capabilities::missing(uint64_t effective, uint16_t port) {
  std::vector<Capability> list;
  for (auto& capability : needed(port))
    if (!(effective >> capability.number & 1)) list.push_back(capability);
  return list;
}
