// The network front end: the TCP listener, the UDP server on the same port
// and the UDP discovery loop, each in its own thread, and one detached thread
// per accepted connection. The loops serve while tcl_info says the client
// protocol is enabled and rebuild their sockets when the port changes.
#pragma once

#include "main/tcl_hook.h"

// Start the session registry and the three loops. 0, the registry's error,
// -6 (mutex, thread or memory failure) or -8 (a socket could not be made).
int netctrl_init(tcl_info *info);

// Move both servers to addr:port and wait until each loop has rebuilt its socket. Returns 0.
int netctrl_server_rebuild(unsigned long addr, unsigned short port);
