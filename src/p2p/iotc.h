// The P2P service API the hub calls: IOTC (device login, viewer sessions), AV (media and
// I/O-control channels) and RDT (reliable transfer).
//
// This project implements it as an open LAN transport over TCP (docs/p2p-transport.md); a vendor
// library offering the same calls could be linked in its place. The hub uses nothing else of the
// transport. All functions are safe to call from any thread.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// ---- IOTC: sessions -------------------------------------------------------------------------

#define IOTC_ER_NoERROR 0
#define IOTC_ER_ALREADY_INITIALIZED -3         // IOTC_Initialize2 called twice
#define IOTC_ER_FAIL_SETUP_SOCKET -6           // the TCP port could not be opened
#define IOTC_ER_FAIL_CREATE_THREAD -7          // the transport thread could not start
#define IOTC_ER_NOT_INITIALIZED -12            // IOTC_Initialize2 has not run
#define IOTC_ER_TIMEOUT -13                    // nothing happened within the time-out
#define IOTC_ER_INVALID_SID -14                // no such session (closed, or never opened)
#define IOTC_ER_LISTEN_ALREADY_CALLED -17      // another thread is inside IOTC_Listen
#define IOTC_ER_EXCEED_MAX_SESSION -18         // a viewer was refused: every session is in use
#define IOTC_ER_SESSION_CLOSE_BY_REMOTE -22    // the viewer ended the session
#define IOTC_ER_REMOTE_TIMEOUT_DISCONNECT -23  // the viewer went silent or its link broke
#define IOTC_ER_DEVICE_NOT_LOGGED_IN -24       // viewer side: the hub has no uid yet
#define IOTC_ER_UNKNOWN_DEVICE -28             // viewer side: the hub has another uid
#define IOTC_ER_WRONG_PASSWORD -29             // viewer side: not the hub's current P2P password
#define IOTC_ER_EXIT_LISTEN -39                // IOTC_DeInitialize ended a waiting IOTC_Listen
#define IOTC_ER_INVALID_ARG -46                // a null pointer or a value out of range
#define IOTC_ER_DEVICE_IS_BANNED -59           // never returned by the open transport
#define IOTC_ER_CONNECT_FAILED -80             // viewer side: no TCP connection to the hub
#define IOTC_ER_PROTOCOL -81                   // viewer side: the hub's answer was malformed

// Connection modes of st_SInfo.Mode.
#define IOTC_MODE_P2P 0
#define IOTC_MODE_RLY 1
#define IOTC_MODE_LAN 2

// What IOTC_Session_Check tells about a session.
struct st_SInfo {
  unsigned char Mode;            // IOTC_MODE_LAN for a private or loopback address, else P2P
  char CorD;                     // 1: this side is the device
  char UID[65];                  // the uid the viewer named
  char RemoteIP[47];             // the viewer's address, text
  unsigned short RemotePort;     // the viewer's TCP port
  unsigned long TX_Packetcount;  // messages sent to the viewer
  unsigned long RX_Packetcount;  // messages received from it
  unsigned int IOTCVersion;      // the viewer library's version, four bytes most significant first
  unsigned short VID;            // vendor, product and group of the viewer: 0 on this transport
  unsigned short PID;
  unsigned short GID;
  unsigned char NatType;   // 0
  unsigned char isSecure;  // 0
};

// Bits of the login-state callback.
#define IOTC_LOGIN_LISTENING 1  // the TCP listener is open
#define IOTC_LOGIN_ACCEPTING 4  // the device is logged in: viewers naming its uid are accepted

typedef void (*loginInfoCB)(unsigned int nLoginInfo);

