#include "control/cfg_network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/zq_proto.h"
#include "control/control.h"
#include "main/socketclientcmd.h"
#include "net/edci_protocol.h"
#include "net/netuser.h"

namespace {

// Dotted text of an address kept in network byte order.
void addr_text(uint32_t addr, char (&out)[16])
{
    in_addr a{};
    a.s_addr = addr;
    if (inet_ntop(AF_INET, &a, out, sizeof out) == nullptr) out[0] = '\0';
}

// inet_addr of a fixed text field that may lack its terminator.
uint32_t field_addr(const char (&field)[16])
{
    char text[sizeof field + 1];
    wire_get_str(text, sizeof text, field, sizeof field);
    return inet_addr(text);
}

// Copy the text of a fixed field into another, cut to the destination's width and terminated.
template <size_t N, size_t M>
void copy_field(char (&dst)[N], const char (&src)[M])
{
    char text[M + 1];
    wire_get_str(text, sizeof text, src, M);
    wire_set_str(dst, text);
}

int read_network(NetworkConfig *cfg)
{
    NetworkConfigReq req{};
    std::memset(&req, 1, sizeof req);
    std::memset(cfg, 0, sizeof *cfg);
    int outlen = 0;
    return socket_client_cmd_Read(ZQ_GETNETWORK, &req, sizeof req, cfg, &outlen, sizeof *cfg);
}

// Read NetworkProtocol with req as its mask; *outlen gets the answer's length.
int read_protocol(const NetworkProtocolReq &req, NetworkProtocol *proto, int *outlen)
{
    std::memset(proto, 0, sizeof *proto);
    *outlen = 0;
    return socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, &req, sizeof req, proto, outlen, sizeof *proto);
}

int read_protocol(NetworkProtocol *proto)
{
    NetworkProtocolReq req{};  // mask all 0: the server answers the whole record
    int outlen = 0;
    return read_protocol(req, proto, &outlen);
}

int read_time(DeviceTime *t)
{
    DeviceTimeReq req{};
    std::memset(t, 0, sizeof *t);
    int outlen = 0;
    return socket_client_cmd_Read(ZQ_GETTIME, &req, sizeof req, t, &outlen, sizeof *t);
}

void log_ntp(const NET_NTP_PARA *para)
{
    char server[sizeof para->ntp_server + 1];
    wire_get_str(server, sizeof server, para->ntp_server, sizeof para->ntp_server);
    DBG("net_get_ntp_para, enable = %d, address = %s, time_zone = %d", para->enable, server, para->time_zone);
}

void log_email(const NetworkProtocol &p)
{
    char password[sizeof p.SmtpPassword + 1];
    wire_get_str(password, sizeof password, p.SmtpPassword, sizeof p.SmtpPassword);
    DBG("SntpEnable = %d, SmtpServerPort = %d, SnmpPort = %d, auth = %d, password = %s", p.SnmpEnable, p.SmtpServerPort,
        p.SnmpPort, p.SmtpServerAuther, password);
}

void log_ftp(const NetworkProtocol &p)
{
    char addr[sizeof p.FtpAddress + 1], name[sizeof p.FtpName + 1], pass[sizeof p.FtpPassword + 1],
        path[sizeof p.FtpUploadPath + 1];
    wire_get_str(addr, sizeof addr, p.FtpAddress, sizeof p.FtpAddress);
    wire_get_str(name, sizeof name, p.FtpName, sizeof p.FtpName);
    wire_get_str(pass, sizeof pass, p.FtpPassword, sizeof p.FtpPassword);
    wire_get_str(path, sizeof path, p.FtpUploadPath, sizeof p.FtpUploadPath);
    DBG("FtpAddress = %s, FtpName = %s, FtpPassword = %s, FtpUploadPath = %s", addr, name, pass, path);
}

void log_ddns(int protocol, const NET_DDNS_PARA *para)
{
    char user[sizeof para->user + 1], pass[sizeof para->passwd + 1];
    wire_get_str(user, sizeof user, para->user, sizeof para->user);
    wire_get_str(pass, sizeof pass, para->passwd, sizeof para->passwd);
    DBG("networkProtocolRsp.DdnsProtocol = %d, user = %s, passwd = %s", protocol, user, pass);
}

int reply_record(int fd, char *buf, size_t len)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, TK_OK);
    head.len = static_cast<TK_U32>(len);
    return control_write_reply(fd, &head, buf);
}

// A get: its record in buf without a count, or a header with its negative result.
template <class Rec>
int serve_get(int fd, char *buf, int (*get)(Rec *))
{
    auto *rec = reinterpret_cast<Rec *>(buf);
    std::memset(rec, 0, sizeof *rec);
    const int ret = get(rec);
    if (ret < 0) return control_reply_result(fd, ret);
    return reply_record(fd, buf, sizeof(Rec));
}

