// Base settings (control commands 0x30001-0x3000F): the device clock, the
// date layout of the video overlay and daylight saving. The dispatcher has
// checked RIGHT_SYSBASE_SET for the whole group.
//
// The clock lives in the system server's DeviceTime record (ZQ_GETTIME /
// ZQ_SETTIME), the date layout in the overlay record VideoOsd (TimeType).
#pragma once

// Serve command (0x30001-0x3000F) with the request payload in buf (the reply
// is built there) and write the reply on fd. 0 after a reply, -7 when writing
// it fails. Get time answers a TK_SYS_TIME (len 8), get date format a u32
// (len 4), get DST a zeroed DST_PARA (len 44), all without a count; the sets
// answer a bare header. Set DST and the base reset do nothing and answer 0;
// any other code of the group answers -4.
int new_tknvi_cfg_base(int fd, int command, char *buf, int session_id);
