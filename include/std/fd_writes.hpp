#pragma once
// Writing to a file descriptor to the end, through interrupted calls: the
// steps AtomicFile and AppendFile share.
#include <string_view>

// Writes all of `content`; false (errno set) when a write fails.
bool write_all(int fd, std::string_view content);

// fsync, or fdatasync when only the data need to reach the disk, retried
// while a signal interrupts it; 0 or -1 (errno set).
int sync_retrying(int fd, bool data_only = false);
