#include "control/event.h"

#include <sys/time.h>

#include <cstdint>
#include <cstring>
#include <mutex>

#include "main/tcl_hook.h"

namespace {

constexpr int64_t kEventLifeMs = 2999;

int64_t now_ms()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

}  // namespace

int event_detect_get_state(char *event_state)
{
    tcl_info *info = get_g_tcl_info();
    std::lock_guard<std::mutex> lock(info->event_mutex);
    if (info->event_time != 0 && now_ms() - static_cast<int64_t>(info->event_time) * 1000 > kEventLifeMs)
        info->event_state = EVENT_STATE{};  // an event is reported for about 3 s
    std::memcpy(event_state, &info->event_state, sizeof info->event_state);
    return 0;
}
