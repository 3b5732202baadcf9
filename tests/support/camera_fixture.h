// A whole camera for end-to-end tests of the real daemon binary: the
// settings-server simulator (in this process, on an ephemeral port), the
// frame cache (created here as the encoder would, under a unique key) and
// camgated started with a DaemonEnv pointing at both, its discovery loop on a
// free port, its configuration and media directories in a temporary
// directory and its shell commands going to the recorder.
//
//   cgtest::Camera cam;                      // client protocol on, a free port
//   cam.sim().put(ZQ_GETDEVICEINFO, info);   // settings before the start
//   ASSERT_TRUE(cam.start()) << cam.error();
//   camgate::client::Session s("127.0.0.1", cam.port());
//   ...
//   cam.push_protocol(0, 1, cam.port());     // switch the protocol off as the settings server would
//
// The settings server holds the client protocol's switch and port
// (NetworkProtocol.ThirdPartyProtocolEnable/Type/TclPort): the fixture puts
// them there before the daemon starts, so the daemon reads them at start-up;
// push_protocol() changes them later. start() returns once the daemon
// listens on port(). The destructor kills the daemon, stops the simulator,
// removes the frame cache and restores the test process's environment.
//
// The frame cache's writer side is process-wide, so one Camera with a frame
// cache exists at a time per test process. Tests that feed the cache
// themselves (an encoder simulator, say) set create_cache to false, create
// it under shm_key() before start(), and the daemon attaches to theirs.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "camgate-sysd/sysd_sim.h"
#include "media/shm_cache.h"
#include "support/testenv.h"

namespace cgtest {

struct CameraOptions {
    int protocol_enable = 1;                             // ThirdPartyProtocolEnable at start-up
    int protocol_type = 1;                               // ThirdPartyProtocolType at start-up (1: this protocol)
    int port = 0;                                        // TclPort; 0: a free TCP and UDP port
    bool create_cache = true;                            // create the frame cache with the layout below
    shm_cache_info_t cache{1, {256}, 1, {64}, 1, {16}};  // one video, one snapshot, one audio cache
    std::string sysd_state_file;                         // the simulator's state file ("" for none)
};

class Camera {
  public:
    explicit Camera(CameraOptions opt = CameraOptions());
    ~Camera();
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;

    // Start the simulator, the frame cache and the daemon; wait (at most
    // timeout_ms) until the daemon listens on port(). False with error() set otherwise.
    bool start(int timeout_ms = 15000);
    const std::string &error() const { return error_; }

    sysd::SysServerSim &sim() { return *sim_; }
    Process &daemon() { return daemon_; }

    int port() const { return port_; }  // the client port the daemon was started with
    int discovery_port() const { return env_.discovery_port; }
    key_t shm_key() const { return env_.shm_key; }
    std::string shell_log() const { return read_file(env_.shell_log); }

    // Push the network-protocol settings with these three fields changed (and
    // store them), as the settings server does when they change. False when
    // the daemon is not connected to the simulator.
    bool push_protocol(int enable, int type, int port);

  private:
    CameraOptions opt_;
    TempDir dir_;
    DaemonEnv env_;
    std::unique_ptr<sysd::SysServerSim> sim_;
    Process daemon_;
    int port_ = 0;
    bool cache_created_ = false;
    std::string saved_shm_key_;
    bool had_shm_key_ = false;
    std::string error_;
};

}  // namespace cgtest
