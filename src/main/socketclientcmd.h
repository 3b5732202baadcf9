// The command channel to the system server (TCP 127.0.0.1, port 19436).
//
// One channel per process. A reader thread connects, reconnects every 5 s
// after a failure, sends heartbeats (2 s after connecting, then after every
// 30 s of silence) and reassembles incoming frames. Blocking requests from
// any number of threads are serialised: one request is in flight at a time,
// and its answer is awaited for at most 10 s. Frames with param 0 that the
// server pushes are handed to the registered callback on the reader thread.
//
// The port is env_sysserver_port() (CAMGATE_SYSSERVER_PORT on a development
// machine). The module prints bare log lines, without the common prefix.
#pragma once

#include "common/zq_proto.h"

// Push callback: command word, data and data length of a frame with param 0.
// Runs on the reader thread; it must not make a blocking request itself.
typedef void (*socket_client_callback)(unsigned short shCmd, const char *pData, int nLen);

// Start the channel as client nSocketDeviceId (0..10) towards strIp
// ("127.0.0.1" when null) and wait until the reader thread's first connection
// attempt is over: 0 when it connected, -1 when it failed (the channel stays
// started and keeps trying every 5 s). -1 at once for an id outside 0..10, an
// address that is not dotted IPv4, a second start, or when the reader thread
// cannot start.
int socket_client_cmd_Init(int nSocketDeviceId, const char *strIp);

// Blocking request: send shCmd with nInLen bytes of pInData (param 1) and wait
// up to 10 s for the answer with the same command word. Returns 0 when the
// request was sent, -1 when not. The answer's data is copied to pOutData, at
// most nOutMax bytes, and its whole length stored in *pOutLen; *pOutLen is 0
// when no answer came (a time-out also returns 0). A late answer is dropped.
int socket_client_cmd_Read(unsigned short shCmd, const void *pInData, int nInLen, void *pOutData, int *pOutLen,
                           int nOutMax);

// Blocking set: socket_client_cmd_Read without room for the answer, which is
// awaited (at most 10 s) and not looked at; 0 sent, -1 not.
int socket_client_cmd_Set(unsigned short shCmd, const void *pInData, int nInLen);

// Notice: send shCmd with its data (param 0) without awaiting an answer; 0 sent, -1 not.
int socket_client_cmd_Write(unsigned short shCmd, const void *pInData, int nInLen);

// Register the push callback (buffer is kept with it, otherwise unused); a
// null callback puts back the one that does nothing. Returns 0.
int socket_client_reg_callback_cmd_Read(socket_client_callback callback, void *buffer);

// Close the socket, stop the reader thread and free the buffers; a blocked
// request returns at once with no answer. The channel can be started again. Returns 0.
int socket_client_cmd_uninit();

// The channel's socket_device_status (SOCKET_STATUS_IDEL before Init and after uninit).
int socket_client_cmd_status();
