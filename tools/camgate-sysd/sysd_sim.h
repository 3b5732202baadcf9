// The system server, simulated: a settings store that speaks the framed
// system-server protocol on 127.0.0.1. The program camgate-sysd wraps it;
// tests start it in-process on an ephemeral port.
//
// The store keeps every record the daemon uses as a whole record with
// realistic defaults, answers gets with the stored record, applies sets
// (answering them when the request wants an answer), keeps the user list and
// the PTZ tours, and records every frame it receives so tests can check the
// exact bytes the daemon sent. Per-command delays, silence and canned answers
// let tests provoke time-outs and malformed answers.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/zq_proto.h"

namespace sysd {

// One frame received from a client.
struct Frame {
    uint8_t device_id = 0;
    uint8_t param = 0;  // SOCKET_DEVICE_BLOCK or SOCKET_DEVICE_NOBLOCK
    uint16_t cmd = 0;
    std::vector<uint8_t> data;
    int64_t when_ms = 0;  // CLOCK_MONOTONIC milliseconds at receipt

    // The data as a record of type T (zero-filled when the data is shorter).
    template <class T>
    T as() const
    {
        T rec{};
        std::memcpy(&rec, data.data(), data.size() < sizeof(T) ? data.size() : sizeof(T));
        return rec;
    }
};

// The bytes of one frame as it travels: head, command word, data.
std::vector<uint8_t> make_frame(uint16_t cmd, const void *data, size_t len, uint8_t param = SOCKET_DEVICE_NOBLOCK,
                                uint8_t device_id = SOCKET_SYSTEM_SERVER);

// The port camgate-sysd listens on unless told otherwise.
constexpr int kDefaultPort = 19436;

struct Options {
    int port = 0;                      // 0: an ephemeral port (see port()); kept across stop()/start()
    std::string state_file;            // when set: loaded at start, saved after every change
    bool push_protocol_on_set = true;  // after ZQ_SETNETWORKPROTOCOL, push 0x306 with the new record
    bool log_frames = false;           // print one line per frame received (the program sets it)
    bool keep_frames = true;           // keep the frame log (the program turns it off: a long run must not grow)
};

class SysServerSim {
  public:
    explicit SysServerSim(Options opt = Options());
    ~SysServerSim();
    SysServerSim(const SysServerSim &) = delete;
    SysServerSim &operator=(const SysServerSim &) = delete;

    // Listen and serve in a background thread; false when the port cannot be bound.
    bool start();
    // Close the listener and every connection; the store is kept, so start() again resumes.
    void stop();
    // The bound port (valid after start()).
    int port() const;

    // --- the store ---------------------------------------------------------
    // The record answered to the get command get_cmd (for example
    // ZQ_GETNETWORKPROTOCOL); sets are stored under their get command.
    std::vector<uint8_t> record(uint16_t get_cmd) const;
    void set_record(uint16_t get_cmd, const void *data, size_t len);
    template <class T>
    T get(uint16_t get_cmd) const
    {
        T rec{};
        std::vector<uint8_t> raw = record(get_cmd);
        std::memcpy(&rec, raw.data(), raw.size() < sizeof(T) ? raw.size() : sizeof(T));
        return rec;
    }
    template <class T>
    void put(uint16_t get_cmd, const T &rec)
    {
        set_record(get_cmd, &rec, sizeof rec);
    }
    // The user list and one PTZ tour (header and nodes as on the wire).
    std::vector<ZQ_USER_ENTRY> users() const;
    void set_users(const std::vector<ZQ_USER_ENTRY> &users);
    std::vector<uint8_t> tour(uint8_t tour_id) const;
    void set_tour(uint8_t tour_id, const std::vector<uint8_t> &tour);

    // --- received frames ---------------------------------------------------
    std::vector<Frame> received() const;
    void clear_received();
    // Number of frames received with command word cmd.
    int count(uint16_t cmd) const;
    // Wait until at least n frames with command word cmd have been received
    // (counting since the last clear_received); the n-th is copied to out.
    bool wait_for(uint16_t cmd, int timeout_ms, Frame *out = nullptr, int n = 1) const;

    // --- behaviour -----------------------------------------------------------
    // Sets still take effect at once; only the answer waits (other frames are served meanwhile).
    void set_delay(uint16_t cmd, int delay_ms);  // answer cmd only after delay_ms
    void set_silent(uint16_t cmd, bool silent);  // never answer cmd
    // Answer cmd with these exact bytes instead of the stored record (empty vector: back to normal).
    void set_canned_answer(uint16_t cmd, const std::vector<uint8_t> &data);
    void reset_behaviour();

    // --- connections and pushes ------------------------------------------------
    // Send a push (param 0) to every connected client; false when none is connected.
    bool push(uint16_t cmd, const void *data, size_t len);
    int connections() const;
    // Wait until at least n clients are connected (n 0: until none is).
    bool wait_connections(int n, int timeout_ms) const;
    // Close every client connection (the listener stays) and wait until they are gone.
    void drop_connections();

    // --- additions -------------------------------------------------------------
    // Send bytes exactly as given to every connected client, in pieces of
    // piece_size bytes (0: all at once) with gap_ms between pieces; false when
    // none is connected. For reassembly tests and malformed frames.
    bool send_raw(const std::vector<uint8_t> &bytes, size_t piece_size = 0, int gap_ms = 0);
    // Stop (or resume) reading from the clients, so their sends back up.
    void pause_reading(bool paused);
    // CLOCK_MONOTONIC milliseconds of every connection accepted so far.
    std::vector<int64_t> connect_times() const;
    // Why the state file was not loaded at construction ("" when it was, or
    // when there was none yet).
    std::string state_error() const;
    // Put every setting back to the defaults of a new camera (and save them).
    void reset_store();
    // Wait until every delayed answer has gone out.
    bool wait_idle(int timeout_ms) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sysd
