// The camgate settings commands against a whole camera: the daemon, the
// settings-server simulator (keeping a state file) and the encoder
// simulator. One camera serves the suite.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <memory>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "camgate-sysd/sysd_store.h"
#include "support/camera_fixture.h"
#include "support/text.h"

namespace {

class SettingsCli : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        dir_ = std::make_unique<cgtest::TempDir>();
        cgtest::CameraOptions opt;
        opt.create_cache = false;
        opt.sysd_state_file = dir_->file("sysd.state");
        cam_ = std::make_unique<cgtest::Camera>(opt);
        encoder::Options eo;
        eo.key = cam_->shm_key();
        eo.audio = false;
        eo.snapshot_interval_ms = 200;
        enc_ = std::make_unique<encoder::EncoderSim>(eo);
        start_error_ = !enc_->start() ? "encoder: " + enc_->error() : !cam_->start() ? cam_->error() : "";
    }
    static void TearDownTestSuite()
    {
        cam_.reset();  // the daemon first, then the cache it reads
        enc_.reset();
        dir_.reset();
    }
    void SetUp() override { ASSERT_EQ(start_error_, ""); }

    // Run camgate with args against the camera; the exit status (-1 when it did not end within 10 s).
    int run(std::vector<std::string> args, std::string *out = nullptr, std::string *err = nullptr, int port = 0)
    {
        args.push_back("--port");
        args.push_back(std::to_string(port != 0 ? port : cam_->port()));
        cgtest::Process p;
        const int status = p.run(cgtest::bin_path("camgate"), args, 10000);
        if (out) *out = p.out();
        if (err) *err = p.err();
        return status;
    }

    // The settings server's state as saved in its state file.
    sysd::Store saved()
    {
        sysd::Store s;
        std::string why;
        EXPECT_TRUE(s.deserialize(cgtest::read_file(dir_->file("sysd.state")), &why)) << why;
        return s;
    }

    static inline std::unique_ptr<cgtest::TempDir> dir_;
    static inline std::unique_ptr<cgtest::Camera> cam_;
    static inline std::unique_ptr<encoder::EncoderSim> enc_;
    static inline std::string start_error_;
};

template <class T>
T record_of(const sysd::Store &s, uint16_t get_cmd)
{
    T rec{};
    const std::vector<uint8_t> raw = s.record(get_cmd);
    std::memcpy(&rec, raw.data(), std::min(raw.size(), sizeof rec));
    return rec;
}

}  // namespace

TEST_F(SettingsCli, NetworkSetReachesTheStateFileAndMovesTheClientPort)
{
    std::string out, err;
    ASSERT_EQ(run({"net", "set", "--ip", "10.1.1.9", "--mask", "255.255.0.0", "--web-port", "8080"}, &out, &err), 0)
        << err;
    EXPECT_EQ(out, "network settings changed\n");
    sysd::Store s = saved();
    const auto cfg = record_of<NetworkConfig>(s, ZQ_GETNETWORK);
    EXPECT_EQ(cfg.IPv4Address, inet_addr("10.1.1.9"));
    EXPECT_EQ(cfg.IPv4Mask, inet_addr("255.255.0.0"));
    EXPECT_EQ(cfg.IPv4Gateway, inet_addr("192.168.1.1"));  // not given: kept
    auto proto = record_of<NetworkProtocol>(s, ZQ_GETNETWORKPROTOCOL);
    EXPECT_EQ(proto.HttpPort, 8080);
    EXPECT_EQ(proto.TclPort, cam_->port());

    ASSERT_EQ(run({"net", "get", "--json"}, &out, &err), 0) << err;
    EXPECT_NE(out.find("\"ip\": \"10.1.1.9\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"web_port\": 8080"), std::string::npos) << out;

    // A new client port: the settings server tells the daemon, which moves its listener there.
    const int moved = cgtest::free_port_tcp_and_udp();
    ASSERT_EQ(run({"net", "set", "--client-port", std::to_string(moved)}, &out, &err), 0) << err;
    EXPECT_TRUE(
        cgtest::has_line(out, "network settings changed; clients now connect to port " + std::to_string(moved)));
    EXPECT_TRUE(cgtest::wait_until([&] { return run({"net", "get"}, &out, nullptr, moved) == 0; }, 8000, 200));
    EXPECT_TRUE(cgtest::has_line(out, "client port  " + std::to_string(moved))) << out;
    ASSERT_EQ(run({"net", "set", "--client-port", std::to_string(cam_->port())}, nullptr, &err, moved), 0) << err;
    EXPECT_TRUE(cgtest::wait_until([&] { return run({"time", "get"}) == 0; }, 8000, 200));
}