void log_comm_success(const char *buf)
{
    const auto *para = reinterpret_cast<const NET_COMM_PARA *>(buf);
    char gw[sizeof para->default_gw.ipv4 + 1], mcast[sizeof para->mcast_ip.ipv4 + 1];
    wire_get_str(gw, sizeof gw, para->default_gw.ipv4, sizeof para->default_gw.ipv4);
    wire_get_str(mcast, sizeof mcast, para->mcast_ip.ipv4, sizeof para->mcast_ip.ipv4);
    DBG("cmd:net_set_comm_para succ!default_gw.ipv4=[%s],mcast_ip.ipv4=[%s],tcp_port=[%d],web_port=[%d]", gw, mcast,
        para->tcp_port, para->web_port);
}

// A set: a header with its result, the operation log on success.
template <class Rec>
int serve_set(int fd, const char *buf, int session_id, int (*set)(const Rec *), const char *name,
              void (*log_success)(const char *) = nullptr)
{
    const int ret = set(reinterpret_cast<const Rec *>(buf));
    if (ret < 0) {
        DBG("cmd:%s failed!ret=[%d]", name, ret);
        return control_reply_result(fd, ret);
    }
    if (log_success != nullptr)
        log_success(buf);
    else
        DBG("cmd:%s success!", name);
    const int r = control_reply_result(fd, TK_OK);
    netuser_write_log(session_id, LOG_NETWORK_SET, 0);
    return r;
}

int get_network(int fd, char *buf)
{
    auto *para = reinterpret_cast<NET_COMM_PARA *>(buf);
    net_get_comm_para(para);
    char gw[sizeof para->default_gw.ipv4 + 1], mcast[sizeof para->mcast_ip.ipv4 + 1];
    wire_get_str(gw, sizeof gw, para->default_gw.ipv4, sizeof para->default_gw.ipv4);
    wire_get_str(mcast, sizeof mcast, para->mcast_ip.ipv4, sizeof para->mcast_ip.ipv4);
    DBG("cmd:net_get_comm_para succ!default_gw.ipv4=[%s],mcast_ip.ipv4=[%s],tcp_port=[%d],web_port=[%d]", gw, mcast,
        para->tcp_port, para->web_port);
    return reply_record(fd, buf, sizeof *para);
}

int get_pppoe(int fd, char *buf)
{
    auto *para = reinterpret_cast<NET_PPPOE_PARA *>(buf);
    std::memset(para, 0, sizeof *para);  // PPPoE is not supported: always off
    DBG("cmd:net_get_pppoe_para succ!user_name=[%s],pppoe_ip.ipv4=[%s]", "", "");
    return reply_record(fd, buf, sizeof *para);
}

}  // namespace

int net_get_comm_para(NET_COMM_PARA *para)
{
    std::memset(para, 0, sizeof *para);
    NetworkConfig cfg{};
    read_network(&cfg);  // results are not looked at: a failed read reports zeros
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    TK_ETH_PARA &eth = para->eths[0];
    addr_text(cfg.IPv4Address, eth.ipaddr.ipv4);
    addr_text(cfg.IPv4Mask, eth.net_mask.ipv4);
    // The six octets of the MAC address, as bytes; the rest of the field stays zero.
    static_assert(sizeof cfg.MacAddress <= sizeof eth.mac_addr, "MAC fits");
    std::memcpy(eth.mac_addr, cfg.MacAddress, sizeof cfg.MacAddress);
    addr_text(cfg.IPv4Gateway, para->default_gw.ipv4);
    addr_text(cfg.IPv4DNS, para->dns_server1.ipv4);
    para->tcp_port = proto->TclPort;  // the client port lives in the platform's port field
    para->web_port = proto->HttpPort;
    return 0;
}

int net_set_comm_para(const NET_COMM_PARA *para)
{
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    NetworkConfig cfg{};
    read_network(&cfg);
    cfg.IPv4Address = field_addr(para->eths[0].ipaddr.ipv4);
    cfg.IPv4Mask = field_addr(para->eths[0].net_mask.ipv4);
    cfg.IPv4Gateway = field_addr(para->default_gw.ipv4);
    cfg.IPv4DNS = field_addr(para->dns_server1.ipv4);
    proto->HttpPort = para->web_port;
    proto->TclPort = para->tcp_port;
    socket_client_cmd_Set(ZQ_SETNETWORK, &cfg, sizeof cfg);
    return socket_client_cmd_Set(ZQ_SETNETWORKPROTOCOL, proto.get(), sizeof *proto);
}

