/*
 * Play-engine SDK: the reader side of the engine's command socket and shared A/V buffers,
 * as a C interface.
 *
 *   tavo_pe* pe = tavo_pe_create(NULL, NULL);      default engine socket, private own path
 *   tavo_pe_connect(pe, 5000);                     bind, connect, map both sessions' buffers
 *   loop:
 *     tavo_pe_next_command(pe, &command, 100);     "capture", "flush", ... or the end
 *     tavo_pe_wait_frame(pe, session, 100, &frame) the frame, locked
 *     tavo_pe_frame_nal(&frame, i, &item) ...      each record checked against the region
 *     tavo_pe_release_frame(pe, &frame);           counts set to 0, lock posted
 *   when the connection ends (TAVO_PE_CLOSED): stop waiting for frames, tavo_pe_connect again;
 *   it maps the new descriptors the engine hands out.
 *   tavo_pe_destroy(pe);
 *
 * Threads: one thread owns the connection (create, connect, next_command, send_indication,
 * disconnect, destroy). Frames may be waited for, walked and released on other threads, one
 * thread per session at a time, but never while connect, disconnect or destroy runs: those
 * unmap the regions.
 *
 * Every function returns TAVO_PE_OK (0) or a negative tavo_pe_status unless said otherwise;
 * a null handle, frame or output is TAVO_PE_INVALID.
 * Compiles as C (C11) and as C++.
 */
#ifndef TAVO_PLAY_ENGINE_H
#define TAVO_PLAY_ENGINE_H

#include <stddef.h>
#include <stdint.h>

#include "CmmbSharedBuffer.h"
#include "PlayEngineProtocol.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef enum tavo_pe_status {
    TAVO_PE_OK = 0,
    TAVO_PE_TIMEOUT = -1,    /* nothing arrived within the time-out */
    TAVO_PE_CLOSED = -2,     /* the connection ended (or none is open): connect again */
    TAVO_PE_REFUSED = -3,    /* no engine listens on the socket path */
    TAVO_PE_BAD_REGION = -4, /* a passed region has the wrong size or cannot be mapped */
    TAVO_PE_BAD_RECORD = -5, /* a record points outside the region's payload */
    TAVO_PE_PROTOCOL = -6,   /* a cut-short message or truncated control data */
    TAVO_PE_INVALID = -7,    /* a bad argument (session, index, path too long, ...) */
    TAVO_PE_SYSTEM = -8      /* a system call failed; errno tells why */
} tavo_pe_status;

/* A command the engine sent, other than "sharebuffer" (handled inside the SDK). */
typedef enum tavo_pe_command_kind {
    TAVO_PE_CMD_CAPTURE = CMD_CAPTURE, /* write a snapshot into fd, then answer */
    TAVO_PE_CMD_START_RECORD = CMD_START_RECORD,
    TAVO_PE_CMD_STOP_RECORD = CMD_STOP_RECORD,
    TAVO_PE_CMD_FLUSH = CMD_FLUSH,
    TAVO_PE_CMD_UNKNOWN = 100 /* text in `text` */
} tavo_pe_command_kind;

typedef struct tavo_pe_command {
    tavo_pe_command_kind kind;
    int session; /* from byte 64; -1 when it is not a digit */
    int fd;      /* passed descriptor (close-on-exec), owned by the caller; -1 when none */
    char text[33];
} tavo_pe_command;

/* One frame, locked by tavo_pe_wait_frame until tavo_pe_release_frame. The counts are read
 * once and clamped to the record tables. */
typedef struct tavo_pe_frame {
    int session;
    uint32_t nal_count;
    uint32_t aac_count;
    uint32_t data_length; /* clamped to the payload area */
    const CmmbSharedBuffer* region;
} tavo_pe_frame;

/* One record's item, checked against the payload area. `bytes` points into the shared
 * region and is valid until the frame is released. */
typedef struct tavo_pe_item {
    const unsigned char* bytes;
    uint32_t length;
    uint32_t ts_base;
    uint32_t ts_relative;
    uint32_t pos; /* NAL records only; 0 for AAC */
} tavo_pe_item;

typedef struct tavo_pe tavo_pe;

/* The engine's socket path: PLAYENGINE_SOCKET_PATH under $TAVO_ANDROID_ROOT when that is
 * set and not empty. TAVO_PE_INVALID when it does not fit in `size` bytes. */
int tavo_pe_default_engine_path(char* out, size_t size);

/* engine_path: NULL for tavo_pe_default_engine_path. own_path: the path this play engine
 * binds before connecting; NULL for a private one ($TMPDIR or /tmp, with the process id).
 * NULL when out of memory or a path does not fit a socket address. */
tavo_pe* tavo_pe_create(const char* engine_path, const char* own_path);
/* Disconnects and removes the own path. */
void tavo_pe_destroy(tavo_pe* pe);

/* Ends any connection (unmaps, closes), then binds, connects and waits up to timeout_ms for
 * both "sharebuffer" messages; maps each region (answering GOT_SHAREDBUFFER_FD) after
 * checking its size. Other commands arriving meanwhile are answered as failed (capture) or
 * dropped. */
int tavo_pe_connect(tavo_pe* pe, int timeout_ms);
int tavo_pe_is_connected(const tavo_pe* pe);
/* Unmaps both regions and closes the connection. */
void tavo_pe_disconnect(tavo_pe* pe);
/* Closes the connection and keeps both regions mapped, as when the engine ends it: frame
 * readers on other threads may finish (or a forked child, closing its copy of the
 * connection, may read on). tavo_pe_connect, tavo_pe_disconnect or tavo_pe_destroy unmap. */
void tavo_pe_hang_up(tavo_pe* pe);
/* The session's mapped region, or NULL. */
CmmbSharedBuffer* tavo_pe_region(tavo_pe* pe, int session);

/* Waits up to timeout_ms for the next command. TAVO_PE_CLOSED (or TAVO_PE_PROTOCOL,
 * TAVO_PE_SYSTEM) when the connection ended: the socket is closed, the regions stay mapped
 * so that readers on other threads are safe; stop them, then connect again. */
int tavo_pe_next_command(tavo_pe* pe, tavo_pe_command* command, int timeout_ms);
/* Sends one 64-byte indication with `code` (a PlayEngineIndication) as its decimal text. */
int tavo_pe_send_indication(tavo_pe* pe, int code);

/* Waits (at most timeout_ms in all) on mutexDataAvailable, then on mutexDataAccessable.
 * TAVO_PE_OK: the frame is locked and must be released. */
int tavo_pe_wait_frame(tavo_pe* pe, int session, int timeout_ms, tavo_pe_frame* frame);
/* Record `index` (below nal_count / aac_count). TAVO_PE_BAD_RECORD when its item is empty
 * or lies outside the payload (for AAC also when shorter than its ADTS header). */
int tavo_pe_frame_nal(const tavo_pe_frame* frame, uint32_t index, tavo_pe_item* item);
int tavo_pe_frame_aac(const tavo_pe_frame* frame, uint32_t index, tavo_pe_item* item);
/* Records of the frame that tavo_pe_frame_nal/aac reject; 0 for a released frame. */
uint32_t tavo_pe_frame_bad_records(const tavo_pe_frame* frame);
/* Sets both counts to 0 (the frame was fetched) and posts mutexDataAccessable. */
int tavo_pe_release_frame(tavo_pe* pe, tavo_pe_frame* frame);

/* A short text for a tavo_pe_status. */
const char* tavo_pe_status_text(int status);

#pragma GCC visibility pop
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TAVO_PLAY_ENGINE_H */
