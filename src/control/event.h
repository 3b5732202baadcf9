// The event state reported by 0x70005: the alarm flags latched by the
// platform hook (tcl_info.event_state).
#pragma once

// Copy the 296-byte EVENT_STATE into event_state. When the latest event is
// more than 2999 ms old the stored state is cleared first, so an event is
// reported for about 3 s. Returns 0.
int event_detect_get_state(char *event_state);
