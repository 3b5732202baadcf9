// The platform-protocol state of the client protocol (g_tcl_info).
//
// The system server's network-protocol settings switch the client protocol
// on or off and give its TCP/UDP port. check_tcl_enable reads them once at
// start-up; TclCB, the push callback of the system-server channel, applies
// later changes, alarms and the service stop. The network loops and the
// keepalive thread read the single-word fields without a lock.
#pragma once

#include <atomic>
#include <ctime>
#include <mutex>

#include "common/tk_proto.h"

enum con_st { con_suc = 0, con_fail = 1, con_change_port = 2 };

struct tcl_info {
    std::atomic<unsigned long> tcl_addr{0};  // bind address, host order; 0 = any
    std::atomic<unsigned int> tcl_port{0};   // TCP and UDP port of the client protocol
    std::atomic<int> tcp_fd{-1};             // listening socket
    std::atomic<int> udp_fd{-1};             // UDP server socket
    std::atomic<int> ls_discov_fd{-1};       // discovery socket
    std::atomic<int> tcl_enable{0};          // non-zero: the client protocol is served
    std::atomic<int> audio_enable{0};        // audio allowed; cleared by the stop push
    std::atomic<int> tcl_st{con_suc};        // con_st of the TCP service
    std::atomic<int> udp_st{con_suc};        // con_st of the UDP service
    EVENT_STATE event_state{};               // latched alarm flags, under event_mutex
    time_t event_time{0};                    // time of the latest alarm, under event_mutex
    std::mutex event_mutex;
};

// Default TCP and UDP port of the client protocol, used when the settings give 0.
constexpr unsigned int TCL_DEFAULT_PORT = 6258;

// The process-wide record.
extern tcl_info g_tcl_info;

// The address of g_tcl_info.
tcl_info *get_g_tcl_info();

// Clear the record (start-up step 2): every field zero, descriptors zero too.
void tcl_info_reset(tcl_info *info);

// Read the network-protocol settings (ZQ_GETNETWORKPROTOCOL) and set
// tcl_enable and tcl_port (6258 when the server's TclPort is 0). Returns 0.
int check_tcl_enable(tcl_info *info);

// Push callback of the system-server channel, working on g_tcl_info: 0x306
// settings changed (the enable byte is stored as sent, the port too, and the
// service states say what the loops must do), 0x508 alarm (latches one flag
// of event_state by AlarmType and stamps event_time), 0x204 service stop
// (both services con_fail, audio off). Other words, and data too short for
// the record, are ignored.
void TclCB(unsigned short shCmd, const char *pData, int nOutLen);
