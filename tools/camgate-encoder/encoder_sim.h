// The camera's encoder, simulated: it creates the shared-memory frame cache
// and keeps publishing into it what a camera's encoder publishes: H.264
// video streams (an Annex-B clip played in a loop, or synthetic frames), a
// JPEG snapshot and G.711 mu-law audio at 8000 Hz, each paced in real time
// and stamped with the monotonic clock in seconds. The program
// camgate-encoder wraps it; tests run it in-process.
//
// The frame cache module keeps its attachment process-wide, so a process
// holds one running EncoderSim at a time, and code of the daemon linked into
// the same process (shm_cache_read_frame, get_snap_cache_idx, ...) reads
// through the simulator's attachment without attaching itself.
//
// Caches: video stream i is cache i, the snapshot cache follows the video
// caches, the audio cache comes last (when enabled).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace encoder {

// Path of a file in the repository's samples/ directory.
std::string sample_path(const std::string &name);

struct VideoStream {
    std::string clip;     // Annex-B H.264 file played in a loop; empty: synthetic frames
    int cache_kb = 2048;  // size of the stream's cache
    // Synthetic frames only (a clip brings its own size and rate):
    int width = 640;   // even
    int height = 360;  // even
    int fps = 25;      // also the rate of a clip whose SPS carries none
    int gop = 50;      // frames from one I-frame to the next
    int i_frame_bytes = 24000;
    int p_frame_bytes = 3000;
};

// Size the synthetic frames of vs (at its frame rate and GOP) so that the
// stream carries kbps kilobits a second, an I-frame weighing 8 P-frames; the
// sizes are kept at or above the smallest frames the simulator writes.
void size_for_bitrate(VideoStream *vs, int kbps);

// The two streams of a camera: the 640x360 main stream and the 320x180 sub stream of samples/.
std::vector<VideoStream> sample_streams();

struct Options {
    key_t key = 0;  // cache key; 0 keeps CAMGATE_SHM_KEY (0x888888 when unset), otherwise CAMGATE_SHM_KEY is set to it
    std::vector<VideoStream> video = sample_streams();  // 1 to 7 streams
    bool snapshot = true;
    std::string jpeg = sample_path("snapshot-640x360.jpg");
    int snapshot_interval_ms = 1000;
    int snapshot_cache_kb = 512;
    bool audio = true;
    int audio_cache_kb = 64;
    int audio_frame_ms = 40;  // 8 bytes of mu-law per millisecond
    int tone_hz = 1000;
    bool start_paused = false;     // create the caches but write nothing until resume()
    int64_t max_video_frames = 0;  // per stream; 0: no limit. Audio and snapshots go on.
};

// What the simulator publishes for one video stream.
struct StreamInfo {
    int width = 0;
    int height = 0;
    int fps = 0;
    int kbps = 0;         // the cache's bps field: kilobits per second
    int loop_frames = 0;  // access units in one pass of the clip (synthetic: the GOP)
    size_t largest_frame = 0;
};

struct Counters {
    std::vector<int64_t> video_frames;  // per stream, since start
    std::vector<int64_t> video_i_frames;
    std::vector<int64_t> video_bytes;
    int64_t audio_frames = 0;
    int64_t snapshots = 0;
    int64_t write_errors = 0;  // frames the cache refused
};

// A synthetic video frame names its stream and its frame number (counted
// from 0 per stream; the cache serial while nothing else writes the cache).
struct SyntheticFrame {
    int stream = -1;
    int64_t frame = -1;
    bool key = false;
};
// Recognise a synthetic frame as read from the cache; false for anything else.
bool parse_synthetic_frame(const char *data, size_t size, SyntheticFrame *out);

class EncoderSim {
  public:
    explicit EncoderSim(Options opt = Options());
    ~EncoderSim();
    EncoderSim(const EncoderSim &) = delete;
    EncoderSim &operator=(const EncoderSim &) = delete;

    // Load the media, create the frame cache, publish each cache's media
    // information and start writing. False, with error() saying why, when a
    // clip or picture cannot be used, the options are out of range or the
    // cache cannot be created.
    bool start();
    // Stop writing, then remove the segment and the semaphore set.
    void stop();
    const std::string &error() const;

    // Hold all writing, and go on (every schedule restarts from now).
    void pause();
    void resume();

    StreamInfo stream_info(int stream) const;
    Counters counters() const;
    // Wait until at least n video frames of stream (audio frames, snapshots) have been written.
    bool wait_for_video(int stream, int64_t n, int timeout_ms) const;
    bool wait_for_audio(int64_t n, int timeout_ms) const;
    bool wait_for_snapshots(int64_t n, int timeout_ms) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace encoder
