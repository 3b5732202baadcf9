#include "control/ptz.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "common/log.h"
#include "main/socketclientcmd.h"

namespace {

constexpr int kMaxPanSpeed = 63;
constexpr uint8_t kWiperPreset = 101;  // the wiper is worked through this reserved preset
constexpr uint32_t kTourNodeDelay = 2;
constexpr size_t kTourMaxBytes = sizeof(PtzTourInfo) + 255 * sizeof(PTZTourPreset);

void send_preset(uint8_t operation, uint8_t preset)
{
    PtzPreset p{};
    p.ChannelID = 0;
    p.Operation = operation;
    p.PresetId = preset;
    socket_client_cmd_Set(ZQ_PTZPRESET, &p, sizeof p);
}

int read_camera(CameraParam *cam)
{
    CameraParamReq req{};
    std::memset(cam, 0, sizeof *cam);
    int outlen = 0;
    return socket_client_cmd_Read(ZQ_GETCAMERAPARAM, &req, sizeof req, cam, &outlen, sizeof *cam);
}

// A tour as the server keeps it: the header and the nodes actually received.
struct Tour {
    PtzTourInfo head{};
    std::vector<PTZTourPreset> nodes;
};

Tour read_tour(uint8_t tour_id)
{
    PtzTourReq req{};
    req.ChannelID = 0;
    req.TourId = tour_id;
    std::vector<uint8_t> raw(kTourMaxBytes);
    int outlen = 0;
    socket_client_cmd_Read(ZQ_GETPTZTOUR, &req, sizeof req, raw.data(), &outlen, static_cast<int>(raw.size()));
    const size_t got = std::min(static_cast<size_t>(std::max(outlen, 0)), raw.size());
    Tour t;
    std::memcpy(&t.head, raw.data(), std::min(got, sizeof t.head));
    if (got < sizeof t.head) t.head.TourId = tour_id;  // no tour came back: an empty one of this id
    const size_t present = got > sizeof t.head ? (got - sizeof t.head) / sizeof(PTZTourPreset) : 0;
    t.nodes.resize(std::min<size_t>(t.head.NodeCount, present));
    if (!t.nodes.empty())
        std::memcpy(t.nodes.data(), raw.data() + sizeof t.head, t.nodes.size() * sizeof(PTZTourPreset));
    return t;
}

// Write the header and nodes (the header's NodeCount as given).
void write_tour(const PtzTourInfo &head, const std::vector<PTZTourPreset> &nodes)
{
    std::vector<uint8_t> out(sizeof head + nodes.size() * sizeof(PTZTourPreset));
    std::memcpy(out.data(), &head, sizeof head);
    if (!nodes.empty()) std::memcpy(out.data() + sizeof head, nodes.data(), nodes.size() * sizeof(PTZTourPreset));
    socket_client_cmd_Set(ZQ_SETPTZTOUR, out.data(), static_cast<int>(out.size()));
}

void send_zone(int ptz_cmd, uint8_t control_type, const PTZ_CMD_PACKAGE *p)
{
    PtzZone zone{};
    zone.ChannelID = 0;
    zone.ZoneId = static_cast<uint8_t>(p->param1);
    zone.ControlType = control_type;
    zone.Speed = static_cast<uint8_t>(p->param2 * 255 / 7);
    DBG("ptz_cmd = %d,ControlType = %d, Speed = %d, ZoneId = %d", ptz_cmd, zone.ControlType, zone.Speed, zone.ZoneId);
    if (p->stop != 0)
        stop_ptzcontrol();
    else
        socket_client_cmd_Set(ZQ_PTZZONE, &zone, sizeof zone);
}

}  // namespace

int tcl_ptz_to_zq_ptz(int direction)
{
    static constexpr std::array<int, 8> kPtCmd = {3, 4, 1, 2, 5, 7, 6, 8};
    if (direction < 0 || direction >= static_cast<int>(kPtCmd.size())) {
        ERR("zq_net_ptc_control not support the cmd");
        return 0;
    }
    return kPtCmd[static_cast<size_t>(direction)];
}

void stop_ptzcontrol()
{
    PTOperator op{};
    socket_client_cmd_Set(ZQ_PTOPERATOR, &op, sizeof op);
}

void PrepareContinuousMoveBy2D(const PTOperator *op)
{
    PTOperator out = *op;
    out.Speedx = static_cast<uint8_t>(std::min<int>(out.Speedx, kMaxPanSpeed));
    out.Speedy = static_cast<uint8_t>(std::min<int>(out.Speedy, kMaxPanSpeed));
    socket_client_cmd_Set(ZQ_PTOPERATOR, &out, sizeof out);
}

void PrepareContinuousMoveBy1D(const CameraZoom *zoom)
{
    socket_client_cmd_Set(ZQ_CAMERAZOOM, zoom, sizeof *zoom);
}

