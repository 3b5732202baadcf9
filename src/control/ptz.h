// PTZ control (0x70003) and the serial PTZ settings (0x300A3, 0x300A4).
//
// ptz_control turns the client's PTZ_CMD_PACKAGE into one of the system
// server's small PTZ records and sends it; the server drives the motors. The
// serial settings live in the server's 248-byte camera record (CameraParam).
#pragma once

#include "common/tk_proto.h"
#include "common/zq_proto.h"

// Carry out one PTZ command. Speeds (param2, 0-7) are scaled to the server's
// ranges: pan and tilt 0-63, focus step 0-100, zone speed 0-255. Moves go to
// the given channel; focus, iris, auto-pan and scan stops go to channel 0
// through stop_ptzcontrol. Always 0, also for unknown commands.
int ptz_control(const PTZ_CMD_PACKAGE *ptz_cmd);

// Stop every movement: an all-zero PTOperator (channel 0, PtCmd 0).
void stop_ptzcontrol();

// Send op with both speeds limited to 63.
void PrepareContinuousMoveBy2D(const PTOperator *op);

// Send the zoom record.
void PrepareContinuousMoveBy1D(const CameraZoom *zoom);

// The server's PtCmd for a client direction (PTZ_CTRL_UP..RIGHT_DOWN); 0 (stop) for anything else.
int tcl_ptz_to_zq_ptz(int direction);

// Baud rates: the client's TK_BAUD_RATE for a rate in bits per second (any
// rate not in the table gives BAUD_RATE_115200), and the rate for an
// enumeration value (0-7; anything else gives 115200, so 230400 and above
// cannot be set).
int zq_baud_rate_to_tcl(unsigned rate);
unsigned tcl_baud_rate_to_zq(unsigned baud);

// Serial settings. The get fills decoder address, baud rate and protocol
// (the server's code passed through when it is 0, 1 or 3; otherwise the
// field is left as it was), 8 data bits, no parity, one stop bit, no flow
// control; returns 0. The set swaps the protocol codes 0 and 1 (so Pelco-D
// reads back as Pelco-P), keeps the server's code for an unknown protocol,
// refuses Samsung (2) with -1 before writing anything, and ignores the
// character format; returns 0 otherwise.
int ptz_cfg_get_para(PTZ_PARA *para);
int ptz_cfg_set_para(const PTZ_PARA *para);
