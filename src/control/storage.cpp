#include "control/storage.h"

#include <cstring>
#include <memory>

#include "common/env.h"
#include "common/log.h"
#include "common/zq_proto.h"
#include "control/recorder.h"
#include "main/socketclientcmd.h"

namespace {

constexpr uint64_t kMiB = 1024 * 1024;  // the server gives the card's sizes in megabytes

}  // namespace

int storage_get_overwrite_mode()
{
    auto rec = std::make_unique<RecordParam>();
    recorder_read_param(rec.get());
    return rec->LowSpaceMethod == 1 ? 1 : 0;
}

int storage_set_overwrite_mode(int mode)
{
    auto rec = std::make_unique<RecordParam>();
    recorder_read_param(rec.get());
    if (mode == 0 || mode == 1) rec->LowSpaceMethod = static_cast<uint8_t>(mode);
    socket_client_cmd_Set(ZQ_SETRECORDPARAM, rec.get(), sizeof *rec);
    return 0;
}

int storage_get_disk_info(DISK_INFO *pdisk_para, int *count)
{
    uint8_t req[4] = {0, 0, 0, 0};
    SDCardInfo card{};
    int outlen = 0;
    const int ret = socket_client_cmd_Read(ZQ_GETSDCARDINFO, req, sizeof req, &card, &outlen, sizeof card);
    if (ret != 0 || outlen < static_cast<int>(sizeof card)) {
        ERR("storage_get_disk_info: no card information, ret = %d, outlen = %d", ret, outlen);
        return -1;
    }
    std::memset(pdisk_para, 0, sizeof *pdisk_para);
    if (card.SdLoad == 0)
        pdisk_para->status = DISK_STATUS_NO_DISK;
    else if (card.SdFormat == 0)
        pdisk_para->status = DISK_STATUS_UNFORMATTED;
    else
        pdisk_para->status = DISK_STATUS_NORMAL;
    const uint64_t total = card.SdSize * kMiB;
    pdisk_para->used = card.SdUseSize * kMiB;
    pdisk_para->fixed_info.total_size = total;
    wire_set_str(pdisk_para->fixed_info.dev_path, env_media_root());
    DBG("SdLoad = %d, SdUseSize = %u, SdSize = %u, SdFormat =%d, total = %lu", card.SdLoad, card.SdUseSize, card.SdSize,
        card.SdFormat, static_cast<unsigned long>(total));
    *count = 1;
    return 0;
}
