// camgate net get|set|reset, ntp get|set, email get|set, ftp get|set,
// ddns get|set: the camera's network settings.
#include <cstdio>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

std::string mac_text(const char *mac)
{
    char buf[24];
    const auto *b = reinterpret_cast<const unsigned char *>(mac);
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    return buf;
}

// ------------------------------------------------------------- network ---

int run_net_get(const Options &opts)
{
    CameraSession cam(opts);
    const NET_COMM_PARA n = cam.control().get_network();
    const TK_ETH_PARA &e = n.eths[0];
    if (opts.has("json")) {
        std::cout << JsonObject()
                         .add("ip", field_text(e.ipaddr.ipv4))
                         .add("mask", field_text(e.net_mask.ipv4))
                         .add("gateway", field_text(n.default_gw.ipv4))
                         .add("dns", field_text(n.dns_server1.ipv4))
                         .add("mac", mac_text(e.mac_addr))
                         .add("port", static_cast<long long>(n.tcp_port))
                         .add("web_port", static_cast<long long>(n.web_port))
                         .add("dhcp", n.dhcp != 0)
                         .str()
                  << std::endl;
    } else {
        print_rows(std::cout, {
                                  {"address", field_text(e.ipaddr.ipv4)},
                                  {"netmask", field_text(e.net_mask.ipv4)},
                                  {"gateway", field_text(n.default_gw.ipv4)},
                                  {"dns", field_text(n.dns_server1.ipv4)},
                                  {"mac", mac_text(e.mac_addr)},
                                  {"client port", std::to_string(n.tcp_port)},
                                  {"web port", std::to_string(n.web_port)},
                                  {"dhcp", on_off(n.dhcp != 0)},
                              });
    }
    return 0;
}

int run_net_set(const Options &opts)
{
    require_one_of(opts, {"ip", "mask", "gateway", "dns", "client-port", "web-port"});
    const std::string ip = ipv4_option(opts, "ip", "");
    const std::string mask = ipv4_option(opts, "mask", "");
    const std::string gw = ipv4_option(opts, "gateway", "");
    const std::string dns = ipv4_option(opts, "dns", "");
    const long port = opts.integer("client-port", 0, 1, 65535);
    const long web = opts.integer("web-port", 0, 1, 65535);

    CameraSession cam(opts);
    NET_COMM_PARA n = cam.control().get_network();
    if (!ip.empty()) wire_set_str(n.eths[0].ipaddr.ipv4, ip.c_str());
    if (!mask.empty()) wire_set_str(n.eths[0].net_mask.ipv4, mask.c_str());
    if (!gw.empty()) wire_set_str(n.default_gw.ipv4, gw.c_str());
    if (!dns.empty()) wire_set_str(n.dns_server1.ipv4, dns.c_str());
    if (port != 0) n.tcp_port = static_cast<TK_U16>(port);
    if (web != 0) n.web_port = static_cast<TK_U16>(web);
    cam.control().set_network(n);
    if (opts.has("json")) {
        std::cout << JsonObject().add("changed", true).add("port", static_cast<long long>(n.tcp_port)).str()
                  << std::endl;
    } else {
        std::cout << "network settings changed";
        if (port != 0) std::cout << "; clients now connect to port " << n.tcp_port;
        std::cout << std::endl;
    }
    return 0;
}

int run_net_reset(const Options &opts)
{
    if (!opts.has("yes"))
        throw UsageError(
            "the reset gives the camera the address 192.168.2.158/24, client port 6258 and turns NTP, "
            "e-mail, FTP and DDNS off; add --yes to do it");
    CameraSession cam(opts);
    cam.control().reset_network();
    if (opts.has("json"))
        std::cout << JsonObject().add("reset", true).str() << std::endl;
    else
        std::cout << "network settings reset: 192.168.2.158/255.255.255.0, gateway 192.168.2.1, port 6258" << std::endl;
    return 0;
}

// ----------------------------------------------------------------- NTP ---

