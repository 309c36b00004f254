#pragma once
// The heap's hold on freed memory. After a crowd of clients has gone, what
// their buffers took should go back to the system rather than stay with the
// process until it ends.

// Large blocks (replies, values of a megabyte) get mappings of their own
// and are unmapped when freed, from now on; the heap no longer raises the
// size from which it does so after each large block freed.
void map_large_blocks_apart();
// Returns the free memory at the heap's top and free whole pages inside it.
void give_back_free_memory();
