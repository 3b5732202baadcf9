// Framing of the client protocol and the dispatch of a connection's first
// message.
//
// Every message on a client connection, in both directions, is a 12-byte
// NEW_PACKET_HEADER ("QVRM", cmd, len) followed by len body bytes. The first
// message of a connection decides what the connection becomes: login and then
// control, live preview, playback or talk.
#pragma once

#include "common/tk_proto.h"

// Fill a reply header without body: magic "QVRM", cmd = code, len = 0.
void new_tknvi_noload_ack(NEW_PACKET_HEADER *header, int code);

// Fill a reply header for a list: magic "QVRM", cmd = 0, len = count *
// item_size + 4, and store count (32-bit) in the first 4 bytes of body; the
// caller has put (or puts) the count records of item_size bytes at body + 4.
void new_tknvi_load_ack(NEW_PACKET_HEADER *header, void *body, int item_size, int count);

// True when the 4 bytes at p are the magic "QVRM" in this order.
bool edci_is_magic(const void *p);

// Serve a connection whose first 4 bytes were the magic: read the rest of the
// header (cmd, len) and hand the socket to the service routine of cmd
// (0x20001 login, 0x40001 preview, 0x50002 playback, 0x60001 talk), which runs
// until the connection ends. 0x80001 and 0x90003 are accepted without a
// service and give 0. Returns the routine's result, -4 for any other command
// (no reply), -7 when the header could not be read whole or the client
// protocol is not in service (tcl_enable 0 or tcl_st not con_suc). Never
// closes the socket: the connection thread does.
int edci_parse_protocol(int fd);