int run_ntp_get(const Options &opts)
{
    CameraSession cam(opts);
    const NET_NTP_PARA n = cam.control().get_ntp();
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("enable", n.enable != 0)
                         .add("server", field_text(n.ntp_server))
                         .add("zone", static_cast<long long>(n.time_zone))
                         .add("interval", static_cast<long long>(n.interval))
                         .str()
                  << std::endl;
    else
        print_rows(std::cout, {{"ntp", on_off(n.enable != 0)},
                               {"server", field_text(n.ntp_server)},
                               {"time zone", std::to_string(n.time_zone)},
                               {"interval", std::to_string(n.interval) + " (fixed by the camera)"}});
    return 0;
}

int run_ntp_set(const Options &opts)
{
    require_one_of(opts, {"enable", "server", "zone"});
    const bool has_enable = opts.has("enable");
    const bool enable = switch_option(opts, "enable", false);
    const long zone = opts.integer("zone", -1, 0, 255);
    CameraSession cam(opts);
    NET_NTP_PARA n = cam.control().get_ntp();
    if (has_enable) n.enable = enable ? 1 : 0;
    text_option(opts, "server", n.ntp_server);
    if (zone >= 0) n.time_zone = static_cast<TK_U8>(zone);
    cam.control().set_ntp(n);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "NTP settings changed") << std::endl;
    return 0;
}

// -------------------------------------------------------------- e-mail ---

constexpr size_t kMailAddress = 32;

int run_email_get(const Options &opts)
{
    const bool show = opts.has("show-passwords");
    CameraSession cam(opts);
    const NET_EMAIL_PARA e = cam.control().get_email();
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("enable", e.enable != 0)
                         .add("ssl", e.ssl_enable != 0)
                         .add("server", field_text(e.smtp_server))
                         .add("port", static_cast<long long>(e.smtp_port))
                         .add("from", field_text(e.from))
                         .add("to", field_text(e.sendto))
                         .add("user", field_text(e.user))
                         .add("password", password_text(field_text(e.passwd), show))
                         .str()
                  << std::endl;
    else
        print_rows(std::cout, {{"e-mail", on_off(e.enable != 0)},
                               {"ssl", on_off(e.ssl_enable != 0)},
                               {"smtp server", field_text(e.smtp_server)},
                               {"smtp port", std::to_string(e.smtp_port)},
                               {"from", field_text(e.from)},
                               {"to", field_text(e.sendto)},
                               {"user", field_text(e.user)},
                               {"password", password_text(field_text(e.passwd), show)}});
    return 0;
}

int run_email_set(const Options &opts)
{
    require_one_of(opts, {"enable", "ssl", "server", "smtp-port", "from", "to", "user", "password"});
    const bool has_enable = opts.has("enable"), has_ssl = opts.has("ssl");
    const bool enable = switch_option(opts, "enable", false), ssl = switch_option(opts, "ssl", false);
    const long port = opts.integer("smtp-port", 0, 1, 65535);
    // The camera keeps 31 characters of the addresses, although the record carries 63.
    check_fits(opts.text("from", ""), kMailAddress, "--from");
    check_fits(opts.text("to", ""), kMailAddress, "--to");
    CameraSession cam(opts);
    NET_EMAIL_PARA e = cam.control().get_email();
    if (has_enable) e.enable = enable ? 1 : 0;
    if (has_ssl) e.ssl_enable = ssl ? 1 : 0;
    if (port != 0) e.smtp_port = static_cast<TK_U16>(port);
    text_option(opts, "server", e.smtp_server);
    text_option(opts, "from", e.from);
    text_option(opts, "to", e.sendto);
    text_option(opts, "user", e.user);
    text_option(opts, "password", e.passwd);
    cam.control().set_email(e);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "e-mail settings changed") << std::endl;
    return 0;
}

// ----------------------------------------------------------------- FTP ---

// The camera keeps FTP user names and passwords of at most 15 characters.
constexpr size_t kFtpCredential = 16;

int run_ftp_get(const Options &opts)
{
    const bool show = opts.has("show-passwords");
    CameraSession cam(opts);
    const NET_FTP_PARA f = cam.control().get_ftp();
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("server", field_text(f.ftp_server))
                         .add("user", field_text(f.user))
                         .add("password", password_text(field_text(f.passwd), show))
                         .add("path", field_text(f.path))
                         .str()
                  << std::endl;
    else
        print_rows(std::cout, {{"server", field_text(f.ftp_server)},
                               {"user", field_text(f.user)},
                               {"password", password_text(field_text(f.passwd), show)},
                               {"path", field_text(f.path)}});
    return 0;
}