int net_get_ntp_para(NET_NTP_PARA *para)
{
    DeviceTime t{};
    read_time(&t);
    std::memset(para, 0, sizeof *para);
    para->enable = t.NtpEnable;
    copy_field(para->ntp_server, t.NtpAddress);
    para->time_zone = t.TimeZoneId;
    para->interval = 2;  // the server's fixed synchronisation interval
    log_ntp(para);
    return 0;
}

int net_set_ntp_para(const NET_NTP_PARA *para)
{
    DeviceTime t{};
    read_time(&t);
    t.NtpEnable = para->enable;
    copy_field(t.NtpAddress, para->ntp_server);
    t.TimeZoneId = para->time_zone;
    log_ntp(para);
    // The whole record: the clock fields just read are written back with it.
    socket_client_cmd_Set(ZQ_SETTIME, &t, sizeof t);
    return 0;
}

int net_get_email_para(NET_EMAIL_PARA *para)
{
    NetworkProtocolReq req{};
    req.sel[NP_SEL_SNMP_ENABLE] = 1;
    for (int sel = NP_SEL_SMTP_SERVER_ADDRESS; sel <= NP_SEL_SMTP_RECEIVE; ++sel) req.sel[sel] = 1;
    auto proto = std::make_unique<NetworkProtocol>();
    int outlen = 0;
    read_protocol(req, proto.get(), &outlen);
    std::memset(para, 0, sizeof *para);
    para->enable = proto->SnmpEnable;  // the e-mail switch is kept in SnmpEnable
    para->ssl_enable = proto->SmtpServerAuther;
    para->smtp_port = proto->SmtpServerPort;
    copy_field(para->from, proto->SmtpSend);
    copy_field(para->sendto, proto->SmtpReceive);
    copy_field(para->smtp_server, proto->SmtpServerAddress);
    copy_field(para->user, proto->SmtpName);
    copy_field(para->passwd, proto->SmtpPassword);
    log_email(*proto);
    return 0;
}

int net_set_email_para(const NET_EMAIL_PARA *para)
{
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    proto->SnmpEnable = para->enable;
    proto->SmtpServerAuther = para->ssl_enable;
    proto->SmtpServerPort = para->smtp_port;
    copy_field(proto->SmtpSend, para->from);
    copy_field(proto->SmtpReceive, para->sendto);
    copy_field(proto->SmtpServerAddress, para->smtp_server);
    copy_field(proto->SmtpName, para->user);
    copy_field(proto->SmtpPassword, para->passwd);
    log_email(*proto);
    socket_client_cmd_Set(ZQ_SETNETWORKPROTOCOL, proto.get(), sizeof *proto);
    return 0;
}

int net_get_ftp_para(NET_FTP_PARA *para)
{
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    std::memset(para, 0, sizeof *para);
    copy_field(para->ftp_server, proto->FtpAddress);
    copy_field(para->user, proto->FtpName);
    copy_field(para->passwd, proto->FtpPassword);
    copy_field(para->path, proto->FtpUploadPath);
    log_ftp(*proto);
    return 0;
}

int net_set_ftp_para(const NET_FTP_PARA *para)
{
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    copy_field(proto->FtpAddress, para->ftp_server);
    copy_field(proto->FtpName, para->user);  // cut to the server's 15 characters
    copy_field(proto->FtpPassword, para->passwd);
    copy_field(proto->FtpUploadPath, para->path);
    log_ftp(*proto);
    socket_client_cmd_Set(ZQ_SETNETWORKPROTOCOL, proto.get(), sizeof *proto);
    return 0;
}

int net_get_ddns_para(NET_DDNS_PARA *para)
{
    NetworkProtocolReq req{};
    req.sel[NP_SEL_DDNS_PROTOCOL] = 1;
    req.sel[NP_SEL_DDNS_INFO] = 1;
    auto proto = std::make_unique<NetworkProtocol>();
    int outlen = 0;
    const int ret = read_protocol(req, proto.get(), &outlen);
    std::memset(para, 0, sizeof *para);
    if (ret != 0 || outlen != static_cast<int>(sizeof *proto)) {
        DBG("ZQ_GETNETWORKPROTOCOL error,ret = %d, errno = %d", ret, errno);
        return ret;
    }
    const DDNS_info *slot = nullptr;
    switch (proto->DdnsProtocol) {
        case 0:
            para->enable = 0;
            break;
        case 1:
            para->enable = 1;
            para->type = 0;
            slot = &proto->Ddns_info[0];
            break;
        case 2:
            para->enable = 1;
            para->type = 1;
            slot = &proto->Ddns_info[1];
            break;
        default:
            break;
    }
    if (slot != nullptr) {
        copy_field(para->user, slot->DdnsName);
        copy_field(para->passwd, slot->DdnsPassword);
        copy_field(para->domain, slot->DdnsDevName);
    }
    log_ddns(proto->DdnsProtocol, para);
    return ret;
}

