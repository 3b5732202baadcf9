// The system-server channel against the simulated server, in-process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "main/sim_fixture.h"
#include "support/sockets.h"

namespace {

using cgtest::bytes_of;
using cgtest::ChannelTest;
using cgtest::now_ms;
using cgtest::wait_until;

// What the push callback was handed.
struct Push {
    unsigned short cmd;
    std::vector<uint8_t> data;
};
std::mutex g_push_mutex;
std::vector<Push> g_pushes;

void record_push(unsigned short cmd, const char *data, int len)
{
    std::lock_guard<std::mutex> lock(g_push_mutex);
    g_pushes.push_back(Push{cmd, std::vector<uint8_t>(data, data + len)});
}

// Forget the pushes recorded so far and record the next ones.
void record_pushes()
{
    {
        std::lock_guard<std::mutex> lock(g_push_mutex);
        g_pushes.clear();
    }
    socket_client_reg_callback_cmd_Read(record_push, nullptr);
}

std::vector<Push> pushes()
{
    std::lock_guard<std::mutex> lock(g_push_mutex);
    return g_pushes;
}

bool wait_pushes(size_t n, int timeout_ms)
{
    return wait_until([n] { return pushes().size() >= n; }, timeout_ms);
}

// A request without data: its answer's length, or -1 when it failed.
int answer_len(unsigned short cmd)
{
    std::vector<uint8_t> out(4096, 0);
    int len = -1;
    return socket_client_cmd_Read(cmd, nullptr, 0, out.data(), &len, static_cast<int>(out.size())) == 0 ? len : -1;
}

// A blocking request run on another thread, for answers the test sends by hand.
struct Request {
    int ret = -99;
    int len = -1;
    std::vector<uint8_t> out;
};

std::future<Request> request_async(unsigned short cmd, size_t out_size = 4096)
{
    return std::async(std::launch::async, [cmd, out_size] {
        Request r;
        r.out.assign(out_size, 0);
        uint8_t req[8] = {};
        r.ret = socket_client_cmd_Read(cmd, req, sizeof req, r.out.data(), &r.len, static_cast<int>(out_size));
        return r;
    });
}

// (Whole answers, the request's bytes and notices are what every control test goes through.)
TEST_F(ChannelTest, AnswerIsCopiedUpToTheBufferSize)
{
    connect();
    EXPECT_EQ(socket_client_cmd_status(), SOCKET_STATUS_CONNECT);
    // A buffer smaller than the answer gets only what fits; the length says how much there was.
    std::vector<uint8_t> small(200, 0xEE);
    int len = -1;
    ASSERT_EQ(socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, nullptr, 0, small.data(), &len, 100), 0);
    EXPECT_EQ(len, 2672);
    std::vector<uint8_t> expect = sim().record(ZQ_GETNETWORKPROTOCOL);
    EXPECT_TRUE(std::equal(small.begin(), small.begin() + 100, expect.begin()));
    EXPECT_EQ(std::count(small.begin() + 100, small.end(), 0xEE), 100) << "nothing written past nOutMax";
}

TEST_F(ChannelTest, InitRefusesBadIdsBadAddressesAndASecondStart)
{
    EXPECT_EQ(socket_client_cmd_Init(11, nullptr), -1);
    EXPECT_EQ(socket_client_cmd_Init(-1, nullptr), -1);
    EXPECT_EQ(socket_client_cmd_Init(6, "localhost"), -1) << "only dotted IPv4 text";
    EXPECT_EQ(socket_client_cmd_status(), SOCKET_STATUS_IDEL);
    EXPECT_EQ(sim().connections(), 0);

    ASSERT_EQ(socket_client_cmd_Init(SOCKET_P2P, "127.0.0.1"), 0) << "10 is the highest id";
    const int64_t t0 = now_ms();
    EXPECT_EQ(socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr), -1);
    EXPECT_LT(now_ms() - t0, 200) << "a second start is refused at once";
    EXPECT_EQ(socket_client_cmd_status(), SOCKET_STATUS_CONNECT);

    EXPECT_EQ(answer_len(ZQ_GETDEVICECAP), 9);
    sysd::Frame sent;
    ASSERT_TRUE(sim().wait_for(ZQ_GETDEVICECAP, 1000, &sent));
    EXPECT_EQ(sent.device_id, SOCKET_P2P) << "the first start's id stays";
}