int run_ftp_set(const Options &opts)
{
    require_one_of(opts, {"server", "user", "password", "path"});
    check_fits(opts.text("user", ""), kFtpCredential, "--user");
    check_fits(opts.text("password", ""), kFtpCredential, "--password");
    CameraSession cam(opts);
    NET_FTP_PARA f = cam.control().get_ftp();
    text_option(opts, "server", f.ftp_server);
    text_option(opts, "user", f.user);
    text_option(opts, "password", f.passwd);
    text_option(opts, "path", f.path);
    cam.control().set_ftp(f);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "FTP settings changed") << std::endl;
    return 0;
}

// ---------------------------------------------------------------- DDNS ---

int run_ddns_get(const Options &opts)
{
    const bool show = opts.has("show-passwords");
    CameraSession cam(opts);
    const NET_DDNS_PARA d = cam.control().get_ddns();
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("enable", d.enable != 0)
                         .add("provider", static_cast<long long>(d.enable ? d.type + 1 : 0))
                         .add("domain", field_text(d.domain))
                         .add("user", field_text(d.user))
                         .add("password", password_text(field_text(d.passwd), show))
                         .str()
                  << std::endl;
    else
        print_rows(std::cout, {{"ddns", on_off(d.enable != 0)},
                               {"provider", d.enable ? std::to_string(d.type + 1) : "-"},
                               {"domain", field_text(d.domain)},
                               {"user", field_text(d.user)},
                               {"password", password_text(field_text(d.passwd), show)}});
    return 0;
}

int run_ddns_set(const Options &opts)
{
    require_one_of(opts, {"enable", "provider", "domain", "user", "password"});
    const bool has_enable = opts.has("enable");
    const bool enable = switch_option(opts, "enable", false);
    const long provider = opts.integer("provider", 0, 1, 2);
    CameraSession cam(opts);
    NET_DDNS_PARA d = cam.control().get_ddns();
    // A switched-off camera reports no provider and no account, and an account
    // belongs to its provider: then the account must be given whole.
    const bool new_provider = provider != 0 && (d.enable == 0 || d.type != provider - 1);
    if ((d.enable == 0 || new_provider) && !(opts.has("domain") && opts.has("user") && opts.has("password")))
        throw UsageError(std::string(d.enable == 0 ? "DDNS is off on the camera, which then does not report its account"
                                                   : "a new provider needs its own account") +
                         ": give --domain, --user and --password");
    if (provider != 0) d.type = static_cast<TK_U8>(provider - 1);
    if (has_enable) d.enable = enable ? 1 : 0;
    text_option(opts, "domain", d.domain);
    text_option(opts, "user", d.user);
    text_option(opts, "password", d.passwd);
    cam.control().set_ddns(d);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "DDNS settings changed") << std::endl;
    return 0;
}

std::vector<OptionDef> show_passwords()
{
    return with_connection({{"show-passwords", "", "print passwords instead of ********"}});
}

}  // namespace

Command net_get_command()
{
    return {"net get",
            "show the network settings",
            "camgate net get [options]",
            "Shows the camera's address, netmask, gateway, DNS server, MAC address, client\n"
            "port and web port.",
            [] { return with_connection({}); },
            run_net_get};
}

Command net_set_command()
{
    return {"net set",
            "change the network settings",
            "camgate net set [--ip A] [--mask M] [--gateway G] [--dns D] [--client-port P] [--web-port W] "
            "[options]",
            "Changes the given network settings; the others keep the camera's values. A new\n"
            "--client-port moves the port the camera serves clients on (this session stays\n"
            "open; --port is the port to reach it on now). DHCP cannot be switched on through\n"
            "this protocol.",
            [] {
                return with_connection({{"ip", "ADDRESS", "address of the camera"},
                                        {"mask", "NETMASK", "netmask"},
                                        {"gateway", "ADDRESS", "default gateway"},
                                        {"dns", "ADDRESS", "DNS server"},
                                        {"client-port", "PORT", "new client port of the camera"},
                                        {"web-port", "PORT", "port of the camera's web pages"}});
            },
            run_net_set};
}