int ptz_control(const PTZ_CMD_PACKAGE *ptz_cmd)
{
    const PTZ_CMD_PACKAGE &p = *ptz_cmd;
    DBG("cmd = %u, param1 = %u, param2= %u, stop = %u", p.ptz_cmd, p.param1, p.param2, p.stop);
    switch (p.ptz_cmd) {
        case PTZ_CTRL_UP:
        case PTZ_CTRL_DOWN:
        case PTZ_CTRL_LEFT:
        case PTZ_CTRL_RIGHT:
        case PTZ_CTRL_LEFT_UP:
        case PTZ_CTRL_LEFT_DOWN:
        case PTZ_CTRL_RIGHT_UP:
        case PTZ_CTRL_RIGHT_DOWN: {
            PTOperator op{};
            op.ChannelID = static_cast<uint8_t>(p.channel);
            op.PtCmd = p.stop == 1 ? 0 : static_cast<uint8_t>(tcl_ptz_to_zq_ptz(static_cast<int>(p.ptz_cmd)));
            // 0-7 to 0-63; a larger client value is limited to 63 on the way out.
            const uint32_t speed = std::min<uint32_t>(p.param2 * 63 / 7, 255);
            op.Speedx = op.Speedy = static_cast<uint8_t>(speed);
            DBG("id = %d,cmd = %d, speedx = %d, speedy = %d", op.ChannelID, op.PtCmd, op.Speedx, op.Speedy);
            PrepareContinuousMoveBy2D(&op);
            break;
        }
        case PTZ_CTRL_ZOOM_TELE:
        case PTZ_CTRL_ZOOM_WIDE: {
            CameraZoom zoom{};
            zoom.ChannelID = static_cast<uint8_t>(p.channel);
            zoom.ZoomModel = p.stop == 1 ? 2 : (p.ptz_cmd == PTZ_CTRL_ZOOM_TELE ? 0 : 1);
            DBG("id = %d, cmd = %d, DigitZoomVlaue = %d, EngineZoomVlaue = %d", zoom.ChannelID, zoom.ZoomModel,
                zoom.DigitZoomVlaue, zoom.EngineZoomVlaue);
            PrepareContinuousMoveBy1D(&zoom);
            break;
        }
        case PTZ_CTRL_FOCUS_FAR:
        case PTZ_CTRL_FOCUS_NEAR: {
            CameraAF af{};
            af.ChannelID = 0;
            af.AFModel = 1;
            af.AFArea = p.ptz_cmd == PTZ_CTRL_FOCUS_FAR ? 0 : 1;
            af.AFStepLen = static_cast<uint16_t>(p.param2 * 100 / 7);
            DBG("AFArea = %d, AFStepLen = %d, parm1 = %u", af.AFArea, af.AFStepLen, p.param1);
            if (p.stop == 0)
                socket_client_cmd_Set(ZQ_CAMERAAF, &af, sizeof af);
            else if (p.stop == 1)
                stop_ptzcontrol();
            break;
        }
        case PTZ_CTRL_IRIS_OPEN:
        case PTZ_CTRL_IRIS_CLOSE: {
            CameraIris iris{};
            iris.ChannelID = 0;
            iris.IrisControl = p.ptz_cmd == PTZ_CTRL_IRIS_OPEN ? 1 : 0;
            if (p.stop == 0)
                socket_client_cmd_Set(ZQ_CAMERAIRIS, &iris, sizeof iris);
            else if (p.stop == 1)
                stop_ptzcontrol();
            break;
        }
        case PTZ_CTRL_AUTOPAN: {
            PtzZone zone{};
            zone.ChannelID = 0;
            zone.ZoneId = static_cast<uint8_t>(p.param1);
            zone.Speed = static_cast<uint8_t>(p.param2 * 255 / 7);
            DBG("Speed = %d, ZoneId = %d", zone.Speed, zone.ZoneId);
            if (p.stop == 0)
                socket_client_cmd_Set(ZQ_PTZZONE, &zone, sizeof zone);
            else if (p.stop == 1)
                stop_ptzcontrol();
            break;
        }
        case PTZ_CTRL_CALL_PRESET:
            send_preset(ZQ_PRESET_CALL, static_cast<uint8_t>(p.param1));
            break;
        case PTZ_CTRL_SAVE_PRESET:
            send_preset(ZQ_PRESET_SAVE, static_cast<uint8_t>(p.param1));
            break;
        case PTZ_CTRL_AUX:
            break;
        case PTZ_CTRL_LIGHT: {
            CameraParam cam{};
            read_camera(&cam);
            DBG("need alter  praram1 = %u", p.param1);
            cam.Light = static_cast<uint8_t>(p.param1);
            socket_client_cmd_Set(ZQ_SETCAMERAPARAM, &cam, sizeof cam);
            break;
        }
        case PTZ_CTRL_WIPER:
            send_preset(ZQ_PRESET_CALL, p.stop == 0 ? kWiperPreset : 0);
            break;
        case PTZ_ADD_PRESET_TO_CRUISE: {
            DBG("param2 = %u, param1 = %u", p.param2, p.param1);
            Tour t = read_tour(static_cast<uint8_t>(p.param2));
            if (t.nodes.size() >= 255) {
                ERR("tour %u is full, preset %u not added", p.param2, p.param1);
                break;
            }
            PTZTourPreset node{};
            node.PresetId = static_cast<uint8_t>(p.param1);
            node.delay = kTourNodeDelay;
            t.nodes.push_back(node);
            t.head.NodeCount = static_cast<uint8_t>(t.nodes.size());
            write_tour(t.head, t.nodes);
            break;
        }
        case PTZ_DEL_PRESET_FRM_CRUISE: {
            DBG("TourId = %u, preset_id = %u", p.param2, p.param1);
            Tour t = read_tour(static_cast<uint8_t>(p.param2));
            DBG("pTourInfo->NodeCount = %d", t.head.NodeCount);
            // param1 is a position in the tour, counted from 1, not a preset number.
            if (p.param1 >= 1 && p.param1 <= t.nodes.size()) t.nodes.erase(t.nodes.begin() + (p.param1 - 1));
            t.head.NodeCount = static_cast<uint8_t>(t.nodes.size());
            write_tour(t.head, t.nodes);
            break;
        }
        case PTZ_CTRL_DEL_CRUISE: {
            Tour t = read_tour(static_cast<uint8_t>(p.param2));
            DBG("TourId = %u, preset_id = %u", p.param2, p.param1);
            write_tour(t.head, {});  // the bare header, NodeCount as it was
            break;
        }
        case PTZ_CTRL_CRUISE: {
            PtzTourReq req{};
            req.ChannelID = 0;
            req.TourId = static_cast<uint8_t>(p.param1);
            socket_client_cmd_Set(ZQ_RUNPTZTOUR, &req, sizeof req);
            break;
        }
        case PTZ_CTRL_PAN_START:
            send_zone(static_cast<int>(p.ptz_cmd), 1, &p);
            break;
        case PTZ_CTRL_PAN_STOP:
            send_zone(static_cast<int>(p.ptz_cmd), 2, &p);
            break;
        case PTZ_CTRL_PAN_RUN:
            if (p.stop == 1) {
                stop_ptzcontrol();
                break;
            }
            send_zone(static_cast<int>(p.ptz_cmd), 0, &p);
            break;
        default:
            ERR("zq_net_ptc_control not support the cmd");
            break;
    }
    return 0;
}

