// The typed control calls of the client library against a scripted camera:
// refusals in words, and replies of the wrong shape.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "client/control.h"
#include "support/sockets.h"

namespace {

using camgate::client::Control;
using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::Session;

// Answer the login, then each request in turn with the given result and body.
struct Answer {
    int32_t result;
    std::vector<uint8_t> body;
};

class ScriptedCamera {
  public:
    explicit ScriptedCamera(std::vector<Answer> answers)
        : thread_([this, answers] {
              cgtest::Fd fd = listener_.accept(3000);
              if (!fd.valid()) return;
              NEW_PACKET_HEADER h{};
              std::vector<uint8_t> body(8192);
              if (!cgtest::recv_exact(fd.get(), &h, sizeof h) || !cgtest::recv_exact(fd.get(), body.data(), h.len))
                  return;
              NEW_PP_LOGIN_RSP rsp{};
              cgtest::send_message(fd.get(), 0, &rsp, sizeof rsp);
              for (const Answer &a : answers) {
                  if (!cgtest::recv_exact(fd.get(), &h, sizeof h)) return;
                  if (h.len != 0 && !cgtest::recv_exact(fd.get(), body.data(), h.len)) return;
                  requests_.push_back(h.cmd);
                  cgtest::send_message(fd.get(), a.result, a.body.data(), a.body.size());
              }
              cgtest::wait_peer_closed(fd.get(), 3000);
          })
    {
    }
    ~ScriptedCamera() { finish(); }
    int port() const { return listener_.port(); }
    // The commands received, once the client has closed its connection.
    const std::vector<int32_t> &finish()
    {
        listener_.shutdown();
        if (thread_.joinable()) thread_.join();
        return requests_;
    }

  private:
    cgtest::Listener listener_;
    std::vector<int32_t> requests_;
    std::thread thread_;
};

Error expect_error(const std::function<void()> &f)
{
    try {
        f();
    } catch (const Error &e) {
        return e;
    }
    ADD_FAILURE() << "no error thrown";
    return Error(ErrorKind::Io, "none");
}

}  // namespace

TEST(ControlClient, ResultsAreExplainedInWords)
{
    using camgate::client::result_text;
    EXPECT_EQ(result_text(TK_CMD_GET_NETWORK_CFG, -11), "refused: the user lacks the network settings right (-11)");
    EXPECT_EQ(result_text(TK_CMD_GET_CAMERA_CFG, -11), "refused: the user lacks the recording settings right (-11)");
    EXPECT_EQ(result_text(TK_CMD_PTZ_CONTROL, -11), "refused: the user lacks the PTZ control right (-11)");
    EXPECT_EQ(result_text(TK_CMD_GET_ENC_CFG, -11), "refused: the user lacks the right for command 0x30040 (-11)");
    EXPECT_EQ(result_text(0x30020, -4), "refused: the camera does not support command 0x30020 (-4)");
    EXPECT_EQ(result_text(TK_CMD_SET_PTZ_CFG, -1), "the camera answered command 0x300a4 with error -1");
}

TEST(ControlClient, RefusalsAndMisshapenRepliesThrow)
{
    NET_COMM_PARA net{};
    net.tcp_port = 6000;
    std::vector<uint8_t> net_bytes(sizeof net);
    std::memcpy(net_bytes.data(), &net, sizeof net);
    std::vector<uint8_t> users(4 + sizeof(USER_INFO), 0);
    users[0] = 2;  // claims two records, carries one
    ScriptedCamera cam({{TK_ERR_RIGHT, {}}, {0, net_bytes}, {0, std::vector<uint8_t>(10, 0)}, {0, users}});
    Session s("127.0.0.1", cam.port(), 3000);
    s.login("admin", "");
    Control c(s);

    Error e = expect_error([&] { c.get_network(); });
    EXPECT_EQ(e.kind(), ErrorKind::Refused);
    EXPECT_EQ(e.code(), -11);
    EXPECT_STREQ(e.what(), "refused: the user lacks the network settings right (-11)");
    // A refusal leaves the session usable.
    EXPECT_EQ(c.get_network().tcp_port, 6000);
    e = expect_error([&] { c.get_time(); });
    EXPECT_EQ(e.kind(), ErrorKind::Protocol);
    EXPECT_NE(std::string(e.what()).find("has 10 bytes instead of 8"), std::string::npos) << e.what();
    e = expect_error([&] { c.users(); });
    EXPECT_EQ(e.kind(), ErrorKind::Protocol);
    s.connection().close();
    EXPECT_EQ(cam.finish(), (std::vector<int32_t>{TK_CMD_GET_NETWORK_CFG, TK_CMD_GET_NETWORK_CFG, TK_CMD_GET_TIME,
                                                  TK_CMD_GET_ALL_USER}));
}