Command net_reset_command()
{
    return {"net reset",
            "reset the network settings to the factory values",
            "camgate net reset --yes [options]",
            "Gives the camera 192.168.2.158/255.255.255.0, gateway and DNS 192.168.2.1, client\n"
            "port 6258 and web port 80, and turns NTP, e-mail and DDNS off and empties FTP.",
            [] {
                return with_connection({{"yes", "", "really reset"}});
            },
            run_net_reset};
}

Command ntp_get_command()
{
    return {"ntp get",
            "show the NTP settings",
            "camgate ntp get [options]",
            "Shows whether the camera sets its clock by NTP, the server and the time zone.",
            [] { return with_connection({}); },
            run_ntp_get};
}

Command ntp_set_command()
{
    return {"ntp set",
            "change the NTP settings",
            "camgate ntp set [--enable on|off] [--server NAME] [--zone N] [options]",
            "Changes the given NTP settings; the others keep the camera's values.",
            [] {
                return with_connection({{"enable", "on|off", "set the clock by NTP"},
                                        {"server", "NAME", "NTP server"},
                                        {"zone", "N", "time zone in the camera's list (0-255)"}});
            },
            run_ntp_set};
}

Command email_get_command()
{
    return {"email get",
            "show the e-mail settings",
            "camgate email get [--show-passwords] [options]",
            "Shows the e-mail (SMTP) settings of alarm messages.",
            show_passwords,
            run_email_get};
}

Command email_set_command()
{
    return {"email set",
            "change the e-mail settings",
            "camgate email set [--enable on|off] [--ssl on|off] [--server S] [--smtp-port P] [--from A] [--to A]\n"
            "                        [--user U] [--password P] [options]",
            "Changes the given e-mail settings; the others keep the camera's values.",
            [] {
                return with_connection({{"enable", "on|off", "send alarm e-mails"},
                                        {"ssl", "on|off", "use SSL"},
                                        {"server", "NAME", "SMTP server"},
                                        {"smtp-port", "PORT", "SMTP port"},
                                        {"from", "ADDRESS", "sender"},
                                        {"to", "ADDRESS", "recipient"},
                                        {"user", "NAME", "SMTP user"},
                                        {"password", "PASSWORD", "SMTP password"}});
            },
            run_email_set};
}

Command ftp_get_command()
{
    return {"ftp get",
            "show the FTP settings",
            "camgate ftp get [--show-passwords] [options]",
            "Shows the FTP server the camera uploads to.",
            show_passwords,
            run_ftp_get};
}

Command ftp_set_command()
{
    return {"ftp set",
            "change the FTP settings",
            "camgate ftp set [--server S] [--user U] [--password P] [--path P] [options]",
            "Changes the given FTP settings; the others keep the camera's values. The camera\n"
            "keeps at most 15 characters of user name and password.",
            [] {
                return with_connection({{"server", "NAME", "FTP server"},
                                        {"user", "NAME", "FTP user (at most 15 characters)"},
                                        {"password", "PASSWORD", "FTP password (at most 15 characters)"},
                                        {"path", "PATH", "upload directory"}});
            },
            run_ftp_set};
}

Command ddns_get_command()
{
    return {"ddns get",
            "show the DDNS settings",
            "camgate ddns get [--show-passwords] [options]",
            "Shows the dynamic DNS settings: off, or provider 1 or 2 with its domain and account.",
            show_passwords,
            run_ddns_get};
}

Command ddns_set_command()
{
    return {"ddns set",
            "change the DDNS settings",
            "camgate ddns set [--enable on|off] [--provider 1|2] [--domain D] [--user U] [--password P] [options]",
            "Changes the DDNS settings. The domain and account are stored with the provider\n"
            "(1 unless given) also when --enable off switches DDNS off. A camera with DDNS off\n"
            "does not report its account, so then, and for a new provider, give all three of\n"
            "--domain, --user and --password.",
            [] {
                return with_connection({{"enable", "on|off", "use dynamic DNS"},
                                        {"provider", "1|2", "provider slot"},
                                        {"domain", "NAME", "the camera's domain name"},
                                        {"user", "NAME", "account name"},
                                        {"password", "PASSWORD", "account password"}});
            },
            run_ddns_set};
}

}  // namespace tool
}  // namespace camgate