TEST_F(ChannelTest, ReassemblesOneBytePiecesAndSeveralFramesInOneSegment)
{
    connect();
    record_pushes();

    // A push and the answer of a pending request, one byte at a time.
    sim().set_silent(ZQ_GETTIME, true);
    auto pending = request_async(ZQ_GETTIME);
    ASSERT_TRUE(sim().wait_for(ZQ_GETTIME, 2000));
    AlarmInfo alarm{};
    alarm.AlarmType = 9;
    std::memset(alarm.AlarmValue, 0x5A, sizeof alarm.AlarmValue);
    DeviceTime t{};
    t.Year = 112;
    t.Month = 3;
    wire_set_str(t.NtpAddress, "ntp.example.org");
    std::vector<uint8_t> bytes = sysd::make_frame(ZQ_PUSH_ALARM, &alarm, sizeof alarm);
    std::vector<uint8_t> answer = sysd::make_frame(ZQ_GETTIME, &t, sizeof t, SOCKET_DEVICE_BLOCK);
    bytes.insert(bytes.end(), answer.begin(), answer.end());
    ASSERT_TRUE(sim().send_raw(bytes, 1, 1));

    Request r = pending.get();
    EXPECT_EQ(r.ret, 0);
    ASSERT_EQ(r.len, 84);
    EXPECT_TRUE(std::equal(r.out.begin(), r.out.begin() + 84, bytes_of(t).begin()));
    ASSERT_TRUE(wait_pushes(1, 2000));
    EXPECT_EQ(pushes()[0].cmd, ZQ_PUSH_ALARM);
    EXPECT_EQ(pushes()[0].data, bytes_of(alarm));

    // Three frames in one segment: read one after the other, none lost or merged.
    record_pushes();
    NetworkProtocol proto{};
    proto.TclPort = 7001;
    bytes = sysd::make_frame(ZQ_PUSH_SERVICE_STOP, nullptr, 0);
    std::vector<uint8_t> second = sysd::make_frame(ZQ_PUSH_NETWORKPROTOCOL, &proto, sizeof proto);
    std::vector<uint8_t> third = sysd::make_frame(ZQ_PUSH_ALARM, &alarm, sizeof alarm);
    bytes.insert(bytes.end(), second.begin(), second.end());
    bytes.insert(bytes.end(), third.begin(), third.end());
    ASSERT_TRUE(sim().send_raw(bytes));
    ASSERT_TRUE(wait_pushes(3, 2000));
    std::vector<Push> got = pushes();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].cmd, ZQ_PUSH_SERVICE_STOP);
    EXPECT_TRUE(got[0].data.empty());
    EXPECT_EQ(got[1].cmd, ZQ_PUSH_NETWORKPROTOCOL);
    EXPECT_EQ(got[1].data, bytes_of(proto));
    EXPECT_EQ(got[2].cmd, ZQ_PUSH_ALARM);

    // An answer that nobody waits for never reaches the push callback.
    record_pushes();
    ASSERT_TRUE(sim().send_raw(sysd::make_frame(ZQ_GETTIME, &t, sizeof t, SOCKET_DEVICE_BLOCK)));
    ASSERT_TRUE(sim().push(ZQ_PUSH_SERVICE_STOP, nullptr, 0));
    ASSERT_TRUE(wait_pushes(1, 2000));
    EXPECT_EQ(pushes().size(), 1u);
    EXPECT_EQ(pushes()[0].cmd, ZQ_PUSH_SERVICE_STOP);
}

