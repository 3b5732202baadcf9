#include "media/sem_util.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <vector>

int sem_init_user(key_t key, int nsems)
{
    int id = semget(key, nsems, IPC_CREAT | 0666);
    if (id < 0) id = semget(key, 0, 0);
    return id;
}

int sem_get(key_t key)
{
    return semget(key, 0, 0);
}

int sem_init_initval(key_t key, int nsems, int initval)
{
    int id = sem_init_user(key, nsems);
    if (id < 0 || nsems < 1) return -1;
    std::vector<unsigned short> values(static_cast<size_t>(nsems), static_cast<unsigned short>(initval));
    union semun {
        int val;
        semid_ds *buf;
        unsigned short *array;
    } arg{};
    arg.array = values.data();
    if (semctl(id, 0, SETALL, arg) < 0) return -1;
    return id;
}

int sem_op(int semid, int sem_num, int op)
{
    sembuf sb{};
    sb.sem_num = static_cast<unsigned short>(sem_num);
    sb.sem_op = static_cast<short>(op);
    sb.sem_flg = 0;
    if (semop(semid, &sb, 1) == 0) return 0;
    return (errno == EINTR || errno == EAGAIN) ? 1 : -1;
}

int sem_kill(int semid)
{
    return semctl(semid, 0, IPC_RMID);
}
