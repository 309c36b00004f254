#pragma once
// Limits of the process that servers depend on.
#include <cstddef>

// Raises the soft limit of open descriptors to the hard limit, so a server
// can hold as many connections as the system allows. Returns the limit now
// in force (0 when it cannot be read).
size_t raise_open_file_limit();