// Sessions at most; call before IOTC_Initialize2. 1..16, default 4. Session IDs are 0..n-1.
void IOTC_Set_Max_Session_Number(unsigned int nMaxSessionNum);
// Opens the TCP listener and starts the transport. nUDPPort 0: the configured port
// (TARVO_P2P_PORT, default 32761); any other value: that TCP port. 0 or a negative code.
int IOTC_Initialize2(unsigned short nUDPPort);
// Closes every session and the listener; waiting calls return. 0, or IOTC_ER_NOT_INITIALIZED.
int IOTC_DeInitialize(void);
// The transport's version, four bytes most significant first (1.0.0.0).
void IOTC_Get_Version(unsigned int* pnVersion);
// Registers the login-state callback; it is called from IOTC_Device_Login.
void IOTC_Get_Login_Info_ByCallBackFn(loginInfoCB pfxLoginInfoFn);
// Takes the device's uid (1..64 characters); from then on viewers naming it are accepted. The
// password argument, when not empty, fixes the P2P password; otherwise the hub's current P2P
// password is read at every session request. 0 or a negative code.
int IOTC_Device_Login(const char* cszUID, const char* cszDeviceName, const char* cszPassword);
// Waits up to nTimeout ms (0: no limit) for a new session. Its ID (>= 0), IOTC_ER_TIMEOUT,
// IOTC_ER_EXCEED_MAX_SESSION after a viewer was refused for lack of room,
// IOTC_ER_NOT_INITIALIZED, IOTC_ER_LISTEN_ALREADY_CALLED or IOTC_ER_EXIT_LISTEN.
int IOTC_Listen(unsigned int nTimeout);
// Fills psSessionInfo. 0; IOTC_ER_SESSION_CLOSE_BY_REMOTE or IOTC_ER_REMOTE_TIMEOUT_DISCONNECT
// (record still filled) when the viewer is gone; IOTC_ER_INVALID_SID; IOTC_ER_INVALID_ARG.
int IOTC_Session_Check(int nIOTCSessionID, struct st_SInfo* psSessionInfo);
// Ends the session and frees its ID. Queued I/O-control messages are still delivered, media is
// dropped. 0 or IOTC_ER_INVALID_SID.
int IOTC_Session_Close(int nIOTCSessionID);

// ---- AV: channels over a session ------------------------------------------------------------

#define AV_ER_NoERROR 0
#define AV_ER_INVALID_ARG -20000                // bad index, null pointer, size out of range
#define AV_ER_BUFPARA_MAXSIZE_INSUFF -20001     // the caller's buffer is too small; message dropped
#define AV_ER_EXCEED_MAX_CHANNEL -20002         // every AV channel is in use
#define AV_ER_EXCEED_MAX_SIZE -20006            // the session's send queue has no room
#define AV_ER_SERV_NO_RESPONSE -20007           // the viewer serves nothing on that channel
#define AV_ER_CLIENT_NO_AVLOGIN -20008          // the viewer has left this AV channel (sends)
#define AV_ER_WRONG_VIEWACCorPWD -20009         // the authentication callback refused the login
#define AV_ER_INVALID_SID -20010                // the channel or its session is closed on this side
#define AV_ER_TIMEOUT -20011                    // nothing arrived within the time-out
#define AV_ER_DATA_NOREADY -20012               // no audio frame waiting
#define AV_ER_LOSED_THIS_FRAME -20014           // audio frames were dropped before this call
#define AV_ER_SESSION_CLOSE_BY_REMOTE -20015    // the viewer ended the session
#define AV_ER_REMOTE_TIMEOUT_DISCONNECT -20016  // the viewer went silent or its link broke
#define AV_ER_SERVER_EXIT -20017                // the viewer stopped the channel the hub joined
#define AV_ER_CLIENT_EXIT -20018                // the viewer left this AV channel (receives)
#define AV_ER_NOT_INITIALIZED -20019            // avInitialize has not run
#define AV_ER_IOTC_SESSION_CLOSED -20025        // the session was closed on this side (receives)

typedef enum {
  RESET_VIDEO = 0,
  RESET_AUDIO = 1,
  RESET_ALL = 2,
} AV_RESET_TARGET;

// The login check of an AV server channel: account and login text; 1 accepts, anything else
// refuses.
typedef int (*authFn)(char* viewAcc, char* viewPwd);

// Room for nMaxChannelNum AV channels (1..64). The number, or AV_ER_INVALID_ARG.
int avInitialize(int nMaxChannelNum);
// Stops every AV channel; waiting calls return. 0.
int avDeInitialize(void);
// The AV layer's version, four bytes most significant first (1.0.0.0).
int avGetAVApiVer(void);

