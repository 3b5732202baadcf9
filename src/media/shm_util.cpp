#include "media/shm_util.h"

#include <sys/ipc.h>
#include <sys/shm.h>

int shm_init(key_t key, size_t size)
{
    int id = shmget(key, size, IPC_CREAT | 0666);
    if (id < 0) id = shmget(key, 0, 0);
    return id;
}

int shm_get(key_t key)
{
    return shmget(key, 0, 0);
}

void *shm_map_mem(int shmid)
{
    void *addr = shmat(shmid, nullptr, 0);
    return addr == reinterpret_cast<void *>(-1) ? nullptr : addr;
}

int shm_unmap_mem(const void *addr)
{
    return shmdt(addr);
}

int shm_kill(int shmid)
{
    return shmctl(shmid, IPC_RMID, nullptr);
}

size_t shm_size(int shmid)
{
    shmid_ds ds{};
    if (shmctl(shmid, IPC_STAT, &ds) != 0) return 0;
    return ds.shm_segsz;
}
