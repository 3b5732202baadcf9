// The datagrams of the client port and of the discovery port: device search
// (answered by a broadcast description of the camera), presence probe, start,
// heartbeat and stop of a UDP or multicast preview, remote reboot.
//
// Until the UDP services are built, each datagram is received and dropped.
#pragma once

// Receive one datagram (at most 1024 bytes) on fd and answer it on the same
// socket: a zero-length datagram is echoed with a zero-length one, a search
// is answered by broadcast, a preview request with its session id or error
// code. Returns 0, or -8 when the receive (or the echo) fails, errno telling
// why (EAGAIN: the receive time-out). For now: every datagram is dropped.
int edci_parse_udp_protocol(int fd);