// Serves AV on IOTC channel nIOTCChannelID of the session: waits up to nTimeout seconds for the
// viewer's login there, hands account and login text to pfxAuthFn and answers the viewer. The
// AV channel index (>= 0), or AV_ER_WRONG_VIEWACCorPWD, AV_ER_TIMEOUT, AV_ER_EXCEED_MAX_CHANNEL,
// AV_ER_INVALID_SID, AV_ER_SESSION_CLOSE_BY_REMOTE, AV_ER_REMOTE_TIMEOUT_DISCONNECT,
// AV_ER_INVALID_ARG, AV_ER_NOT_INITIALIZED. *pnResend is set to 0: the link never loses data.
int avServStart3(int nIOTCSessionID, authFn pfxAuthFn, unsigned int nTimeout,
                 unsigned int nServType, unsigned char nIOTCChannelID, int* pnResend);
// Stops an AV server channel and tells the viewer.
void avServStop(int nAVChannelID);

// Queues one frame (or one audio frame) with its frame information (at most 64 bytes, passed
// through unchanged). Never waits. 0, AV_ER_EXCEED_MAX_SIZE when the session's send queue has
// no room for it, or the channel's close code.
int avSendFrameData(int nAVChannelID, const char* cabFrameData, int nFrameDataSize,
                    const void* cabFrameInfo, int nFrameInfoSize);
int avSendAudioData(int nAVChannelID, const char* cabAudioData, int nAudioDataSize,
                    const void* cabFrameInfo, int nFrameInfoSize);
// avSendFrameData without the caller's copy: fill writes the nFrameDataSize bytes of the frame
// straight into the queued message (it runs on the caller's thread, without any transport lock)
// and returns 0, or nonzero to give the frame up; nothing is queued then and AV_ER_INVALID_ARG
// is returned. The open transport's one call beyond the vendor API: over a vendor library it is
// a buffer filled by fill and handed to avSendFrameData.
typedef int (*avFrameFillFn)(void* pContext, unsigned char* pDst, int nSize);
int avSendFrameDataFill(int nAVChannelID, int nFrameDataSize, const void* cabFrameInfo,
                        int nFrameInfoSize, avFrameFillFn pfxFill, void* pContext);
// Queues one I/O-control message (0..1024 bytes). Never waits. 0 or a negative code.
int avSendIOCtrl(int nAVChannelID, unsigned int nIOCtrlType, const char* cabIOCtrlData,
                 int nIOCtrlDataSize);
// Waits up to nTimeout ms for an I/O-control message: its length, AV_ER_TIMEOUT, or the
// channel's close code once everything received has been read.
int avRecvIOCtrl(int nAVChannelID, unsigned int* pnIOCtrlType, char* abIOCtrlData,
                 int nIOCtrlMaxDataSize, unsigned int nTimeout);
// Drops the video, audio or all frames queued for the viewer and not yet on the wire. The
// time-out is accepted and not needed: the reset is immediate. 0 or a negative code.
int avServResetBuffer(int nAVChannelID, AV_RESET_TARGET eTarget, unsigned int nTimeout_ms);

// Joins, as AV client, the channel nIOTCChannelID that the viewer serves (talkback): waits up to
// nTimeout seconds for the viewer's answer. The AV channel index, or AV_ER_SERV_NO_RESPONSE,
// AV_ER_TIMEOUT and the codes of avServStart3. *pnServType is the viewer's service type.
int avClientStart2(int nIOTCSessionID, const char* cszViewAccount, const char* cszViewPassword,
                   unsigned int nTimeout, unsigned int* pnServType, unsigned char nIOTCChannelID,
                   int* pnResend);
// Drops the audio frames received and not yet read.
void avClientCleanAudioBuf(int nAVChannelID);
// Takes one received audio frame without waiting: its length, AV_ER_DATA_NOREADY,
// AV_ER_LOSED_THIS_FRAME (once, after frames were dropped for lack of room),
// AV_ER_BUFPARA_MAXSIZE_INSUFF (frame dropped), or the channel's close code. The frame
// information is copied up to nFrameInfoMaxSize bytes; *pnFrameIdx is the frame's number,
// counted from 0 by the viewer.
int avRecvAudioData(int nAVChannelID, char* abAudioData, int nAudioDataMaxSize, char* abFrameInfo,
                    int nFrameInfoMaxSize, unsigned int* pnFrameIdx);