TEST_F(SettingsCli, SettingsRoundTripThroughTheTool)
{
    std::string out, err;
    ASSERT_EQ(run({"time", "set", "--date", "2012-06-15", "--time", "12:30:00"}, &out, &err), 0) << err;
    ASSERT_EQ(run({"time", "get", "--json"}, &out, &err), 0) << err;
    EXPECT_NE(out.find("\"year\": 2012, \"month\": 6, \"day\": 15"), std::string::npos) << out;

    ASSERT_EQ(run({"users", "add", "--name", "carol", "--password", "c4rol", "--level", "operator"}, &out, &err), 0)
        << err;
    EXPECT_EQ(out, "user carol added\n");
    bool found = false;
    for (const ZQ_USER_ENTRY &u : saved().users())
        if (std::string(u.UserName) == "carol") found = u.Authority == 1 && std::string(u.UserPassword) == "c4rol";
    EXPECT_TRUE(found);
    ASSERT_EQ(run({"users", "list"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "carol  level operator")) << out;
    // The camera does not refuse a duplicate; the tool sees it and says so.
    EXPECT_EQ(run({"users", "add", "--name", "carol"}, &out, &err), 1);
    EXPECT_NE(err.find("already has a user carol"), std::string::npos) << err;
    ASSERT_EQ(run({"users", "del", "--name", "carol"}, &out, &err), 0) << err;

    ASSERT_EQ(
        run({"osd", "set", "--name", "Gate \xE5\xA4\xA7\xE9\x97\xA8", "--cover2", "100,100,2000,1000"}, &out, &err), 0)
        << err;
    ASSERT_EQ(run({"osd", "get"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "name     shown at *: \"Gate \xE5\xA4\xA7\xE9\x97\xA8\"")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "cover 2  99,99 - 1999,999")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "cover 1  off")) << out;

    ASSERT_EQ(run({"ptzcfg", "set", "--protocol", "pelco-d", "--baud", "19200", "--address", "4"}, &out, &err), 0)
        << err;
    ASSERT_EQ(run({"ptzcfg", "get"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "protocol   pelco-d")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "baud rate  19200")) << out;
    ASSERT_EQ(run({"ptzcfg", "set", "--address", "5"}, &out, &err), 0) << err;  // the protocol stays
    ASSERT_EQ(run({"ptzcfg", "get"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "protocol   pelco-d")) << out;

    ASSERT_EQ(
        run({"schedule", "set", "--day", "mon", "--segment", "2", "--from", "08:00", "--to", "18:00"}, &out, &err), 0)
        << err;
    const auto rec = record_of<RecordParam>(saved(), ZQ_GETRECORDPARAM);
    EXPECT_EQ(rec.TaskDayList[1].Segment[1].StartTime, 8u * 3600);
    EXPECT_EQ(rec.TaskDayList[1].SegmentCount, 4);
    ASSERT_EQ(run({"overwrite", "set", "--mode", "off"}, &out, &err), 0) << err;
    EXPECT_EQ(record_of<RecordParam>(saved(), ZQ_GETRECORDPARAM).LowSpaceMethod, 0);
}

TEST_F(SettingsCli, PtzSnapshotDiskAndRaw)
{
    std::string out, err;
    cam_->sim().clear_received();
    ASSERT_EQ(run({"ptz", "left", "--speed", "7"}, &out, &err), 0) << err;
    sysd::Frame f;
    ASSERT_TRUE(cam_->sim().wait_for(ZQ_PTOPERATOR, 2000, &f));
    EXPECT_EQ(f.data, (std::vector<uint8_t>{0, 1, 63, 63}));
    EXPECT_EQ(run({"ptz", "tour-add", "--tour", "1"}, &out, &err), 2);
    EXPECT_NE(err.find("tour-add needs --preset"), std::string::npos) << err;

    ASSERT_TRUE(enc_->wait_for_snapshots(1, 5000));
    const std::string file = dir_->file("picture.jpg");
    ASSERT_EQ(run({"snapshot", "-o", file}, &out, &err), 0) << err;
    const std::string jpeg = cgtest::read_file(encoder::sample_path("snapshot-640x360.jpg"));
    EXPECT_EQ(cgtest::read_file(file), jpeg);
    EXPECT_EQ(out, "saved " + std::to_string(jpeg.size()) + " bytes to " + file + "\n");

    ASSERT_EQ(run({"disk"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "  status    ready")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "  capacity  7.4 GB")) << out;

    ASSERT_EQ(run({"raw", "0x70009"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "result 0, 128 bytes")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "000000  02 00 00 *")) << out;
    ASSERT_EQ(run({"raw", "0x30020"}, &out, &err), 0) << err;
    EXPECT_TRUE(cgtest::has_line(out, "result -4: refused: the camera does not support command 0x30020 (-4), 0 bytes"))
        << out;
}

TEST_F(SettingsCli, WrongCommandLinesAreExplained)
{
    const struct {
        std::vector<std::string> args;
        int status;
        const char *says;
    } cases[] = {
        {{"time"}, 2, "camgate time: say what to do: get, set"},
        {{"net", "set"}, 2, "nothing to change"},
        {{"net", "set", "--ip", "10.0.0.256"}, 2, "--ip must be a dotted IPv4 address"},
        {{"ftp", "set", "--user", "a-user-name-of-20-ch"}, 2, "--user is longer than the 15 bytes the camera keeps"},
        {{"reboot"}, 2, "add --yes"},
        // The camera keeps its layout for day first and the tool says so.
        {{"datefmt", "set", "--format", "dmy"}, 1, "the camera kept YYYY-MM-DD: it does not support DD-MM-YYYY"},
    };
    for (const auto &c : cases) {
        std::string err;
        EXPECT_EQ(run(c.args, nullptr, &err), c.status) << c.args[0];
        EXPECT_NE(err.find(c.says), std::string::npos) << err;
    }
}