TEST_F(ChannelTest, MalformedFrameHeadsAreDroppedAndTheStreamGoesOn)
{
    connect();
    const size_t connections = sim().connect_times().size();
    record_pushes();

    std::vector<uint8_t> bytes;
    auto append = [&bytes](const std::vector<uint8_t> &more) { bytes.insert(bytes.end(), more.begin(), more.end()); };
    // A frame with a foreign head flag but a sound length: its body is skipped with it.
    std::vector<uint8_t> foreign = sysd::make_frame(ZQ_PUSH_ALARM, "xxxxxxxx", 8);
    foreign[0] ^= 0xFF;
    append(foreign);
    append(sysd::make_frame(ZQ_PUSH_SERVICE_STOP, "one", 3));
    // Heads whose length cannot be held (or is below the command word) are dropped alone.
    ZQ_FRAME_HEAD huge{SOCKET_DEVICE_CMD_FLAG, 0, 0, 0x7FFFFFFFu, 0};
    append(std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&huge), reinterpret_cast<uint8_t *>(&huge) + 10));
    ZQ_FRAME_HEAD tiny{SOCKET_DEVICE_CMD_FLAG, 0, 0, 1u, 0};
    append(std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&tiny), reinterpret_cast<uint8_t *>(&tiny) + 10));
    append(sysd::make_frame(ZQ_PUSH_SERVICE_STOP, "two", 3));
    ASSERT_TRUE(sim().send_raw(bytes));

    ASSERT_TRUE(wait_pushes(2, 2000));
    std::vector<Push> got = pushes();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(std::string(got[0].data.begin(), got[0].data.end()), "one");
    EXPECT_EQ(std::string(got[1].data.begin(), got[1].data.end()), "two");

    EXPECT_EQ(answer_len(ZQ_GETDEVICECAP), 9) << "requests still work after the garbage";
    EXPECT_EQ(sim().connect_times().size(), connections) << "no reconnection was needed";
}

TEST_F(ChannelTest, LateAnswerTimesOutAfterTenSecondsAndIsDropped)
{
    connect();
    sim().set_delay(ZQ_GETNETWORKPROTOCOL, 11000);
    NetworkProtocol proto{};
    int len = -1;
    int64_t t0 = now_ms();
    EXPECT_EQ(socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, nullptr, 0, &proto, &len, sizeof proto), 0)
        << "a time-out still reports the request as sent";
    const int64_t waited = now_ms() - t0;
    EXPECT_EQ(len, 0);
    EXPECT_GE(waited, 9900);
    EXPECT_LE(waited, 10900);

    // The late answer carries the old port; once it has come and gone, a new
    // request must see only its own answer with the new port.
    sim().set_delay(ZQ_GETNETWORKPROTOCOL, 0);
    NetworkProtocol changed = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    changed.TclPort = 7777;
    sim().put(ZQ_GETNETWORKPROTOCOL, changed);
    ASSERT_TRUE(sim().wait_idle(3000)) << "the late answer went out";
    // The stream is ordered: once a push sent after it has reached the callback,
    // the reader has handled the late answer. (A request would not do: its own
    // answer could still be on the way and meet the next request.)
    record_pushes();
    ASSERT_TRUE(sim().push(0x7F1, "marker", 6));
    ASSERT_TRUE(wait_pushes(1, 3000));
    proto = NetworkProtocol{};
    ASSERT_EQ(socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, nullptr, 0, &proto, &len, sizeof proto), 0);
    EXPECT_EQ(len, 2672);
    EXPECT_EQ(proto.TclPort, 7777);
}

TEST_F(ChannelTest, AnswerWithAnotherCommandWordWakesTheRequestWithNothing)
{
    connect();
    sim().set_silent(ZQ_GETNETWORK, true);
    const int64_t t0 = now_ms();
    auto pending = request_async(ZQ_GETNETWORK);
    ASSERT_TRUE(sim().wait_for(ZQ_GETNETWORK, 2000));
    NetworkProtocol proto{};
    ASSERT_TRUE(sim().send_raw(sysd::make_frame(ZQ_GETNETWORKPROTOCOL, &proto, sizeof proto, SOCKET_DEVICE_BLOCK)));
    Request r = pending.get();
    EXPECT_EQ(r.ret, 0);
    EXPECT_EQ(r.len, 0);
    EXPECT_LT(now_ms() - t0, 3000) << "woken by the mismatching answer, not by the time-out";
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), 0), static_cast<long>(r.out.size()));
}

