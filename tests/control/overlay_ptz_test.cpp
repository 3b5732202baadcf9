// The overlay and privacy covers, PTZ control and the serial PTZ settings.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/control_fixture.h"
#include "control/video_cfg.h"
#include "support/text.h"

namespace {

using cgtest::bytes_of;
using cgtest::CtrlReply;

class Device : public cgtest::ControlConn {
  protected:
    CtrlReply ptz(uint32_t cmd, uint32_t param1, uint32_t param2, uint32_t stop = 0, uint32_t channel = 0)
    {
        return ask_rec(TK_CMD_PTZ_CONTROL, PTZ_CMD_PACKAGE{channel, cmd, param1, param2, stop});
    }
};

const char kFrontDoorUtf8[] = "Camera 1 \xE5\x89\x8D\xE9\x97\xA8";  // "front door" in two characters
const char kFrontDoorGb[] = "Camera 1 \xC7\xB0\xC3\xC5";

std::vector<uint8_t> tour_bytes(uint8_t id, const char *name, const std::vector<std::pair<uint8_t, uint32_t>> &nodes,
                                int count = -1)
{
    PtzTourInfo head{};
    head.TourId = id;
    wire_set_str(head.TourName, name);
    head.NodeCount = static_cast<uint8_t>(count < 0 ? static_cast<int>(nodes.size()) : count);
    std::vector<uint8_t> out = bytes_of(head);
    for (const auto &n : nodes) {
        PTZTourPreset p{};
        p.PresetId = n.first;
        p.delay = n.second;
        const std::vector<uint8_t> b = bytes_of(p);
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

}  // namespace

// The coordinates and a good conversion are shown by the overlay tests below; these are the failures.
TEST(VideoCfg, ConversionsThatFail)
{
    char out[32];
    EXPECT_EQ(code_convert("no-such-charset", "UTF-8", "a", 1, out, sizeof out), -1);
    // An invalid sequence stops the conversion; what came before it is kept.
    EXPECT_EQ(code_convert("UTF-8", "GB2312", "ab\xFF", 3, out, sizeof out), -1);
    EXPECT_STREQ(out, "ab");
}

TEST_F(Device, OverlayGetConvertsPositionsTextAndCovers)
{
    VideoOsd o = sim().get<VideoOsd>(ZQ_GETVIDEOOSD);
    o.TimeEnable = 1;
    o.TimePosX = 10000;
    o.TimePosY = 5000;
    o.StringMainEnable = 1;
    o.StringMainPosX = 400;
    o.StringMainPosY = 9200;
    wire_set_str(o.StringMain, kFrontDoorUtf8);
    o.InfoEnable = 0;  // hidden: position 0
    o.InfoPosX = 7000;
    o.InfoPosY = 9200;
    o.String[1].Enable = 1;
    o.String[1].PosX = 10000;
    o.String[1].PosY = 0;
    sim().put(ZQ_GETVIDEOOSD, o);
    CoverArea c{};
    c.CoverAreaEnable = 0;
    c.WinCount = 2;
    c.Windows[0] = {0, 0, 5000, 5000};
    c.Windows[1] = {10000, 10000, 10000, 10000};
    c.Windows[2] = {1, 1, 1, 1};  // beyond WinCount: not reported
    sim().put(ZQ_GETCOVERAREA, c);

    const CtrlReply r = ask(TK_CMD_GET_CHN_CFG);
    ASSERT_EQ(r.result, 0);
    ASSERT_EQ(r.body.size(), 4 + sizeof(VIDEO_CHN_PARA));
    EXPECT_EQ(r.as<uint32_t>(), 1u);
    const auto v = r.as<VIDEO_CHN_PARA>(4);
    EXPECT_EQ(v.osd_count, 3);
    EXPECT_EQ(v.cover_count, 8);
    EXPECT_EQ(v.time.enable, 1);
    EXPECT_EQ(v.time.x, 8192);
    EXPECT_EQ(v.time.y, 4096);
    EXPECT_EQ(v.ch_name.enable, 1);
    EXPECT_EQ(v.ch_name.x, 327);
    EXPECT_EQ(v.ch_name.y, 7536);
    EXPECT_STREQ(v.name, kFrontDoorGb);
    EXPECT_EQ(v.enc_info.enable, 0);
    EXPECT_EQ(v.enc_info.x, 0);
    EXPECT_EQ(v.enc_info.y, 0);
    EXPECT_EQ(v.ptz_info.enable, 1);
    EXPECT_EQ(v.ptz_info.x, 8192);
    EXPECT_EQ(v.cover[0].enable, 1u);
    EXPECT_EQ(v.cover[0].color, 0u);
    EXPECT_EQ(v.cover[0].right, 4096);
    EXPECT_EQ(v.cover[0].bottom, 4096);
    EXPECT_EQ(v.cover[1].enable, 1u);
    EXPECT_EQ(v.cover[1].left, 8192);
    EXPECT_EQ(bytes_of(v.cover[2]), std::vector<uint8_t>(sizeof(VIDEO_COVER_ATTR), 0));
    EXPECT_EQ(frame(ZQ_GETCOVERAREA).data, (std::vector<uint8_t>{0, 1, 1}));
    EXPECT_EQ(frame(ZQ_GETVIDEOOSD).data, std::vector<uint8_t>(sizeof(VideoOsdReq), 0));

    // A long name keeps at most 47 bytes and never half a character.
    std::string long_name;
    for (int i = 0; i < 30; ++i) long_name += "\xE9\x97\xA8";
    wire_set_str(o.StringMain, long_name.c_str());
    sim().put(ZQ_GETVIDEOOSD, o);
    VIDEO_CHN_PARA got = ask(TK_CMD_GET_CHN_CFG).as<VIDEO_CHN_PARA>(4);
    EXPECT_EQ(std::strlen(got.name), 46u);
    wire_set_str(o.StringMain, std::string(60, 'n').c_str());
    sim().put(ZQ_GETVIDEOOSD, o);
    got = ask(TK_CMD_GET_CHN_CFG).as<VIDEO_CHN_PARA>(4);
    EXPECT_EQ(std::string(got.name), std::string(47, 'n'));

    // A short cover answer fails the read: a header with the read's result (0) and nothing else.
    sim().set_canned_answer(ZQ_GETCOVERAREA, std::vector<uint8_t>(10, 0));
    const CtrlReply bad = ask(TK_CMD_GET_CHN_CFG);
    EXPECT_EQ(bad.result, 0);
    EXPECT_EQ(bad.body.size(), 4 + sizeof(VIDEO_CHN_PARA));
}

TEST_F(Device, OverlaySetClampsConvertsAndAlwaysSendsEightWindows)
{
    const VideoOsd before = sim().get<VideoOsd>(ZQ_GETVIDEOOSD);
    // Leave bytes in the work buffer that would read as enabled covers five to eight.
    std::vector<uint8_t> junk(400, 0x11);
    for (size_t off = sizeof(VIDEO_CHN_PARA); off + 4 <= junk.size(); off += 16) {
        const uint32_t one = 1;
        std::memcpy(&junk[off], &one, sizeof one);
    }
    ask(TK_CMD_REMOTE_NOP, junk);

    VIDEO_CHN_PARA v{};
    v.time = {1, 0, 9000, 4096, {0, 0}};
    v.ch_name = {1, 0, 100, 8192, {0, 0}};
    v.enc_info = {1, 0, 8192, 0, {0, 0}};
    v.ptz_info = {1, 0, 1234, 1234, {0, 0}};  // read only
    wire_set_str(v.name, "\xC3\xC5 1");
    v.cover[0] = {0, 7, 100, 200, 300, 400};  // disabled: the rectangle is sent all the same
    v.cover[3] = {2, 0, 0, 0, 9000, 8192};    // enable is not exactly 1: disabled
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask_rec(TK_CMD_SET_CHN_CFG, v).result, 0);

    CoverArea want_cover{};
    want_cover.WinCount = 8;
    want_cover.Windows[0] = {122, 244, 366, 488};
    want_cover.Windows[3] = {0, 0, 10986, 10000};
    EXPECT_EQ(frame(ZQ_SETCOVERAREA).data, bytes_of(want_cover));
    VideoOsd want = before;
    want.TimeEnable = 1;
    want.TimePosX = 10000;
    want.TimePosY = 5000;
    want.StringMainEnable = 1;
    want.StringMainPosX = 122;
    want.StringMainPosY = 10000;
    std::memset(want.StringMain, 0, sizeof want.StringMain);
    wire_set_str(want.StringMain, "\xE9\x97\xA8 1");
    want.InfoEnable = 1;
    want.InfoPosX = 10000;
    want.InfoPosY = 0;
    EXPECT_EQ(frame(ZQ_SETVIDEOOSD).data, bytes_of(want));  // the PTZ item and the fonts as they were
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=7 index=0")) << out;

    // One enabled cover switches the covers on; the server still gets eight windows.
    v.cover[0].enable = 0;
    v.cover[2] = {1, 0, 8192, 8192, 8192, 8192};
    EXPECT_EQ(ask_rec(TK_CMD_SET_CHN_CFG, v).result, 0);
    auto got = frame(ZQ_SETCOVERAREA, 2).as<CoverArea>();
    EXPECT_EQ(got.CoverAreaEnable, 1);
    EXPECT_EQ(got.WinCount, 8);
    EXPECT_EQ(got.Windows[2].left, 10000);

    // Covers five to eight follow the record when the client sends them.
    std::vector<uint8_t> with_more = bytes_of(v);
    VIDEO_COVER_ATTR fifth{1, 0, 819, 819, 1638, 1638};
    const std::vector<uint8_t> fb = bytes_of(fifth);
    with_more.insert(with_more.end(), fb.begin(), fb.end());
    EXPECT_EQ(ask(TK_CMD_SET_CHN_CFG, with_more).result, 0);
    got = frame(ZQ_SETCOVERAREA, 3).as<CoverArea>();
    EXPECT_EQ(got.WinCount, 8);
    EXPECT_EQ(got.Windows[4].left, 999);
    EXPECT_EQ(got.Windows[4].right, 1999);
    EXPECT_EQ(bytes_of(got.Windows[5]), std::vector<uint8_t>(sizeof(RectWind), 0));
    EXPECT_TRUE(sim().wait_for(ZQ_SETVIDEOOSD, 3000, nullptr, 3));  // sent without an answer: let it land here
}

TEST_F(Device, EveryPtzCommandSendsItsServerRecord)
{
    struct Case {
        const char *what;
        PTZ_CMD_PACKAGE in;
        uint16_t cmd;  // 0: nothing is sent
        std::vector<uint8_t> data;
    };
    const std::vector<uint8_t> stop = {0, 0, 0, 0};
    auto preset = [](uint8_t op, uint8_t id) {
        std::vector<uint8_t> d(23, 0);
        d[1] = op;
        d[2] = id;
        return d;
    };
    const std::vector<Case> cases = {
        {"left at full speed", {0, PTZ_CTRL_LEFT, 0, 7, 0}, ZQ_PTOPERATOR, {0, 1, 63, 63}},
        {"left stopped, channel 2", {2, PTZ_CTRL_LEFT, 0, 0, 1}, ZQ_PTOPERATOR, {2, 0, 0, 0}},
        {"up", {0, PTZ_CTRL_UP, 0, 3, 0}, ZQ_PTOPERATOR, {0, 3, 27, 27}},
        {"down", {0, PTZ_CTRL_DOWN, 0, 1, 0}, ZQ_PTOPERATOR, {0, 4, 9, 9}},
        {"right", {0, PTZ_CTRL_RIGHT, 0, 1, 0}, ZQ_PTOPERATOR, {0, 2, 9, 9}},
        {"left-up", {0, PTZ_CTRL_LEFT_UP, 0, 1, 0}, ZQ_PTOPERATOR, {0, 5, 9, 9}},
        {"left-down", {0, PTZ_CTRL_LEFT_DOWN, 0, 1, 0}, ZQ_PTOPERATOR, {0, 7, 9, 9}},
        {"right-up", {0, PTZ_CTRL_RIGHT_UP, 0, 1, 0}, ZQ_PTOPERATOR, {0, 6, 9, 9}},
        {"right-down", {0, PTZ_CTRL_RIGHT_DOWN, 0, 1, 0}, ZQ_PTOPERATOR, {0, 8, 9, 9}},
        {"speed above 7 is limited", {0, PTZ_CTRL_UP, 0, 9, 0}, ZQ_PTOPERATOR, {0, 3, 63, 63}},
        {"zoom in", {1, PTZ_CTRL_ZOOM_TELE, 0, 5, 0}, ZQ_CAMERAZOOM, {1, 0, 0, 0, 0, 0, 0, 0}},
        {"zoom out", {0, PTZ_CTRL_ZOOM_WIDE, 0, 5, 0}, ZQ_CAMERAZOOM, {0, 1, 0, 0, 0, 0, 0, 0}},
        {"zoom stop", {0, PTZ_CTRL_ZOOM_WIDE, 0, 5, 1}, ZQ_CAMERAZOOM, {0, 2, 0, 0, 0, 0, 0, 0}},
        {"focus far", {3, PTZ_CTRL_FOCUS_FAR, 0, 7, 0}, ZQ_CAMERAAF, {0, 1, 0, 0, 100, 0, 0, 0}},
        {"focus near", {0, PTZ_CTRL_FOCUS_NEAR, 0, 3, 0}, ZQ_CAMERAAF, {0, 1, 1, 0, 42, 0, 0, 0}},
        {"focus stop", {3, PTZ_CTRL_FOCUS_NEAR, 0, 3, 1}, ZQ_PTOPERATOR, stop},
        {"iris open", {0, PTZ_CTRL_IRIS_OPEN, 0, 0, 0}, ZQ_CAMERAIRIS, {0, 1}},
        {"iris close", {0, PTZ_CTRL_IRIS_CLOSE, 0, 0, 0}, ZQ_CAMERAIRIS, {0, 0}},
        {"iris stop", {0, PTZ_CTRL_IRIS_CLOSE, 0, 0, 1}, ZQ_PTOPERATOR, stop},
        {"iris, stop neither 0 nor 1", {0, PTZ_CTRL_IRIS_CLOSE, 0, 0, 2}, 0, {}},
        {"auto-pan", {0, PTZ_CTRL_AUTOPAN, 2, 7, 0}, ZQ_PTZZONE, {0, 2, 0, 0, 255}},
        {"auto-pan stop", {0, PTZ_CTRL_AUTOPAN, 2, 7, 1}, ZQ_PTOPERATOR, stop},
        {"call preset", {0, PTZ_CTRL_CALL_PRESET, 5, 0, 1}, ZQ_PTZPRESET, preset(1, 5)},
        {"save preset", {4, PTZ_CTRL_SAVE_PRESET, 6, 0, 0}, ZQ_PTZPRESET, preset(0, 6)},
        {"wiper on", {0, PTZ_CTRL_WIPER, 0, 0, 0}, ZQ_PTZPRESET, preset(1, 101)},
        {"wiper off", {0, PTZ_CTRL_WIPER, 0, 0, 1}, ZQ_PTZPRESET, preset(1, 0)},
        {"run a tour", {0, PTZ_CTRL_CRUISE, 3, 0, 0}, ZQ_RUNPTZTOUR, {0, 3}},
        {"scan start", {0, PTZ_CTRL_PAN_START, 1, 1, 0}, ZQ_PTZZONE, {0, 1, 1, 0, 36}},
        {"scan stop", {0, PTZ_CTRL_PAN_STOP, 1, 1, 0}, ZQ_PTZZONE, {0, 1, 2, 0, 36}},
        {"scan run", {0, PTZ_CTRL_PAN_RUN, 4, 7, 0}, ZQ_PTZZONE, {0, 4, 0, 0, 255}},
        {"scan run stopped", {0, PTZ_CTRL_PAN_RUN, 4, 7, 1}, ZQ_PTOPERATOR, stop},
        {"scan start stopped", {0, PTZ_CTRL_PAN_START, 4, 7, 1}, ZQ_PTOPERATOR, stop},
        {"aux does nothing", {0, PTZ_CTRL_AUX, 1, 1, 0}, 0, {}},
        {"unknown command", {0, 30, 1, 1, 0}, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        sim().clear_received();
        EXPECT_EQ(ask_rec(TK_CMD_PTZ_CONTROL, c.in).result, 0);
        ASSERT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
        std::vector<sysd::Frame> got;
        for (const sysd::Frame &f : sim().received())
            if (f.cmd != ZQ_HEARTBEAT) got.push_back(f);  // the channel's own heartbeat may come any time
        if (c.cmd == 0) {
            EXPECT_TRUE(got.empty());
            continue;
        }
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].cmd, c.cmd);
        EXPECT_EQ(got[0].data, c.data);
    }
}

