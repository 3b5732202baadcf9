// Timer-recording schedule (0x30050, 0x30051) and the fixed record mode and
// pre-record time, on the system server's RecordParam.
#pragma once

#include "common/tk_proto.h"
#include "common/zq_proto.h"

// Fill sche_para (zeroed first): per day the start and end time of the
// server's first four segments that it counts; type_mask 8 (timer) on all four
// segments of every day when timer recording is on. Returns 0.
int recorder_get_schedule(REC_SCHE_PARA *sche_para);

// For each segment whose type_mask is exactly 8: timer recording on, the
// segment's times stored in that entry of the day, the day's count set to 4.
// Other segments leave the server's entry as it was; timer recording is never
// switched off here. Returns 0.
int recorder_set_schedule(const REC_SCHE_PARA *sche_para);

// Read the system server's recording settings into *rec (zeroed first); the channel's result.
int recorder_read_param(RecordParam *rec);

// The pre-record time is fixed (5 s): does nothing, returns 0.
int set_prerec_time(int ntime);
