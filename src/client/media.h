// Live media from the camera: the TCP preview stream, active preview (the
// camera connects to us), UDP preview and the discovery search.
//
// A TCP preview is a connection whose first message is a preview request
// (0x40001); the camera answers with its session id and then sends frames
// until the connection ends: each a 4-byte FRAME_HDR (00 00 01 and a type),
// an info record and the frame's data. Video frames are H.264 access units
// in Annex-B form, audio frames G.711 mu-law at 8000 Hz.
//
//   camgate::client::Session s("192.168.1.10", 6258);
//   s.login("admin", "");
//   camgate::client::PreviewStream live("192.168.1.10", 6258, {s.info().session_id, 0, 0});
//   camgate::client::MediaFrame f;
//   for (;;) { live.next(f); ... }
//
// Failures throw camgate::client::Error (client.h); a refused request
// throws ErrorKind::Refused with the camera's code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "client/client.h"
#include "common/tk_proto.h"

namespace camgate {
namespace client {

// The largest frames a camera sends (its frame buffers).
constexpr size_t kMaxVideoFrame = 3145728;
constexpr size_t kMaxAudioFrame = 524288;

// One frame of a live stream.
struct MediaFrame {
    enum class Kind { VideoI, VideoP, Audio };
    Kind kind = Kind::VideoI;
    uint16_t pts_msec = 0;  // video: capture time in ms, low 16 bits
    // I-frames only:
    unsigned framerate = 0;
    unsigned width = 0;
    unsigned height = 0;
    TK_SYS_TIME rtc_time{};  // the camera's local time when it sent the frame
    // Audio only (the camera sends 1, 0, 1, 0: G.711 mu-law, 8000 Hz, 16-bit, mono):
    AFRAME_INFO audio{};
    std::vector<uint8_t> data;  // the encoded frame; its buffer is reused from frame to frame

    bool video() const { return kind != Kind::Audio; }
};

// Read the next frame of a live stream from conn into frame. Throws Protocol
// for anything a camera does not send (a wrong sync code, an unknown type, a
// frame larger than the camera's buffers, and a video frame of type 0x00,
// whose length the stream does not carry), Closed and Timeout.
void read_frame(Connection &conn, MediaFrame &frame);

// What a preview request asks for.
struct PreviewRequest {
    int32_t auth_id = 0;        // the id of a logged-in control session
    uint32_t channel = 0;       // 0..63
    uint32_t stream_index = 0;  // 0: main stream, 1: sub stream, ...
    uint32_t protocol = PROTOCOL_TYPE_TCP;
};

// A TCP live stream. Move-only.
class PreviewStream {
  public:
    // Connect to the camera's client port and request the stream. Throws
    // Refused with the camera's code (-6: it serves 8 viewers already).
    PreviewStream(const std::string &host, int port, const PreviewRequest &req, int timeout_ms = 10000);
    // A stream on a connection the camera opened (active preview), whose
    // preview request has been answered already.
    PreviewStream(Connection conn, const NEW_PP_PERVIEW_REQ &camera_request);

    // The camera's session id of a requested stream (-1 for an active one).
    int32_t session_id() const { return session_id_; }
    // The preview request the camera sent on an active stream.
    const NEW_PP_PERVIEW_REQ &camera_request() const { return camera_request_; }
    // The next frame (see read_frame).
    void next(MediaFrame &frame) { read_frame(conn_, frame); }
    Connection &connection() { return conn_; }

  private:
    Connection conn_;
    int32_t session_id_ = -1;
    NEW_PP_PERVIEW_REQ camera_request_{};
};

// Active preview: a listening socket the camera connects back to.
class ActiveListener {
  public:
    // Listen on bind_address:port (port 0: any free port).
    explicit ActiveListener(int port = 0, const std::string &bind_address = "0.0.0.0");
    ~ActiveListener();
    ActiveListener(const ActiveListener &) = delete;
    ActiveListener &operator=(const ActiveListener &) = delete;

    int port() const { return port_; }
    // Wait at most timeout_ms for the camera's connection, read its preview
    // request (0x40001), answer it with success and session_id, and return
    // the stream. Throws Timeout when no camera connects, Protocol when the
    // peer does not present itself as a camera.
    PreviewStream accept(int timeout_ms, int32_t session_id = 1);

