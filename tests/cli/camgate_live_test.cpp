// The live-media commands of the camgate tool against the real daemon, fed
// by the encoder simulator playing the sample clips: what a user runs.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "support/camera_fixture.h"
#include "support/testenv.h"
#include "support/text.h"

namespace {

// The full path of a program on PATH, "" when there is none.
std::string on_path(const std::string &name)
{
    const char *path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = dir + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

// The number after "key": in a one-line JSON object (-1 when missing).
double json_number(const std::string &json, const std::string &key)
{
    const size_t at = json.find("\"" + key + "\": ");
    return at == std::string::npos ? -1 : std::atof(json.c_str() + at + key.size() + 4);
}

}  // namespace

// About 8 s: five of them record the main stream.
TEST(CamgateLive, DiscoverPreviewActivePreviewAndUdpPreviewOfTheSampleClip)
{
    cgtest::CameraOptions opt;
    opt.create_cache = false;
    cgtest::Camera cam(opt);
    encoder::Options eo;
    eo.key = cam.shm_key();
    encoder::EncoderSim enc(eo);
    ASSERT_TRUE(enc.start()) << enc.error();
    ASSERT_TRUE(enc.wait_for_video(0, 30, 5000));
    ASSERT_TRUE(cam.start()) << cam.error();
    const std::string camgate = cgtest::bin_path("camgate");
    const std::string port = std::to_string(cam.port());

    // discover: the camera answers on its discovery port.
    cgtest::Process discover;
    ASSERT_EQ(
        discover.run(camgate, {"discover", "--port", std::to_string(cam.discovery_port()), "--timeout", "1", "--json"}),
        0)
        << discover.err();
    const std::string found = discover.out();
    EXPECT_NE(found.find("\"serial_no\": \"IPC0123456789\""), std::string::npos) << found;
    EXPECT_NE(found.find("\"version\": 105,"), std::string::npos) << found;
    EXPECT_NE(found.find("\"release_date\": \"2013-05-12 00:00:00\""), std::string::npos) << found;
    EXPECT_NE(found.find("\"tcp_port\": " + port + ","), std::string::npos) << found;
    cgtest::Process nobody;
    EXPECT_EQ(nobody.run(camgate,
                         {"discover", "--port", std::to_string(cgtest::free_port_tcp_and_udp()), "--timeout", "0.3"}),
              1);
    EXPECT_NE(nobody.err().find("no camera answered"), std::string::npos) << nobody.err();

    // preview: 5 s of the 640x360 25 fps clip, which ffprobe and ffmpeg read without an error.
    cgtest::TempDir dir;
    const std::string video = dir.file("live.h264"), audio = dir.file("live.ulaw");
    cgtest::Process preview;
    ASSERT_EQ(
        preview.run(camgate, {"preview", "--port", port, "--duration", "5", "-o", video, "--audio", audio, "--json"}),
        0)
        << preview.err();
    const std::string summary = preview.out();
    EXPECT_EQ(json_number(summary, "width"), 640) << summary;
    EXPECT_EQ(json_number(summary, "height"), 360);
    EXPECT_EQ(json_number(summary, "framerate"), 25);
    EXPECT_GE(json_number(summary, "frames"), 90);  // 125 at 25 fps; a loaded machine may lose a few
    EXPECT_GE(json_number(summary, "i_frames"), 4);
    EXPECT_GE(json_number(summary, "first_frame_ms"), 0);
    EXPECT_LT(json_number(summary, "first_frame_ms"), 1000);
    EXPECT_EQ(cgtest::read_file(video).size(), json_number(summary, "video_bytes"));
    const size_t audio_bytes = cgtest::read_file(audio).size();
    EXPECT_GT(audio_bytes, 0u);
    EXPECT_EQ(audio_bytes % 320, 0u) << "whole 40 ms mu-law frames";
    EXPECT_TRUE(cgtest::has_line(preview.err(), "*frames * fps * kbit/s  I-frames *  audio frames *")) << preview.err();

    const std::string ffprobe = on_path("ffprobe"), ffmpeg = on_path("ffmpeg");
    if (ffprobe.empty() || ffmpeg.empty()) {
        ADD_FAILURE() << "ffprobe and ffmpeg are needed (scripts/deps installs them)";
    } else {
        cgtest::Process probe;
        ASSERT_EQ(probe.run(ffprobe, {"-v", "error", "-show_entries", "stream=codec_name,width,height,r_frame_rate",
                                      "-of", "default=noprint_wrappers=1", video}),
                  0)
            << probe.err();
        EXPECT_EQ(probe.out(), "codec_name=h264\nwidth=640\nheight=360\nr_frame_rate=25/1\n");
        EXPECT_EQ(probe.err(), "");
        cgtest::Process decode;
        EXPECT_EQ(decode.run(ffmpeg, {"-v", "error", "-i", video, "-f", "null", "-"}), 0);
        EXPECT_EQ(decode.err(), "") << "decoding errors";
    }

    // active-preview: the camera connects back to the tool.
    cgtest::Process active;
    ASSERT_EQ(active.run(camgate, {"active-preview", "--port", port, "--frames", "10", "--json"}), 0) << active.err();
    EXPECT_EQ(json_number(active.out(), "frames"), 10) << active.out();
    EXPECT_EQ(json_number(active.out(), "width"), 640);
    EXPECT_NE(active.err().find("the camera connected from 127.0.0.1:"), std::string::npos) << active.err();

    // udp-preview of the sub stream: whole key frames, the session stopped at the end.
    cgtest::Process udp;
    ASSERT_EQ(udp.run(camgate, {"udp-preview", "--port", port, "--stream", "1", "--duration", "1", "--json"}), 0)
        << udp.err();
    EXPECT_GT(json_number(udp.out(), "whole_frames"), 0) << udp.out();
    EXPECT_EQ(json_number(udp.out(), "stop_result"), 0);

    // A camera that is not there: a message that says what to check, status 1.
    cgtest::Process refused;
    EXPECT_EQ(refused.run(camgate, {"preview", "--port", std::to_string(cgtest::free_tcp_port()), "--frames", "1"}), 1);
    EXPECT_NE(refused.err().find("connection refused"), std::string::npos) << refused.err();
}
