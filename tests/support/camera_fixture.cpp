#include "support/camera_fixture.h"

#include <cstdlib>

namespace cgtest {

namespace {

sysd::Options sim_options(const CameraOptions &opt)
{
    sysd::Options o;
    o.state_file = opt.sysd_state_file;
    return o;
}

}  // namespace

Camera::Camera(CameraOptions opt) : opt_(std::move(opt)), sim_(std::make_unique<sysd::SysServerSim>(sim_options(opt_)))
{
    port_ = opt_.port > 0 ? opt_.port : free_port_tcp_and_udp();
    env_ = DaemonEnv::in(dir_);
    // Put the protocol settings in place before the daemon reads them.
    NetworkProtocol p = sim_->get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.ThirdPartyProtocolEnable = static_cast<uint8_t>(opt_.protocol_enable);
    p.ThirdPartyProtocolType = static_cast<uint8_t>(opt_.protocol_type);
    p.TclPort = static_cast<uint16_t>(port_);
    sim_->put(ZQ_GETNETWORKPROTOCOL, p);
}

Camera::~Camera()
{
    daemon_.stop();
    sim_->stop();
    if (cache_created_) {
        shm_cache_writer_uninit();
        if (had_shm_key_)
            setenv("CAMGATE_SHM_KEY", saved_shm_key_.c_str(), 1);
        else
            unsetenv("CAMGATE_SHM_KEY");
    }
    remove_ipc(env_.shm_key);
}

bool Camera::start(int timeout_ms)
{
    if (!sim_->start()) {
        error_ = "the settings-server simulator cannot listen";
        return false;
    }
    env_.sysserver_port = sim_->port();
    if (opt_.create_cache) {
        const char *old = std::getenv("CAMGATE_SHM_KEY");
        had_shm_key_ = old != nullptr;
        if (old) saved_shm_key_ = old;
        setenv("CAMGATE_SHM_KEY", std::to_string(env_.shm_key).c_str(), 1);
        cache_created_ = true;
        shm_cache_info_t info = opt_.cache;
        if (shm_cache_writer_init(&info) != 0) {
            error_ = "the frame cache cannot be created";
            return false;
        }
    }
    if (!daemon_.start(bin_path("camgated"), {}, env_.to_env())) {
        error_ = "camgated cannot be started";
        return false;
    }
    // netctrl logs the listener once it is bound (address 0: any interface).
    const std::string listening = "addr[0] port[" + std::to_string(port_) + "] success!";
    if (!daemon_.wait_output(listening, timeout_ms)) {
        error_ = "camgated does not listen on port " + std::to_string(port_) + "\nstdout:\n" + daemon_.out() +
                 "\nstderr:\n" + daemon_.err();
        return false;
    }
    return true;
}

bool Camera::push_protocol(int enable, int type, int port)
{
    NetworkProtocol p = sim_->get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.ThirdPartyProtocolEnable = static_cast<uint8_t>(enable);
    p.ThirdPartyProtocolType = static_cast<uint8_t>(type);
    p.TclPort = static_cast<uint16_t>(port);
    sim_->put(ZQ_GETNETWORKPROTOCOL, p);
    return sim_->push(ZQ_PUSH_NETWORKPROTOCOL, &p, sizeof p);
}

}  // namespace cgtest
