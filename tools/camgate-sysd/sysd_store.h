// The settings store of the simulated system server: every record the
// daemon reads or writes, kept whole, with the defaults of a camera fresh
// from the factory; the user list; the PTZ tours; the clock. Not thread-safe:
// SysServerSim guards it with its own mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "common/zq_proto.h"

namespace sysd {

// The server's limit on its user list.
constexpr size_t kMaxUsers = 16;

class Store {
  public:
    Store();

    // What one received command did.
    struct Result {
        bool known = false;           // a command the server knows
        bool changed = false;         // the store changed (save the state file)
        bool push_protocol = false;   // NetworkProtocol was set: tell every client
        std::vector<uint8_t> answer;  // data of the answer, when the request wants one
        std::string note;             // why a set was refused, for the log
    };

    // Apply the command cmd with its data: a get fills the answer, a set
    // replaces its record (or applies the user or tour operation). Sets with
    // data of the wrong length are refused and change nothing.
    Result handle(uint16_t cmd, const uint8_t *data, size_t len);

    // The record behind the get command get_cmd (the rendered clock for
    // ZQ_GETTIME, the count-prefixed list for ZQ_GETUSER); empty if unknown.
    std::vector<uint8_t> record(uint16_t get_cmd) const;
    // Replace the record of get_cmd; false for an unknown command or a wrong length.
    bool set_record(uint16_t get_cmd, const void *data, size_t len);

    std::vector<ZQ_USER_ENTRY> users() const { return users_; }
    void set_users(const std::vector<ZQ_USER_ENTRY> &users);
    // A tour as on the wire (PtzTourInfo and its nodes); an empty tour when none is stored.
    std::vector<uint8_t> tour(uint8_t tour_id) const;
    // Store a tour given as on the wire; false when shorter than its header.
    bool set_tour(uint8_t tour_id, const std::vector<uint8_t> &tour);

    // The whole store as the bytes of a state file, and back. deserialize
    // leaves the store untouched and says why when the bytes are not a whole,
    // intact state file.
    std::string serialize() const;
    bool deserialize(const std::string &bytes, std::string *why);

    // Size of the record behind get_cmd, 0 when it is not a fixed record.
    static size_t record_size(uint16_t get_cmd);
    // The get command whose record the set command set_cmd replaces (0 if none).
    static uint16_t get_of_set(uint16_t set_cmd);

  private:
    DeviceTime render_time() const;
    void apply_time(const DeviceTime &t);
    void apply_user(const OperatorUser &op, std::string *note, bool *changed);

    std::map<uint16_t, std::vector<uint8_t>> records_;  // fixed records by get command
    DeviceTime time_fields_{};                          // NTP, zone, daylight saving
    int64_t clock_offset_ = 0;                          // seconds the clock runs ahead of the host
    std::vector<ZQ_USER_ENTRY> users_;
    std::map<uint8_t, std::vector<uint8_t>> tours_;
};

}  // namespace sysd
