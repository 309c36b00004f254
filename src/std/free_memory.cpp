#include "std/free_memory.hpp"

#include <malloc.h>

namespace {
// The heap's default threshold; fixing it stops the heap from moving it up.
constexpr int kMapAbove = 128 * 1024;
}  // namespace

void map_large_blocks_apart() { ::mallopt(M_MMAP_THRESHOLD, kMapAbove); }

void give_back_free_memory() { ::malloc_trim(0); }
