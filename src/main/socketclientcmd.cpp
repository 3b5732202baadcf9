// Placeholder until the system-server channel lands: every request fails.
#include "main/socketclientcmd.h"

int socket_client_cmd_Init(int, const char *) { return -1; }
int socket_client_cmd_Read(unsigned short, const void *, int, void *, int *pOutLen, int)
{
    if (pOutLen) *pOutLen = 0;
    return -1;
}
int socket_client_cmd_Write(unsigned short, const void *, int) { return -1; }
int socket_client_reg_callback_cmd_Read(socket_client_callback, void *) { return 0; }
int socket_client_cmd_uninit() { return 0; }
