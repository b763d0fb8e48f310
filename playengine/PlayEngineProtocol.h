// Wire format of the local socket between the engine and a play engine. Readers in other
// processes include this header.
//
// Engine -> play engine: 96-byte command messages, one sendmsg each, optionally carrying one
// descriptor with SCM_RIGHTS. Play engine -> engine: 64-byte indication messages.
//
// The engine listens on PLAYENGINE_SOCKET_PATH. On a host build that path lies under the
// android root: with TAVO_ANDROID_ROOT=/tmp/r it is /tmp/r/data/app/cmmb.socket. A client
// must bind its own socket to a file-system path, and that file must still exist when the
// engine accepts it; a client without one is refused (the engine logs "socket file not
// exist!" and closes the connection without sending anything).
//
// Compiles as C (C11) and as C++.
#ifndef TAVO_PLAYENGINE_PROTOCOL_H
#define TAVO_PLAYENGINE_PROTOCOL_H

#include <sys/socket.h>

#include <stddef.h>

#include "CmmbSharedSemaphore.h"  // CMMB_STATIC_ASSERT

// The engine's socket, before the android root is put in front of it on a host.
#define PLAYENGINE_SOCKET_PATH "/data/app/cmmb.socket"
// The environment variable naming the android root on a host build.
#define PLAYENGINE_ANDROID_ROOT_ENV "TAVO_ANDROID_ROOT"

typedef enum PlayEngineCommand {
    CMD_SHAREBUFFER = 0,   // "sharebuffer": a session's shared-buffer descriptor
    CMD_CAPTURE = 1,       // "capture": a file descriptor to write a snapshot into
    CMD_START_RECORD = 2,  // "startrecord"
    CMD_STOP_RECORD = 3,   // "stoprecord"
    CMD_FLUSH = 4,         // "flush"
} PlayEngineCommand;

typedef enum PlayEngineIndication {
    UNKNOWN_INDICATION = 0,
    REQUEST_SHAREDBUFFER_FD = 1,
    GOT_SHAREDBUFFER_FD = 2,
    IMAGE_CAPTURE_SUCCESS = 3,
    IMAGE_CAPTURE_FAIL = 4,
} PlayEngineIndication;

// Command message. Bytes 0-31: the command text, zero padded. Byte 33: descriptor status,
// 0 when a descriptor is attached. Byte 64: the session as one character ('0' + session).
typedef struct PlayEngineCommandMessage {
    char command[32];
    unsigned char reserved32;
    unsigned char fdStatus;
    unsigned char unused34[30];
    char session;
    unsigned char reserved65;
    unsigned char unused66[30];
} PlayEngineCommandMessage;
CMMB_STATIC_ASSERT(sizeof(PlayEngineCommandMessage) == 96, "command message is 96 bytes");
CMMB_STATIC_ASSERT(offsetof(PlayEngineCommandMessage, fdStatus) == 33, "status byte at 33");
CMMB_STATIC_ASSERT(offsetof(PlayEngineCommandMessage, session) == 64, "session byte at 64");

// Indication message. Bytes 0-31: the indication code as decimal ASCII ended by a zero
// byte; bytes 32-63 are not interpreted by the engine.
typedef struct PlayEngineIndicationMessage {
    char code[32];
    char extra[32];
} PlayEngineIndicationMessage;
CMMB_STATIC_ASSERT(sizeof(PlayEngineIndicationMessage) == 64, "indication message is 64 bytes");

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
