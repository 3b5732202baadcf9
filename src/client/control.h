// Typed control commands of the client library: the camera's settings, PTZ,
// users, recording, storage, events, snapshot and reboot, on a logged-in
// Session.
//
//   camgate::client::Session s("192.168.1.10", 6258);
//   s.login("admin", "");
//   camgate::client::Control c(s);
//   NET_COMM_PARA net = c.get_network();
//   net.tcp_port = 6000;
//   c.set_network(net);
//
// A reply with a negative result throws Error of kind Refused, whose code()
// is the result and whose message says why in words ("refused: the user
// lacks the network settings right (-11)"). A reply of the wrong size throws
// a Protocol error. The records are those of common/tk_proto.h, described in
// docs/protocol.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/client.h"
#include "common/tk_proto.h"

namespace camgate {
namespace client {

// The operation right (a TK_RIGHT) a control command needs; -1 when it needs none.
int command_right(int32_t cmd);

// A command's negative result in words: "refused: the user lacks the network
// settings right (-11)", "refused: the camera does not support command
// 0x30020 (-4)", "the camera answered command 0x300a4 with error -1".
std::string result_text(int32_t cmd, int32_t result);

// Throws Error(ErrorKind::Refused, result_text(cmd, r.result), r.result) unless r.ok().
void check_reply(int32_t cmd, const Reply &r);

class Control {
  public:
    explicit Control(Session &session) : s_(session) {}

    // Clock and date layout of the overlay (TK_DATE_FORMAT).
    TK_SYS_TIME get_time();
    void set_time(const TK_SYS_TIME &t);
    uint32_t get_date_format();
    void set_date_format(uint32_t format);

    // Network group.
    NET_COMM_PARA get_network();
    void set_network(const NET_COMM_PARA &n);
    NET_NTP_PARA get_ntp();
    void set_ntp(const NET_NTP_PARA &n);
    NET_EMAIL_PARA get_email();
    void set_email(const NET_EMAIL_PARA &e);
    NET_FTP_PARA get_ftp();
    void set_ftp(const NET_FTP_PARA &f);
    NET_DDNS_PARA get_ddns();
    void set_ddns(const NET_DDNS_PARA &d);
    void reset_network();

    // Overlay and privacy covers of channel 0.
    VIDEO_CHN_PARA get_overlay();
    void set_overlay(const VIDEO_CHN_PARA &v);

    // One PTZ command; the camera answers 0 for any command it was allowed to run.
    void ptz(const PTZ_CMD_PACKAGE &cmd);
    PTZ_PARA get_ptz_settings();
    void set_ptz_settings(const PTZ_PARA &p);

    // Users (passwords travel in clear).
    std::vector<USER_INFO> users();
    void add_user(const USER_INFO &u);
    void delete_user(const std::string &name);
    void modify_user(const USER_INFO &u);
    void change_password(const std::string &name, const std::string &old_password, const std::string &new_password);

    // Recording, storage, events.
    REC_SCHE_PARA get_schedule();
    void set_schedule(const REC_SCHE_PARA &s);
    uint32_t get_overwrite_mode();
    void set_overwrite_mode(uint32_t mode);
    std::vector<DISK_INFO> disks();
    EVENT_STATE event_state();
    std::vector<VIDEO_ENC_PARA> encodings();

    // The newest JPEG picture.
    std::vector<uint8_t> snapshot();

    // Reboot the camera; the connection is closed afterwards.
    void reboot();

  private:
    Reply ask(int32_t cmd, const void *payload = nullptr, size_t len = 0);
    template <class T>
    T record(int32_t cmd);
    template <class T>
    std::vector<T> list(int32_t cmd);
    template <class T>
    void set(int32_t cmd, const T &rec);
    template <class T>
    void set_after_prefix(int32_t cmd, const T &rec);

    Session &s_;
};

}  // namespace client
}  // namespace camgate