// Leaves a channel joined with avClientStart2 and tells the viewer.
void avClientStop(int nAVChannelID);

// ---- RDT: reliable byte streams over a session --------------------------------------------

#define RDT_ER_NoERROR 0
#define RDT_ER_NOT_INITIALIZED -10000          // RDT_Initialize has not run
#define RDT_ER_EXCEED_MAX_CHANNEL -10001       // every RDT ID is in use
#define RDT_ER_INVALID_RDT_ID -10008           // no such RDT channel (destroyed, or never made)
#define RDT_ER_TIMEOUT -10009                  // nothing happened within the time-out
#define RDT_ER_REMOTE_EXIT -10010              // the peer destroyed its end (reads: after the data)
#define RDT_ER_REMOTE_ABORT -10011             // the peer aborted its end; unread data dropped
#define RDT_ER_LOCAL_ABORT -10012              // this side ended the channel during the call
#define RDT_ER_CHANNEL_OCCUPIED -10013         // the IOTC channel already carries RDT
#define RDT_ER_INVALID_ARG -10015              // a null pointer or a value out of range
#define RDT_ER_SESSION_CLOSED -10016           // this side closed the session
#define RDT_ER_SESSION_CLOSE_BY_REMOTE -10017  // the viewer ended the session
#define RDT_ER_REMOTE_TIMEOUT_DISCONNECT -10018  // the viewer went silent or its link broke

// What RDT_Status_Check tells about a channel.
struct st_RDT_Status {
  unsigned short Timeout;           // 0: the link never retransmits
  unsigned short TimeoutThreshold;  // 0
  unsigned int BufSizeInSendQueue;  // bytes written and not yet on the wire
  unsigned int BufSizeInRecvQueue;  // bytes received and not yet read
};

// Room for RDT channels; returns the number of RDT layers (1). RDT_DeInitialize ends every
// channel (waiting calls return RDT_ER_LOCAL_ABORT) and returns 0.
int RDT_Initialize(void);
int RDT_DeInitialize(void);
// Opens the RDT channel on IOTC channel nIOTCChannelID (0..31) of the session and waits up to
// nTimeout_ms (0: no limit) for the viewer to open its end there. The RDT ID (>= 0), or
// RDT_ER_TIMEOUT (the viewer is told), RDT_ER_CHANNEL_OCCUPIED, RDT_ER_EXCEED_MAX_CHANNEL,
// RDT_ER_INVALID_ARG, RDT_ER_NOT_INITIALIZED or the session's end code.
int RDT_Create(int nIOTCSessionID, int nTimeout_ms, int nIOTCChannelID);
// Sends size bytes (> 0). Waits, on the calling thread, while the viewer's window is full.
// size when all of it is queued, else RDT_ER_REMOTE_EXIT, RDT_ER_REMOTE_ABORT,
// RDT_ER_LOCAL_ABORT, RDT_ER_INVALID_RDT_ID, RDT_ER_INVALID_ARG or the session's end code.
int RDT_Write(int nRDTChannelID, const char* cabData, int nDataSize);
// Waits up to nTimeout_ms (0: does not wait) for data and copies up to size bytes: their count,
// RDT_ER_TIMEOUT, or once everything received has been read the end code (RDT_ER_REMOTE_EXIT,
// session codes); RDT_ER_REMOTE_ABORT at once.
int RDT_Read(int nRDTChannelID, char* abBuf, int nBufSize, int nTimeout_ms);
// Ends this side of the channel and frees the ID. Destroy: what was written still reaches the
// viewer, then it reads RDT_ER_REMOTE_EXIT. Abort: queued data is dropped, the viewer gets
// RDT_ER_REMOTE_ABORT at once. 0 or RDT_ER_INVALID_RDT_ID.
int RDT_Destroy(int nRDTChannelID);
int RDT_Abort(int nRDTChannelID);
// Fills psRDT_Status. 0, the channel's end code (record still filled), RDT_ER_INVALID_RDT_ID or
// RDT_ER_INVALID_ARG.
int RDT_Status_Check(int nRDTChannelID, struct st_RDT_Status* psRDT_Status);

#ifdef __cplusplus
}
#endif
