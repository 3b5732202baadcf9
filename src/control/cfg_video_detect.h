// The detection and alarm group (control commands 0x30070-0x30082): video
// detection, alarm inputs, exceptions and the alarm output. Every command
// needs RIGHT_EVENT_DETECT_SET; a refusal is answered -11 and the connection
// goes on.
//
// The system server keeps none of these settings for this camera: the gets
// answer zeroed records of the protocol's sizes (one alarm record per alarm
// input the server reports), the sets answer 0 with an operation-log entry,
// the two resets remove the recording configuration files.
#pragma once

// Serve command with the payload in buf (the reply is built there) and
// write the reply on fd. right is the session's RIGHT_EVENT_DETECT_SET byte.
// 0 after a reply, -7 when writing it fails.
int new_tknvi_cfg_video_detect(int fd, int command, char *buf, int session_id, const unsigned char *right);

// Number of alarm inputs of the device (IoInputCount of the device
// capability), 0 when the server does not tell.
int alarm_detect_input_count();