TEST_F(ChannelTest, ReconnectsEveryFiveSecondsAndRequestsFailMeanwhile)
{
    connect();
    const int64_t stopped = now_ms();
    sim().stop();
    ASSERT_TRUE(wait_until([] { return socket_client_cmd_status() != SOCKET_STATUS_CONNECT; }, 2000));

    int len = -1;
    NetworkConfig net{};
    int64_t t0 = now_ms();
    EXPECT_EQ(socket_client_cmd_Read(ZQ_GETNETWORK, nullptr, 0, &net, &len, sizeof net), -1);
    EXPECT_EQ(len, 0);
    EXPECT_LT(now_ms() - t0, 1000) << "a request without a connection fails at once";
    EXPECT_EQ(socket_client_cmd_Write(ZQ_PTOPERATOR, "abcd", 4), -1);

    // The server is back after a second; the channel only tries again 5 s after its failed attempt.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_TRUE(sim().start());
    ASSERT_TRUE(sim().wait_connections(1, 8000));
    const int64_t back = sim().connect_times().back() - stopped;
    EXPECT_GE(back, 4500);
    EXPECT_LE(back, 7000);
    ASSERT_TRUE(wait_until([] { return socket_client_cmd_status() == SOCKET_STATUS_CONNECT; }, 2000));
    EXPECT_EQ(answer_len(ZQ_GETNETWORK), 92);
}

TEST_F(ChannelTest, HeartbeatTwoSecondsAfterConnectCountsOnAndIsDueSoonerUnderTraffic)
{
    connect();
    const int64_t connected = sim().connect_times().back();
    sysd::Frame hb;
    ASSERT_TRUE(sim().wait_for(ZQ_HEARTBEAT, 4000, &hb));
    EXPECT_GE(hb.when_ms - connected, 1500);
    EXPECT_LE(hb.when_ms - connected, 3500);
    EXPECT_EQ(hb.param, SOCKET_DEVICE_NOBLOCK);
    EXPECT_EQ(hb.device_id, SOCKET_THIRD_PARTY_PROTOCOL);
    ASSERT_EQ(hb.data.size(), 8u);
    EXPECT_EQ(hb.as<HEARTBEAT>().Pid, getpid());
    EXPECT_EQ(hb.as<HEARTBEAT>().DataIndex, 0);

    // Now 30 s of silence are due; every read counts at least a second of it,
    // so 32 reads (16 frames of head and body) use the budget up at once.
    EXPECT_FALSE(sim().wait_for(ZQ_HEARTBEAT, 2500, nullptr, 2)) << "no second heartbeat 2 s later";
    for (int i = 0; i < 16; ++i) ASSERT_TRUE(sim().push(0x7F0, "x", 1));
    ASSERT_TRUE(sim().wait_for(ZQ_HEARTBEAT, 2000, &hb, 2));
    EXPECT_EQ(hb.as<HEARTBEAT>().DataIndex, 1);

    // After a reconnection the first heartbeat again comes 2 s after connecting; the counter runs on.
    sim().drop_connections();
    ASSERT_TRUE(sim().wait_connections(1, 3000));
    ASSERT_TRUE(sim().wait_for(ZQ_HEARTBEAT, 4000, &hb, 3));
    EXPECT_GE(hb.when_ms - sim().connect_times().back(), 1500);
    EXPECT_EQ(hb.as<HEARTBEAT>().DataIndex, 2);
}

