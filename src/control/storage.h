// Storage: the card's overwrite mode (LowSpaceMethod of RecordParam) and the
// disk information (the server's SDCardInfo).
#pragma once

#include "common/tk_proto.h"

// 1 when the oldest recordings are overwritten on a full card, else 0.
int storage_get_overwrite_mode();

// Mode 0 or 1 is stored; any other mode leaves the setting as it was (the
// record is written back all the same). Returns 0.
int storage_set_overwrite_mode(int mode);

// Fill one DISK_INFO from the card information (status, capacity and use in
// bytes, the mount point as dev_path) and set *count to 1. 0, or -1 when the
// server does not answer a whole SDCardInfo.
int storage_get_disk_info(DISK_INFO *pdisk_para, int *count);
