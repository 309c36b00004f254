#include "std/host_address.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

std::string primary_ipv4_address() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  std::string found;
  for (ifaddrs* i = list; i && found.empty(); i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
    if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
    char text[INET_ADDRSTRLEN] = {};
    auto* in = reinterpret_cast<sockaddr_in*>(i->ifa_addr);
    if (inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) found = text;
  }
  freeifaddrs(list);
  return found;
}
