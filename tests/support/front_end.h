// The daemon's network front end (listener, UDP server, discovery loop and
// session registry) started inside the test process, for tests of behaviour
// that does not need the system server or the frame cache: framing, login,
// the control loop, sessions, port changes.
//
// It is started once per process, on a free loopback-reachable port (bound
// to any interface, as on a camera), with the client protocol enabled and
// the discovery loop on a free port. Tests may change get_g_tcl_info() to
// switch the protocol off or move the port; front_end_port() then gives the
// current port.
#pragma once

namespace cgtest {

// Start the front end on first use; the current client port (tcl_port).
// Fails the calling test (and returns -1) when it cannot start.
int front_end_port();

// The client protocol in service and an empty session registry, as every
// test of the registry, the control loop or registration starts.
void fresh_registry();

// The number of control sessions in the registry.
int ctrl_session_count();

}  // namespace cgtest
