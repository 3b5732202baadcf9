// Thin wrappers over System V shared memory.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Create the segment under key with size bytes (IPC_CREAT, mode 0666); if that
// fails, open the existing one (size 0, no flags). Returns the id or -1.
int shm_init(key_t key, size_t size);
// Open the existing segment under key; the id or -1.
int shm_get(key_t key);
// Attach the segment anywhere; the address or nullptr.
void *shm_map_mem(int shmid);
// Detach an attached address; 0 or -1.
int shm_unmap_mem(const void *addr);
// Mark the segment for removal (IPC_RMID); 0 or -1.
int shm_kill(int shmid);
// Size in bytes of the segment, or 0 when it cannot be read.
size_t shm_size(int shmid);
