#include "control/recorder.h"

#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"

namespace {

constexpr int kSegments = 4;  // segments of a day the client sees

}  // namespace

int recorder_read_param(RecordParam *rec)
{
    RecordParamReq req{};
    std::memset(rec, 0, sizeof *rec);
    int outlen = 0;
    return socket_client_cmd_Read(ZQ_GETRECORDPARAM, &req, sizeof req, rec, &outlen, sizeof *rec);
}

int recorder_get_schedule(REC_SCHE_PARA *sche_para)
{
    auto rec = std::make_unique<RecordParam>();
    recorder_read_param(rec.get());
    std::memset(sche_para, 0, sizeof *sche_para);
    for (int d = 0; d < 7; ++d) {
        const RecordDay &day = rec->TaskDayList[d];
        for (int j = 0; j < kSegments; ++j) {
            REC_SEGMENT &seg = sche_para->week_day[d].segment[j];
            if (j < day.SegmentCount) {
                seg.start_time = day.Segment[j].StartTime;
                seg.end_time = day.Segment[j].EndTime;
            }
            // Timer recording on: every segment of every day is a timer segment.
            if (rec->RecordTimeEnable == 1) seg.type_mask = REC_TYPE_TIMER_MASK;
        }
    }
    return 0;
}

int recorder_set_schedule(const REC_SCHE_PARA *sche_para)
{
    auto rec = std::make_unique<RecordParam>();
    recorder_read_param(rec.get());
    for (int d = 0; d < 7; ++d) {
        RecordDay &day = rec->TaskDayList[d];
        for (int j = 0; j < kSegments; ++j) {
            const REC_SEGMENT &seg = sche_para->week_day[d].segment[j];
            DBG("start_time=%u,end_time=%u, type_mask = %u", seg.start_time, seg.end_time, seg.type_mask);
            if (seg.type_mask != REC_TYPE_TIMER_MASK) continue;  // the server's entry stays as it was
            rec->RecordTimeEnable = 1;
            day.Segment[j].StartTime = seg.start_time;
            day.Segment[j].EndTime = seg.end_time;
            day.SegmentCount = kSegments;
        }
    }
    socket_client_cmd_Set(ZQ_SETRECORDPARAM, rec.get(), sizeof *rec);
    return 0;
}

int set_prerec_time(int ntime)
{
    (void)ntime;
    return 0;
}