TEST_F(ChannelTest, RequestsFromManyThreadsEachGetTheirOwnAnswer)
{
    connect();
    sim().set_delay(ZQ_GETTIME, 20);  // keeps requests overlapping
    struct Kind {
        unsigned short cmd;
        int size;
    };
    const Kind kinds[] = {
        {ZQ_GETNETWORKPROTOCOL, 2672}, {ZQ_GETNETWORK, 92}, {ZQ_GETTIME, 84}, {ZQ_GETDEVICEINFO, 1248}};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 15; ++i) {
                const Kind &k = kinds[(t + i) % 4];
                if (answer_len(k.cmd) != k.size) ++wrong;
            }
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST_F(ChannelTest, UnsentRemainderGoesOutAheadOfTheNextFrame)
{
    connect();
    const size_t connections = sim().connect_times().size();
    // A frame that could never fit the write buffer is refused without sending anything.
    std::vector<uint8_t> too_big(819188, 1);
    EXPECT_EQ(socket_client_cmd_Write(0x7A1, too_big.data(), static_cast<int>(too_big.size())), -1);

    // With the server not reading, notices pile up in the socket until one is only partly sent.
    sim().pause_reading(true);
    const int kSize = 500000;
    int sent_whole = 0;
    bool partial = false;
    for (int i = 0; i < 60 && !partial; ++i) {
        std::vector<uint8_t> data(kSize, static_cast<uint8_t>(i));
        std::memcpy(data.data(), &i, sizeof i);
        if (socket_client_cmd_Write(0x7A0, data.data(), kSize) == 0) {
            ++sent_whole;
        } else {
            partial = true;
        }
    }
    ASSERT_TRUE(partial) << "the socket never filled";
    sim().pause_reading(false);
    ASSERT_TRUE(sim().wait_for(0x7A0, 10000, nullptr, sent_whole));

    // The next notice pushes the remainder out in front of itself.
    int seq = 0;
    ASSERT_TRUE(wait_until([&seq] { return socket_client_cmd_Write(0x7A2, &++seq, sizeof seq) == 0; }, 5000, 1));
    ASSERT_TRUE(sim().wait_for(0x7A2, 5000, nullptr, seq));

    std::vector<sysd::Frame> frames = sim().received();
    int big = 0;
    int next_seq = 1;
    bool remainder_before_next = false;
    for (const sysd::Frame &f : frames) {
        if (f.cmd == 0x7A0) {
            ASSERT_EQ(f.data.size(), static_cast<size_t>(kSize));
            int index = -1;
            std::memcpy(&index, f.data.data(), sizeof index);
            EXPECT_EQ(index, big) << "notices arrive in order";
            EXPECT_EQ(std::count(f.data.begin() + 4, f.data.end(), static_cast<uint8_t>(index)), kSize - 4)
                << "notice " << index << " arrived intact";
            ++big;
        } else if (f.cmd == 0x7A2) {
            if (next_seq == 1) remainder_before_next = big == sent_whole + 1;
            EXPECT_EQ(f.as<int>(), next_seq++);
        }
    }
    EXPECT_EQ(big, sent_whole + 1) << "the partly sent notice was completed";
    EXPECT_TRUE(remainder_before_next);
    EXPECT_EQ(sim().connect_times().size(), connections) << "the stream stayed well-formed";
}

// (Every test starts the channel again after the last one's uninit.)
TEST_F(ChannelTest, UninitReleasesAWaitingRequest)
{
    connect();
    sim().set_silent(ZQ_GETNETWORK, true);
    auto pending = request_async(ZQ_GETNETWORK);
    ASSERT_TRUE(sim().wait_for(ZQ_GETNETWORK, 2000));
    const int64_t t0 = now_ms();
    EXPECT_EQ(socket_client_cmd_uninit(), 0);
    Request r = pending.get();
    EXPECT_LT(now_ms() - t0, 2000);
    EXPECT_EQ(r.len, 0);
    EXPECT_EQ(socket_client_cmd_status(), SOCKET_STATUS_IDEL);
    EXPECT_EQ(socket_client_cmd_Write(ZQ_PTOPERATOR, "abcd", 4), -1);
}

}  // namespace