TEST_F(Device, LightAndToursAreReadModifyWrite)
{
    const CameraParam cam = sim().get<CameraParam>(ZQ_GETCAMERAPARAM);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ptz(PTZ_CTRL_LIGHT, 1, 0).result, 0);
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=16 index=0")) << out;
    CameraParam want = cam;
    want.Light = 1;
    EXPECT_EQ(frame(ZQ_GETCAMERAPARAM).data, std::vector<uint8_t>(sizeof(CameraParamReq), 0));
    EXPECT_EQ(frame(ZQ_SETCAMERAPARAM).data, bytes_of(want));

    // Tour 1 holds presets 1, 2 and 3 (5 s each).
    sim().clear_received();
    EXPECT_EQ(ptz(PTZ_ADD_PRESET_TO_CRUISE, 9, 1).result, 0);
    EXPECT_EQ(frame(ZQ_GETPTZTOUR).data, (std::vector<uint8_t>{0, 1}));
    EXPECT_EQ(frame(ZQ_SETPTZTOUR).data, tour_bytes(1, "Tour 1", {{1, 5}, {2, 5}, {3, 5}, {9, 2}}));
    // Removal by position, counted from 1.
    EXPECT_EQ(ptz(PTZ_DEL_PRESET_FRM_CRUISE, 1, 1).result, 0);
    EXPECT_EQ(frame(ZQ_SETPTZTOUR, 2).data, tour_bytes(1, "Tour 1", {{2, 5}, {3, 5}, {9, 2}}));
    EXPECT_EQ(ptz(PTZ_DEL_PRESET_FRM_CRUISE, 7, 1).result, 0);  // no such position: written back as it was
    EXPECT_EQ(frame(ZQ_SETPTZTOUR, 3).data, tour_bytes(1, "Tour 1", {{2, 5}, {3, 5}, {9, 2}}));
    // Deleting writes the bare header, its count unchanged; the server then keeps an empty tour.
    EXPECT_EQ(ptz(PTZ_CTRL_DEL_CRUISE, 0, 1).result, 0);
    EXPECT_EQ(frame(ZQ_SETPTZTOUR, 4).data, tour_bytes(1, "Tour 1", {}, 3));
    EXPECT_EQ(ptz(PTZ_DEL_PRESET_FRM_CRUISE, 1, 1).result, 0);
    EXPECT_EQ(frame(ZQ_SETPTZTOUR, 5).data, tour_bytes(1, "Tour 1", {}));
    // A tour the server does not have starts empty under its own id.
    EXPECT_EQ(ptz(PTZ_ADD_PRESET_TO_CRUISE, 4, 6).result, 0);
    EXPECT_EQ(frame(ZQ_SETPTZTOUR, 6).data, tour_bytes(6, "", {{4, 2}}));
}

