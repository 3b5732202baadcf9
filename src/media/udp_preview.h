// The datagrams of the client port and of the discovery port: device search
// (answered by a broadcast description of the camera), presence probe, start,
// heartbeat and stop of a UDP or multicast preview, remote reboot.
//
// Every datagram begins with a NEW_PACKET_HEADER. A UDP preview streams the
// newest key frame of a video stream, again and again as fast as the socket
// takes it, in datagrams of a 16-byte TK_UDP_CHUNK_HDR (cmd 0x40004, len =
// chunk + 4, chunk index counting from 0 in each frame) and at most 1024
// bytes of the frame.
#pragma once

#include "common/tk_proto.h"

// Largest datagram read, and the frame buffer of a UDP preview (a larger key
// frame is never sent).
constexpr int UDP_DATAGRAM_MAX = 1024;
constexpr int UDP_PREVIEW_BUF_SIZE = 524288;
// Heartbeat time-out of a UDP preview session, in keepalive checks.
constexpr int UDP_PREVIEW_TIMEOUT = 10;

// Hand-over of a UDP preview to its thread, which frees it.
struct NEW_UDP_SENT_PACKAGE {
    NEW_PP_PERVIEW_REQ payload;
    int session_id;  // -1 for multicast: no session
    int fd;          // the streaming socket, connected to the viewer (multicast: unconnected)
};

// Receive one datagram (at most 1024 bytes) on fd and answer it from the same
// socket: a zero-length datagram is echoed with a zero-length one; a search
// (0x10001) is answered by a broadcast of the camera's description to
// env_broadcast_addr():env_discovery_port() (nothing when the system server
// cannot describe the camera); a probe (0x10003) with 0x10004; a preview
// request (0x40001) with the session id, or its error code (-2 unknown user,
// -11 no right or channel above 63, -4 protocol neither UDP nor multicast,
// -8 socket, -6 no session or thread); a stop (0x40002) with the result of
// removing the session; a heartbeat (0x40003) refreshes the session; a
// reboot (0x70001) runs "reboot" unless an upgrade is running. Anything else,
// and datagrams too short for their header or body, are ignored. Returns 0,
// or -8 when the receive (or the echo) fails, errno telling why (EAGAIN: the
// receive time-out).
int edci_parse_udp_protocol(int fd);

// Thread body of one UDP preview (arg: NEW_UDP_SENT_PACKAGE*, freed here):
// repeats the I-frame that opens the newest GOP in 1024-byte chunks as fast
// as the socket accepts them, until a send fails; then removes the session
// and closes the socket.
void *udp_preview_routine(void *arg);

// Hardware address of interface ifname as "AA:BB:CC:DD:EE:FF" into mac (18
// bytes), and into ip and mask (16 bytes each) the dotted text of bytes 2-5
// of that hardware address (not the interface's address: callers that need
// it read the network settings). Any of the three may be null. 0, or -1
// (no name, no socket, no such interface).
int geteth_ip_mask_mac_br(const char *ifname, char *ip, char *mask, char *mac);

// The search reply body as the camera would send it now: device description
// and network settings from the system server. 0, or -1 when the network
// protocol settings, the capabilities or the device information cannot be read.
int udp_fill_search_reply(TK_SEARCH_REPLY *reply);
