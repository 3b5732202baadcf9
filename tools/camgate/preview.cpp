// camgate preview and camgate active-preview: record a live stream of the
// camera, asked for on its client port or sent by the camera to a port of ours.
#include <iostream>

#include "client/client.h"
#include "client/media.h"
#include "command.h"
#include "live_view.h"

namespace camgate {
namespace tool {

namespace {

std::vector<OptionDef> preview_options()
{
    std::vector<OptionDef> defs = connection_options();
    for (const OptionDef &d : stream_option_defs()) defs.push_back(d);
    for (const OptionDef &d : record_option_defs()) defs.push_back(d);
    return defs;
}

std::vector<OptionDef> active_preview_options()
{
    std::vector<OptionDef> defs = preview_options();
    defs.push_back({"listen-port", "PORT", "port the camera connects to (default: any free port)"});
    defs.push_back({"connect-to", "ADDRESS",
                    "address the camera is asked to connect to (default: the address it sees this login come from)"});
    return defs;
}

int run_preview(const Options &opts)
{
    const Target t = target_from(opts);
    const RecordOptions rec = record_options_from(opts, "preview");
    // The stream names the login it belongs to; the control session is not needed afterwards.
    client::Session session = login_to(t);
    const client::PreviewRequest req = request_from(opts, session.info().session_id);
    const auto requested = std::chrono::steady_clock::now();
    client::PreviewStream stream(t.host, t.port, req, t.timeout_ms);
    session.logout();
    return record_stream(stream, rec, requested);
}

int run_active_preview(const Options &opts)
{
    const Target t = target_from(opts);
    const RecordOptions rec = record_options_from(opts, "active-preview");
    const int listen_port = static_cast<int>(opts.integer("listen-port", 0, 0, 65535));
    const std::string connect_to = opts.text("connect-to", "");
    client::ActiveListener listener(listen_port);

    client::Session session = login_to(t);
    const client::PreviewRequest req = request_from(opts, session.info().session_id);
    const auto requested = std::chrono::steady_clock::now();
    const int result =
        client::request_active_preview(session, connect_to, listener.port(), req.channel, req.stream_index);
    if (result != 0) {
        std::cerr << "camgate active-preview: the camera refused to connect back (" << result << ")"
                  << (result == -1 ? ": it does not know the address to connect to, give --connect-to" : "")
                  << std::endl;
        return 1;
    }
    client::PreviewStream stream = listener.accept(t.timeout_ms);
    // The stream does not depend on the control session that asked for it.
    session.logout();
    std::cerr << "the camera connected from " << stream.connection().peer() << " to port " << listener.port()
              << std::endl;
    return record_stream(stream, rec, requested);
}

}  // namespace

Command preview_command()
{
    return {"preview",
            "record the live stream: video as H.264, audio as mu-law",
            "camgate preview [options]",
            "Logs in, asks for the live stream of --stream and records it until --duration\n"
            "or --frames is reached or Ctrl-C: the video with -o as an H.264 elementary\n"
            "stream that ffplay and ffprobe open, from the first I-frame on, the audio with\n"
            "--audio as raw G.711 mu-law (ffplay -f mulaw -ar 8000 FILE). A progress line\n"
            "on standard error shows frames, frame rate, bit rate, I-frames and audio frames;\n"
            "the summary at the end gives the delay from the request to the first complete\n"
            "I-frame.",
            preview_options,
            run_preview};
}

Command active_preview_command()
{
    return {"active-preview",
            "ask the camera to connect back to us and record its stream",
            "camgate active-preview [options]",
            "Listens on a port, logs in and asks the camera (0x40005) to connect to that\n"
            "port and stream there, answers the camera's preview request, then records\n"
            "like camgate preview. The camera connects to --connect-to, or to the address\n"
            "it sees the login come from.",
            active_preview_options,
            run_active_preview};
}

}  // namespace tool
}  // namespace camgate
