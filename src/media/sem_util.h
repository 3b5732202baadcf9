// Thin wrappers over System V semaphore sets.
#pragma once

#include <sys/types.h>

// Create a set of nsems semaphores under key (IPC_CREAT, mode 0666), falling
// back to opening the existing set. The id or -1.
int sem_init_user(key_t key, int nsems);
// Open the existing set under key; the id or -1.
int sem_get(key_t key);
// Create (or open) the set and set all nsems semaphores to initval with one SETALL. The id or -1.
int sem_init_initval(key_t key, int nsems, int initval);
// One blocking semop of op on semaphore sem_num (no SEM_UNDO): 0 done, 1 interrupted
// (EINTR or EAGAIN), -1 any other failure.
int sem_op(int semid, int sem_num, int op);
// Remove the set (IPC_RMID); 0 or -1.
int sem_kill(int semid);
