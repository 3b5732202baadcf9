// camgated: start-up of the daemon (placeholder until start-up lands).
#include "common/log.h"

int main()
{
    log_init_line_buffering();
    DBG("vsd_init version = %s", "V1.3");
    return 0;
}