TEST_F(Device, SerialSettingsMapBaudRatesAndSwapTheProtocolOnSet)
{
    CtrlReply r = ask(TK_CMD_GET_PTZ_CFG);
    ASSERT_EQ(r.result, 0);
    ASSERT_EQ(r.body.size(), 4 + sizeof(PTZ_PARA));
    auto p = r.as<PTZ_PARA>(4);
    EXPECT_EQ(p.decoder_addr, 1);
    EXPECT_EQ(p.protocol, 1);
    EXPECT_EQ(p.serail_attr.baudrate, static_cast<TK_U32>(BAUD_RATE_9600));
    EXPECT_EQ(p.serail_attr.databits, SERIAL_DATA_BITS_8);

    const CameraParam before = sim().get<CameraParam>(ZQ_GETCAMERAPARAM);
    struct SetReq {
        TK_SET_PREFIX prefix;
        PTZ_PARA para;
    } req{};
    req.para.decoder_addr = 7;
    req.para.protocol = PTZ_PROT_PELCO_D;
    req.para.serail_attr = {BAUD_RATE_57600, SERIAL_DATA_BITS_5, 2, 1, 1};  // the character format is ignored
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask_rec(TK_CMD_SET_PTZ_CFG, req).result, 0);
    CameraParam want = before;
    want.PtzAddress = 7;
    want.PtzProtocol = 0;
    want.PtzBaudRate = 57600;
    EXPECT_EQ(frame(ZQ_SETCAMERAPARAM).data, bytes_of(want));
    // The get passes the server's code through: Pelco-D reads back as Pelco-P.
    p = ask(TK_CMD_GET_PTZ_CFG).as<PTZ_PARA>(4);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(p.protocol, PTZ_PROT_PELCO_P);
    EXPECT_EQ(p.serail_attr.baudrate, static_cast<TK_U32>(BAUD_RATE_57600));
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=12 index=0")) << out;

    // Rates above 115200 cannot be set, but are reported.
    req.para.protocol = PTZ_PROT_SONY;
    req.para.serail_attr.baudrate = BAUD_RATE_230400;
    EXPECT_EQ(ask_rec(TK_CMD_SET_PTZ_CFG, req).result, 0);
    want = frame(ZQ_SETCAMERAPARAM, 2).as<CameraParam>();
    EXPECT_EQ(want.PtzBaudRate, 115200u);
    EXPECT_EQ(want.PtzProtocol, 3);
    want.PtzBaudRate = 230400;
    sim().put(ZQ_GETCAMERAPARAM, want);
    EXPECT_EQ(ask(TK_CMD_GET_PTZ_CFG).as<PTZ_PARA>(4).serail_attr.baudrate, static_cast<TK_U32>(BAUD_RATE_230400));
    want.PtzBaudRate = 1234;
    sim().put(ZQ_GETCAMERAPARAM, want);
    EXPECT_EQ(ask(TK_CMD_GET_PTZ_CFG).as<PTZ_PARA>(4).serail_attr.baudrate, static_cast<TK_U32>(BAUD_RATE_115200));

    // Samsung is refused before anything is written.
    sim().clear_received();
    req.para.protocol = PTZ_PROT_SAMSUNG;
    EXPECT_EQ(ask_rec(TK_CMD_SET_PTZ_CFG, req).result, -1);
    EXPECT_EQ(sim().count(ZQ_SETCAMERAPARAM), 0);
}