int net_set_ddns_para(const NET_DDNS_PARA *para)
{
    auto proto = std::make_unique<NetworkProtocol>();
    read_protocol(proto.get());
    DDNS_info *slot = nullptr;
    if (para->type == 0) {
        slot = &proto->Ddns_info[0];
        proto->DdnsProtocol = 1;
    } else if (para->type == 1) {
        slot = &proto->Ddns_info[1];
        proto->DdnsProtocol = 2;
    }
    if (slot != nullptr) {
        copy_field(slot->DdnsName, para->user);
        copy_field(slot->DdnsPassword, para->passwd);
        copy_field(slot->DdnsDevName, para->domain);
    }
    // Switched off after the strings have been stored in their slot.
    if (para->enable == 0) proto->DdnsProtocol = 0;
    log_ddns(proto->DdnsProtocol, para);
    socket_client_cmd_Set(ZQ_SETNETWORKPROTOCOL, proto.get(), sizeof *proto);
    return 0;
}

int net_reset_para()
{
    NET_NTP_PARA ntp{};
    NET_COMM_PARA net{};
    NET_EMAIL_PARA email{};
    NET_FTP_PARA ftp{};
    NET_DDNS_PARA ddns{};
    wire_set_str(net.eths[0].ipaddr.ipv4, "192.168.2.158");
    wire_set_str(net.eths[0].net_mask.ipv4, "255.255.255.0");
    wire_set_str(net.default_gw.ipv4, "192.168.2.1");
    wire_set_str(net.dns_server1.ipv4, "192.168.2.1");
    net.tcp_port = 6258;
    net.web_port = 80;
    int sum = net_set_ntp_para(&ntp);
    sum += net_set_comm_para(&net);
    sum += net_set_email_para(&email);
    sum += net_set_ftp_para(&ftp);
    sum += net_set_ddns_para(&ddns);
    return sum;
}

int new_tknvi_cfg_network(int fd, int command, char *buf, int session_id)
{
    LOG_BARE("new_tknvi_cfg_network command = %d", command);
    switch (command) {
        case TK_CMD_GET_NETWORK_CFG:
            return get_network(fd, buf);
        case TK_CMD_SET_NETWORK_CFG:
            return serve_set(fd, buf, session_id, net_set_comm_para, "net_set_comm_para", log_comm_success);
        case TK_CMD_GET_PPPOE_CFG:
            return get_pppoe(fd, buf);
        case TK_CMD_GET_NTP_CFG:
            return serve_get(fd, buf, net_get_ntp_para);
        case TK_CMD_SET_NTP_CFG:
            return serve_set(fd, buf, session_id, net_set_ntp_para, "net_set_ntp_para");
        case TK_CMD_GET_EMAIL_CFG:
            return serve_get(fd, buf, net_get_email_para);
        case TK_CMD_SET_EMAIL_CFG:
            return serve_set(fd, buf, session_id, net_set_email_para, "net_set_email_para");
        case TK_CMD_GET_FTP_CFG:
            return serve_get(fd, buf, net_get_ftp_para);
        case TK_CMD_SET_FTP_CFG:
            return serve_set(fd, buf, session_id, net_set_ftp_para, "net_set_ftp_para");
        case TK_CMD_GET_DDNS_CFG:
            return serve_get(fd, buf, net_get_ddns_para);
        case TK_CMD_SET_DDNS_CFG:
            return serve_set(fd, buf, session_id, net_set_ddns_para, "net_set_ddns_para");
        case TK_CMD_RESET_NETWORK_CFG: {
            const int ret = net_reset_para();
            if (ret < 0) {
                DBG("cmd:net_reset_para failed!ret=[%d]", ret);
                return control_reply_result(fd, ret);
            }
            DBG("cmd:net_reset_para sucess!");
            const int r = control_reply_result(fd, TK_OK);
            netuser_write_log(session_id, LOG_NETWORK_SET, 0);
            return r;
        }
        case TK_CMD_SET_PPPOE_CFG:
        case 0x3001C:
        case 0x3001D:
        case 0x3001E:
        case 0x3001F:
        case 0x30022:
        case 0x30023:
            return control_reply_result(fd, TK_OK);  // no action
        default:
            return control_reply_result(fd, TK_ERR_UNSUPPORTED);
    }
}
