#pragma once
// The address by which others reach this host: the first IPv4 address of an
// interface that is up and not the loopback; empty when there is none.
#include <string>

std::string primary_ipv4_address();