  private:
    int fd_ = -1;
    int port_ = 0;
};

// Ask the camera, over a logged-in control session, to connect to
// address:port and stream there (0x40005); an empty address means the
// address the session connects from. Returns the camera's answer (0: it is
// connecting; -1: it does not know our address).
int request_active_preview(Session &session, const std::string &address, int port, uint32_t channel,
                           uint32_t stream_index);

// ------------------------------------------------------------- discovery ---

// A camera's answer to a search.
struct DiscoveredCamera {
    std::string from;  // "address:port" the answer came from
    DeviceInfo device;
    bool dhcp = false;
    std::string ip, mask, gateway, dns, mac;
    unsigned tcp_port = 0;  // its client port
    unsigned web_port = 0;

    static DiscoveredCamera decode(const TK_SEARCH_REPLY &raw);
};

struct DiscoverOptions {
    std::string address = "127.255.255.255";  // where the search goes (a broadcast or a camera's address)
    int port = 16258;                         // the discovery port
    int timeout_ms = 2000;                    // how long answers are collected
};

// Send one search (0x10001) and collect the answers until the time-out. The
// camera broadcasts its answer to the discovery port, so the search is sent
// from a socket bound to that port (shared with any camera on this host);
// identical answers are listed once. Throws Io when the port cannot be had.
std::vector<DiscoveredCamera> discover(const DiscoverOptions &opt);

// ------------------------------------------------------------ UDP preview ---

// A key frame put together from the chunks of a UDP preview.
struct UdpFrame {
    std::vector<uint8_t> data;
    int chunks = 0;
    // Every chunk from index 0 on arrived, the last shorter than 1024 bytes.
    // (A frame of an exact multiple of 1024 bytes cannot be told from one that
    // lost its last chunks: it counts as incomplete.)
    bool whole = false;
};

// A UDP preview: the camera repeats the newest key frame of the stream in
// 1 KB chunks as fast as it can; heartbeats keep the session (the camera
// drops it after about 12 s without one). Move-only.
class UdpPreview {
  public:
    // Send the request (protocol PROTOCOL_TYPE_UDP, or _MULTICAST, which the
    // camera accepts with session id -1 and never serves) to the camera's
    // client port and wait for the answer. Throws Refused with the camera's
    // code (-2 unknown auth_id, -11 no right, -4 protocol, -8, -6), Timeout.
    UdpPreview(const std::string &host, int port, const PreviewRequest &req, int timeout_ms = 10000);
    ~UdpPreview();
    UdpPreview(UdpPreview &&other) noexcept;
    UdpPreview &operator=(UdpPreview &&other) = delete;
    UdpPreview(const UdpPreview &) = delete;
    UdpPreview &operator=(const UdpPreview &) = delete;

    int32_t session_id() const { return session_id_; }
    // Keep the session alive (0x40003; the camera does not answer). Sent,
    // like the stop, from a socket of its own: the stream floods this one.
    void heartbeat();
    // The next frame within timeout_ms; false on time-out.
    bool next(UdpFrame &frame, int timeout_ms);
    // End the session (0x40002): the camera's answer (0: removed).
    int stop();

    struct Stats {
        int64_t datagrams = 0;  // chunk datagrams received
        int64_t whole = 0;      // frames complete
        int64_t cut = 0;        // frames with chunks missing
    };
    const Stats &stats() const { return stats_; }

  private:
    // Receive datagrams until the deadline: chunks go into the frame being put
    // together; with answer given, stop at the camera's answer (copied there),
    // otherwise as soon as a frame is ready. False on time-out.
    bool pump(int64_t deadline_ms, std::vector<uint8_t> *answer);
    void on_chunk(uint32_t index, const uint8_t *data, size_t len);
    // Send cmd with the session id from the control socket; what names it in the error.
    void send_ctl(int32_t cmd, const char *what);
    void finish_frame(bool whole);

    int fd_ = -1;       // the request, its answer and the stream
    int ctl_fd_ = -1;   // heartbeats, the stop and its answer
    std::string peer_;  // the camera's client port, "address:port"
    uint32_t peer_addr_ = 0;
    uint16_t peer_port_ = 0;
    int timeout_ms_ = 10000;
    int32_t session_id_ = -1;
    UdpFrame building_;
    bool in_frame_ = false;
    bool broken_ = false;
    uint32_t next_index_ = 0;
    std::vector<UdpFrame> ready_;  // oldest first, at most a few
    Stats stats_;
    std::vector<uint8_t> datagram_;
};

}  // namespace client
}  // namespace camgate