int zq_baud_rate_to_tcl(unsigned rate)
{
    switch (rate) {
        case 1200:
            return BAUD_RATE_1200;
        case 2400:
            return BAUD_RATE_2400;
        case 4800:
            return BAUD_RATE_4800;
        case 9600:
            return BAUD_RATE_9600;
        case 19200:
            return BAUD_RATE_19200;
        case 38400:
            return BAUD_RATE_38400;
        case 57600:
            return BAUD_RATE_57600;
        case 230400:
            return BAUD_RATE_230400;
        case 460800:
            return BAUD_RATE_460800;
        case 921600:
            return BAUD_RATE_921600;
        default:
            return BAUD_RATE_115200;
    }
}

unsigned tcl_baud_rate_to_zq(unsigned baud)
{
    static constexpr std::array<unsigned, 8> kRates = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};
    return baud < kRates.size() ? kRates[baud] : 115200;
}

int ptz_cfg_get_para(PTZ_PARA *para)
{
    CameraParam cam{};
    read_camera(&cam);
    para->serail_attr.baudrate = static_cast<TK_U32>(zq_baud_rate_to_tcl(cam.PtzBaudRate));
    // The server's code is passed through unchanged (see the set for the asymmetry).
    if (cam.PtzProtocol == 0 || cam.PtzProtocol == 1 || cam.PtzProtocol == 3) para->protocol = cam.PtzProtocol;
    para->decoder_addr = cam.PtzAddress;
    para->serail_attr.databits = SERIAL_DATA_BITS_8;
    para->serail_attr.parity = 0;
    para->serail_attr.stopbits = 0;
    para->serail_attr.flowctrl = 0;
    DBG("BaudRate = %u, Protocol = %d, Address = %d", cam.PtzBaudRate, cam.PtzProtocol, cam.PtzAddress);
    return 0;
}

int ptz_cfg_set_para(const PTZ_PARA *para)
{
    CameraParam cam{};
    read_camera(&cam);
    cam.PtzBaudRate = tcl_baud_rate_to_zq(para->serail_attr.baudrate);
    switch (para->protocol) {
        case PTZ_PROT_PELCO_D:
            cam.PtzProtocol = 0;
            break;
        case PTZ_PROT_PELCO_P:
            cam.PtzProtocol = 1;
            break;
        case PTZ_PROT_SONY:
            cam.PtzProtocol = 3;
            break;
        case PTZ_PROT_SAMSUNG:
            return -1;  // not supported: nothing is written
        default:
            break;
    }
    cam.PtzAddress = para->decoder_addr;
    DBG("BaudRate = %u, Protocol = %d, Address = %d", cam.PtzBaudRate, cam.PtzProtocol, cam.PtzAddress);
    socket_client_cmd_Set(ZQ_SETCAMERAPARAM, &cam, sizeof cam);
    return 0;
}
