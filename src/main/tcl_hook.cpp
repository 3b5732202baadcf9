// Placeholder until the platform hook lands.
#include "main/tcl_hook.h"

tcl_info *get_g_tcl_info()
{
    static tcl_info info;
    return &info;
}
void tcl_info_reset(tcl_info *) {}
int check_tcl_enable(tcl_info *) { return 0; }
void TclCB(unsigned short, const char *, int) {}
