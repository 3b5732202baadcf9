// The channel, camera-image and encoding group (control commands
// 0x30030-0x30045). Rights are tested per command here: 0x30030-0x30032,
// 0x30036 and 0x30037 need RIGHT_CHANNEL_SET, 0x30033-0x30035 RIGHT_RECORD_SET,
// 0x30040 and 0x30041 nothing, 0x30042-0x30045 RIGHT_ENCODE_SET; a refusal is
// answered -11 and the connection goes on.
//
// The overlay commands go through video_cfg. The camera-image record is not
// kept by the system server: its get answers a zeroed record and its set
// answers 0. The encoding get describes each video stream from the frame
// cache's media information; the encoding and ROI sets answer 0.
#pragma once

#include "common/tk_proto.h"

// Serve command with the payload in buf (the reply is built there) and
// write the reply on fd. 0 after a reply, -7 when writing it fails.
int new_tknvi_cfg_channel_enc(int fd, int command, char *buf, int session_id, const USER_PRIVILEGE *priv);

// Fill one VIDEO_ENC_PARA per video stream of the frame cache into records
// (room for max records): stream index, codec, picture size, frame rate and
// bit rate from the cache's media information. The number of records filled
// (0 when the cache is not attached).
int video_cfg_get_enc_para(VIDEO_ENC_PARA *records, int max);
