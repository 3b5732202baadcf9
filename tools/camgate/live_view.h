// Recording a live stream for the preview commands: the video as an Annex-B
// H.264 elementary stream (from the first I-frame on), the audio as raw
// G.711 mu-law, a one-line progress on standard error and a summary at the end.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client/media.h"
#include "options.h"

namespace camgate {
namespace tool {

struct RecordOptions {
    std::string output;   // video file; "-": standard output; empty: not written
    std::string audio;    // audio file; empty: not written
    double duration = 0;  // seconds; 0: no limit
    long frames = 0;      // video frames; 0: no limit
    bool json = false;    // summary as one JSON object
    std::string name;     // the command, for messages ("preview")
};

// --stream and --channel, then the recording options (-o, --audio, --duration, --frames, --json).
std::vector<OptionDef> stream_option_defs();
std::vector<OptionDef> record_option_defs();
RecordOptions record_options_from(const Options &opts, const std::string &name);
// The preview request of --channel and --stream for the login auth_id.
client::PreviewRequest request_from(const Options &opts, int32_t auth_id);

// Record frames from stream until the duration or frame count is reached,
// SIGINT or SIGTERM arrive, or the stream ends. requested is when the stream
// was asked for (the first-frame delay counts from there). Exit status: 0
// when the recording ran to its end or was interrupted, 1 when the stream
// ended or failed first, or a file could not be written.
int record_stream(client::PreviewStream &stream, const RecordOptions &opt,
                  std::chrono::steady_clock::time_point requested);

// From now on SIGINT and SIGTERM only set a flag (waits are interrupted, not
// restarted); stop_signal() gives the signal caught, 0 while none was.
void catch_stop_signals();
int stop_signal();

}  // namespace tool
}  // namespace camgate
