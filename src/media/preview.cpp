#include "media/preview.h"

int preview_routine(int fd)
{
    (void)fd;
    return 0;
}

int active_preview(int sockfd, int auth_id, const char *payload)
{
    (void)sockfd;
    (void)auth_id;
    (void)payload;
    return -1;
}
