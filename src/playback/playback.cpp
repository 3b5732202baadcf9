#include "playback/playback.h"

int playback_routine(int fd)
{
    (void)fd;
    return 0;
}
