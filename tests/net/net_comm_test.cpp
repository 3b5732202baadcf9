// Exact reads and writes, the send with a time-out and the long-buffer senders.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "net/net_comm.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

std::vector<char> pattern(size_t n)
{
    std::vector<char> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>(i * 7 + 3);
    return v;
}

// Drain fd into a vector until end of file.
std::vector<char> drain(int fd)
{
    std::vector<char> got;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) got.insert(got.end(), buf, buf + n);
    return got;
}

}  // namespace

TEST(NetComm, ReadnCollectsPiecesAndReportsShortReadsAndErrors)
{
    auto pair = cgtest::tcp_pair();
    ASSERT_TRUE(pair.server.valid());
    char buf[12] = {};

    // Two pieces arriving apart make one whole read.
    std::thread writer([&] {
        write(pair.client.get(), "QVRM", 4);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        write(pair.client.get(), "abcdefgh", 8);
    });
    EXPECT_EQ(readn(pair.server.get(), buf, 12), 12);
    writer.join();
    EXPECT_EQ(std::string(buf, 12), "QVRMabcdefgh");

    // A peer that closes after 5 of 12 bytes gives 5.
    write(pair.client.get(), "12345", 5);
    pair.client.reset();
    EXPECT_EQ(readn(pair.server.get(), buf, 12), 5);
    EXPECT_EQ(std::string(buf, 5), "12345");

    EXPECT_EQ(readn(pair.server.get(), buf, 0), 0);
    EXPECT_EQ(readn(pair.server.get(), buf, -4), 0);
    EXPECT_EQ(readn(-1, buf, 12), -1);
}

TEST(NetComm, WritenWritesAllOrFails)
{
    auto pair = cgtest::tcp_pair();
    const auto data = pattern(1 << 20);  // larger than the socket buffers: several writes
    std::vector<char> got;
    std::thread reader([&] { got = drain(pair.server.get()); });
    EXPECT_EQ(writen(pair.client.get(), data.data(), static_cast<unsigned>(data.size())), 1 << 20);
    EXPECT_EQ(writen(pair.client.get(), data.data(), 0), 0);
    shutdown(pair.client.get(), SHUT_WR);
    reader.join();
    EXPECT_EQ(got, data);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    EXPECT_EQ(writen(fds[1], "x", 1), -1);  // EPIPE
    close(fds[1]);
}

TEST(NetComm, SendWithTimeoutArgumentsAndResetPeer)
{
    auto pair = cgtest::tcp_pair();
    EXPECT_EQ(send_with_timeout(0, "abc", 3, 100), -1);
    EXPECT_EQ(send_with_timeout(-1, "abc", 3, 100), -1);
    EXPECT_EQ(send_with_timeout(pair.client.get(), "abc", 0, 100), 0);
    EXPECT_EQ(send_with_timeout(pair.client.get(), "abc", -3, 100), -3);
    EXPECT_EQ(send_with_timeout(pair.client.get(), "abcdef", 6, 100), 6);
    char buf[6];
    ASSERT_TRUE(cgtest::recv_exact(pair.server.get(), buf, 6));
    EXPECT_EQ(std::string(buf, 6), "abcdef");

    // A peer that resets the connection makes it fail.
    linger lg{1, 0};
    setsockopt(pair.server.get(), SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    pair.server.reset();
    const auto data = pattern(1 << 20);
    EXPECT_TRUE(cgtest::wait_until(
        [&] { return send_with_timeout(pair.client.get(), data.data(), static_cast<int>(data.size()), 100) == -1; },
        2000));
}

TEST(NetComm, SendTimeoutIsNotReducedModuloOneSecond)
{
    timeval tv = send_timeout_timeval(3000);
    EXPECT_EQ(tv.tv_sec, 3);
    EXPECT_EQ(tv.tv_usec, 3000000);
    tv = send_timeout_timeval(250);
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 250000);

    // A peer that never reads: a non-blocking sender fills the buffers, then
    // waits about twice the 1000 ms asked for, and reports the time-out as 0.
    auto pair = cgtest::tcp_pair();
    int small = 4096;
    setsockopt(pair.client.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(pair.server.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    fcntl(pair.client.get(), F_SETFL, fcntl(pair.client.get(), F_GETFL) | O_NONBLOCK);
    const auto data = pattern(4 << 20);
    const int64_t start = cgtest::now_ms();
    EXPECT_EQ(send_with_timeout(pair.client.get(), data.data(), static_cast<int>(data.size()), 1000), 0);
    const int64_t waited = cgtest::now_ms() - start;
    EXPECT_GE(waited, 1900);
    EXPECT_LT(waited, 5000);
}

TEST(NetComm, WriteLongTcpDataWritesWholeBufferToStream)
{
    cgtest::TempDir dir;
    const std::string path = dir.file("out.bin");
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    const auto data = pattern(100000);
    EXPECT_EQ(write_long_tcp_data(f, data.data(), static_cast<int>(data.size())), 100000);
    EXPECT_EQ(write_long_tcp_data(f, data.data(), 0), 0);
    std::fclose(f);
    const std::string back = cgtest::read_file(path);
    EXPECT_EQ(std::vector<char>(back.begin(), back.end()), data);
}
