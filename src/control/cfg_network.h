// Network settings (control commands 0x30010-0x3002F): addresses and ports,
// PPPoE, NTP, e-mail, FTP, DDNS and the network reset. The dispatcher has
// checked RIGHT_NETWORK_SET for the whole group.
//
// The system server keeps these in NetworkConfig (addresses), NetworkProtocol
// (service settings, the client port TclPort and the web port HttpPort) and
// DeviceTime (NTP). Every set reads the whole server record, changes the
// fields the client record carries and writes the whole record back.
#pragma once

#include "common/tk_proto.h"

// Serve command (0x30010-0x3002F) with the payload in buf and write the
// reply on fd: gets answer their record without a count, sets a bare header
// with the function's result (and an operation-log entry on success). PPPoE
// set and the reserved codes do nothing and answer 0; other codes -4. 0 after
// a reply, -7 when writing it fails.
int new_tknvi_cfg_network(int fd, int command, char *buf, int session_id);

// Fill para (zeroed first) from NetworkConfig and NetworkProtocol: first
// interface's address, mask and MAC octets, gateway, first DNS server, the
// client port (TclPort) and the web port (HttpPort). dhcp, the second DNS
// server and the multicast address stay zero. Returns 0.
int net_get_comm_para(NET_COMM_PARA *para);

// Store the first interface's address and mask, the gateway, the first DNS
// server (inet_addr of each text), the client port (in TclPort) and the web
// port. dhcp, dns_server2, mcast_ip and the MAC are ignored. The result of
// writing NetworkProtocol (0, or -1 when it could not be sent).
int net_set_comm_para(const NET_COMM_PARA *para);

// NTP, in DeviceTime: enable, server and time zone; interval is always
// reported as 2 and port is not kept. Both return 0.
int net_get_ntp_para(NET_NTP_PARA *para);
int net_set_ntp_para(const NET_NTP_PARA *para);

// E-mail, in NetworkProtocol. The e-mail switch is kept in SnmpEnable and the
// SSL switch in SmtpServerAuther. Both return 0.
int net_get_email_para(NET_EMAIL_PARA *para);
int net_set_email_para(const NET_EMAIL_PARA *para);

// FTP, in NetworkProtocol: server, user, password and path; the server's
// port is not touched. User and password are cut to the server's 15
// characters. Both return 0.
int net_get_ftp_para(NET_FTP_PARA *para);
int net_set_ftp_para(const NET_FTP_PARA *para);

// DDNS, in NetworkProtocol: DdnsProtocol 0 off, 1 provider slot 0 (type 0),
// 2 slot 1 (type 1). The get returns the read's result (0 also when the
// answer had a wrong length; the record then stays zero); the set stores the
// strings in the slot of type and then switches DDNS off when enable is 0,
// returning 0.
int net_get_ddns_para(NET_DDNS_PARA *para);
int net_set_ddns_para(const NET_DDNS_PARA *para);

// Factory network settings: NTP, e-mail and DDNS off, FTP empty, address
// 192.168.2.158/255.255.255.0, gateway and DNS 192.168.2.1, client port 6258,
// web port 80. The sum of the five sets' results.
int net_reset_para();
