// Wire format of the local socket between the engine and a play engine. Readers in other
// processes include this header.
//
// Engine -> play engine: 96-byte command messages, one sendmsg each, optionally carrying one
// descriptor with SCM_RIGHTS. Play engine -> engine: 64-byte indication messages.
#ifndef TAVO_PLAYENGINE_PROTOCOL_H
#define TAVO_PLAYENGINE_PROTOCOL_H

#include <sys/socket.h>

#include <cstddef>

enum PlayEngineCommand {
    CMD_SHAREBUFFER = 0,   // "sharebuffer": a session's shared-buffer descriptor
    CMD_CAPTURE = 1,       // "capture": a file descriptor to write a snapshot into
    CMD_START_RECORD = 2,  // "startrecord"
    CMD_STOP_RECORD = 3,   // "stoprecord"
    CMD_FLUSH = 4,         // "flush"
};

enum PlayEngineIndication {
    UNKNOWN_INDICATION = 0,
    REQUEST_SHAREDBUFFER_FD = 1,
    GOT_SHAREDBUFFER_FD = 2,
    IMAGE_CAPTURE_SUCCESS = 3,
    IMAGE_CAPTURE_FAIL = 4,
};

// Command message. Bytes 0-31: the command text, zero padded. Byte 33: descriptor status,
// 0 when a descriptor is attached. Byte 64: the session as one character ('0' + session).
struct PlayEngineCommandMessage {
    char command[32];
    unsigned char reserved32;
    unsigned char fdStatus;
    unsigned char unused34[30];
    char session;
    unsigned char reserved65;
    unsigned char unused66[30];
};
static_assert(sizeof(PlayEngineCommandMessage) == 96, "command message is 96 bytes");
static_assert(offsetof(PlayEngineCommandMessage, fdStatus) == 33, "status byte at 33");
static_assert(offsetof(PlayEngineCommandMessage, session) == 64, "session byte at 64");

// Indication message. Bytes 0-31: the indication code as decimal ASCII ended by a zero
// byte; bytes 32-63 are not interpreted by the engine.
struct PlayEngineIndicationMessage {
    char code[32];
    char extra[32];
};
static_assert(sizeof(PlayEngineIndicationMessage) == 64, "indication message is 64 bytes");

// Control buffer that carries one passed descriptor: a cmsghdr of level SOL_SOCKET and type
// SCM_RIGHTS followed by the descriptor as a 32-bit integer. 16 bytes on 32-bit ARM; larger
// on 64-bit hosts, whose cmsghdr is larger.
enum { PLAYENGINE_FD_CONTROL_SPACE = CMSG_SPACE(sizeof(int)) };

// Texts of the commands, as they appear in bytes 0-31 of a command message.
#define PLAYENGINE_CMD_TEXT_SHAREBUFFER "sharebuffer"
#define PLAYENGINE_CMD_TEXT_CAPTURE "capture"
#define PLAYENGINE_CMD_TEXT_START_RECORD "startrecord"
#define PLAYENGINE_CMD_TEXT_STOP_RECORD "stoprecord"
#define PLAYENGINE_CMD_TEXT_FLUSH "flush"

#endif  // TAVO_PLAYENGINE_PROTOCOL_H
