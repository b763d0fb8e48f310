// The C interface of the play-engine SDK over PlayEngineSocket and SharedRegion.
#include "TavoPlayEngine.h"

#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "Deadline.h"
#include "PlayEngineSocket.h"
#include "SharedRegion.h"

// The connection and both sessions' regions. Owned by the caller through the opaque handle;
// see TavoPlayEngine.h for which thread may call what.
struct tavo_pe {
    tavo_pe(const std::string& enginePath, const std::string& ownPath)
        : socket(enginePath, ownPath) {}

    PlayEngineSocket socket;
    SharedRegion regions[CMMB_SHARED_BUFFER_COUNT];
};

namespace {

const size_t kMaxSocketPath = 107;  // sun_path less its terminating zero

int sessionOf(const PlayEngineCommandMessage& message) {
    return message.session >= '0' && message.session <= '9' ? message.session - '0' : -1;
}

tavo_pe_command_kind kindOf(const char* text) {
    if (strcmp(text, PLAYENGINE_CMD_TEXT_CAPTURE) == 0)
        return TAVO_PE_CMD_CAPTURE;
    if (strcmp(text, PLAYENGINE_CMD_TEXT_START_RECORD) == 0)
        return TAVO_PE_CMD_START_RECORD;
    if (strcmp(text, PLAYENGINE_CMD_TEXT_STOP_RECORD) == 0)
        return TAVO_PE_CMD_STOP_RECORD;
    if (strcmp(text, PLAYENGINE_CMD_TEXT_FLUSH) == 0)
        return TAVO_PE_CMD_FLUSH;
    return TAVO_PE_CMD_UNKNOWN;
}

int statusOf(PlayEngineSocket::Result result) {
    switch (result) {
        case PlayEngineSocket::RECEIVED:
            return TAVO_PE_OK;
        case PlayEngineSocket::NOTHING_YET:
            return TAVO_PE_TIMEOUT;
        case PlayEngineSocket::CUT_SHORT:
            return TAVO_PE_PROTOCOL;
        case PlayEngineSocket::FAILED:
            return TAVO_PE_SYSTEM;
        case PlayEngineSocket::CLOSED:
            break;
    }
    return TAVO_PE_CLOSED;
}

// An item of `length` bytes at `offset` in a payload of `dataLength` bytes, or null.
const unsigned char* itemBytes(const tavo_pe_frame* frame, uint32_t offset, uint32_t length) {
    uint64_t end = static_cast<uint64_t>(offset) + length;
    if (length == 0 || end > frame->data_length)
        return nullptr;
    return frame->region->data + offset;
}

bool validSession(int session) {
    return session >= 0 && session < static_cast<int>(CMMB_SHARED_BUFFER_COUNT);
}

// Waits on one semaphore until the deadline; 0, or a tavo_pe_status.
int waitUntil(CmmbSharedSemaphore* semaphore, int64_t deadline) {
    for (;;) {
        if (cmmb_sem_timedwait(semaphore, remainingMs(deadline)) == 0)
            return TAVO_PE_OK;
        if (errno == ETIMEDOUT)
            return TAVO_PE_TIMEOUT;
        if (errno != EINTR)
            return TAVO_PE_SYSTEM;
    }
}

}  // namespace

extern "C" {

int tavo_pe_default_engine_path(char* out, size_t size) {
    const char* root = getenv(PLAYENGINE_ANDROID_ROOT_ENV);
    int written = snprintf(out, size, "%s%s", root != nullptr ? root : "", PLAYENGINE_SOCKET_PATH);
    if (written < 0 || static_cast<size_t>(written) >= size)
        return TAVO_PE_INVALID;
    return TAVO_PE_OK;
}

tavo_pe* tavo_pe_create(const char* engine_path, const char* own_path) {
    char enginePath[kMaxSocketPath + 1];
    if (engine_path == nullptr) {
        if (tavo_pe_default_engine_path(enginePath, sizeof(enginePath)) != TAVO_PE_OK)
            return nullptr;
        engine_path = enginePath;
    }
    std::string ownPath;
    if (own_path != nullptr) {
        ownPath = own_path;
    } else {
        const char* tmp = getenv("TMPDIR");
        ownPath = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                  "/tavo-playengine-" + std::to_string(getpid()) + ".socket";
    }
    size_t engineLength = strlen(engine_path);
    if (engineLength == 0 || engineLength > kMaxSocketPath || ownPath.empty() ||
        ownPath.size() > kMaxSocketPath) {
        return nullptr;
    }
    return new (std::nothrow) tavo_pe(engine_path, ownPath);
}

void tavo_pe_destroy(tavo_pe* pe) {
    delete pe;
}

void tavo_pe_disconnect(tavo_pe* pe) {
    if (pe == nullptr)
        return;
    for (SharedRegion& region : pe->regions)
        region.reset();
    pe->socket.close();
}

void tavo_pe_hang_up(tavo_pe* pe) {
    if (pe != nullptr)
        pe->socket.close();
}

int tavo_pe_is_connected(const tavo_pe* pe) {
    return pe != nullptr && pe->socket.isConnected() ? 1 : 0;
}

CmmbSharedBuffer* tavo_pe_region(tavo_pe* pe, int session) {
    return pe != nullptr && validSession(session) ? pe->regions[session].buffer() : nullptr;
}

int tavo_pe_connect(tavo_pe* pe, int timeout_ms) {
    if (pe == nullptr)
        return TAVO_PE_INVALID;
    tavo_pe_disconnect(pe);
    if (!pe->socket.connect())
        return errno == ENOENT || errno == ECONNREFUSED ? TAVO_PE_REFUSED : TAVO_PE_SYSTEM;

    const int64_t deadline = monotonicMs() + timeout_ms;
    unsigned mapped = 0;
    while (mapped != (1u << CMMB_SHARED_BUFFER_COUNT) - 1) {
        PlayEngineCommandMessage message;
        UniqueFd fd;
        PlayEngineSocket::Result result = pe->socket.receive(&message, &fd, remainingMs(deadline));
        if (result == PlayEngineSocket::NOTHING_YET && remainingMs(deadline) > 0)
            continue;
        if (result != PlayEngineSocket::RECEIVED) {
            tavo_pe_disconnect(pe);
            return statusOf(result);
        }
        char text[sizeof(message.command) + 1] = {};
        memcpy(text, message.command, sizeof(message.command));
        int session = sessionOf(message);
        if (strcmp(text, PLAYENGINE_CMD_TEXT_SHAREBUFFER) != 0) {
            // Nothing can be captured before the frames flow; everything else has no effect.
            if (kindOf(text) == TAVO_PE_CMD_CAPTURE)
                pe->socket.sendIndication(IMAGE_CAPTURE_FAIL);
            continue;
        }
        if (!validSession(session) || !pe->regions[session].map(std::move(fd))) {
            pe->socket.sendIndication(REQUEST_SHAREDBUFFER_FD);
            tavo_pe_disconnect(pe);
            return TAVO_PE_BAD_REGION;
        }
        pe->socket.sendIndication(GOT_SHAREDBUFFER_FD);
        mapped |= 1u << session;
    }
    return TAVO_PE_OK;
}

int tavo_pe_next_command(tavo_pe* pe, tavo_pe_command* command, int timeout_ms) {
    if (pe == nullptr || command == nullptr)
        return TAVO_PE_INVALID;
    command->fd = -1;
    for (;;) {
        PlayEngineCommandMessage message;
        UniqueFd fd;
        PlayEngineSocket::Result result = pe->socket.receive(&message, &fd, timeout_ms);
        if (result != PlayEngineSocket::RECEIVED) {
            // The socket is closed by now; the regions stay mapped until the caller, its
            // frame readers stopped, connects again or disconnects.
            return statusOf(result);
        }
        memset(command->text, 0, sizeof(command->text));
        memcpy(command->text, message.command, sizeof(message.command));
        command->session = sessionOf(message);
        if (strcmp(command->text, PLAYENGINE_CMD_TEXT_SHAREBUFFER) == 0) {
            // Descriptors come once per connection; a repeat is dropped (its descriptor
            // closed) rather than unmapping a region another thread may be reading.
            continue;
        }
        command->kind = kindOf(command->text);
        command->fd = fd.release();
        return TAVO_PE_OK;
    }
}

int tavo_pe_send_indication(tavo_pe* pe, int code) {
    if (pe == nullptr)
        return TAVO_PE_INVALID;
    if (!pe->socket.isConnected())
        return TAVO_PE_CLOSED;
    if (pe->socket.sendIndication(code))
        return TAVO_PE_OK;
    // The engine has closed its end: that is the end of the connection, not a failure.
    return errno == EPIPE || errno == ECONNRESET ? TAVO_PE_CLOSED : TAVO_PE_SYSTEM;
}

int tavo_pe_wait_frame(tavo_pe* pe, int session, int timeout_ms, tavo_pe_frame* frame) {
    if (pe == nullptr || frame == nullptr || !validSession(session))
        return TAVO_PE_INVALID;
    CmmbSharedBuffer* shared = pe->regions[session].buffer();
    if (shared == nullptr)
        return TAVO_PE_CLOSED;
    const int64_t deadline = monotonicMs() + timeout_ms;
    int status = waitUntil(&shared->mutexDataAvailable, deadline);
    if (status != TAVO_PE_OK)
        return status;
    status = waitUntil(&shared->mutexDataAccessable, deadline);
    if (status != TAVO_PE_OK) {
        // The frame stays announced for the next wait.
        cmmb_sem_post(&shared->mutexDataAvailable);
        return status;
    }
    // Another process writes these: each is read once, and only the local copy is used.
    uint32_t nalCount = shared->nalCount;
    uint32_t aacCount = shared->aacCount;
    uint32_t dataLength = shared->dataLength;
    frame->session = session;
    frame->nal_count = nalCount < CMMB_NAL_RECORD_SLOTS ? nalCount : CMMB_NAL_RECORD_SLOTS;
    frame->aac_count = aacCount < CMMB_AAC_RECORD_SLOTS ? aacCount : CMMB_AAC_RECORD_SLOTS;
    frame->data_length = dataLength < CMMB_PAYLOAD_SIZE ? dataLength : CMMB_PAYLOAD_SIZE;
    frame->region = shared;
    return TAVO_PE_OK;
}

int tavo_pe_frame_nal(const tavo_pe_frame* frame, uint32_t index, tavo_pe_item* item) {
    if (frame == nullptr || item == nullptr || frame->region == nullptr ||
        index >= frame->nal_count)
        return TAVO_PE_INVALID;
    CmmbNalRecord record;
    memcpy(&record, &frame->region->nal[index], sizeof(record));
    item->bytes = itemBytes(frame, record.offset, record.length);
    item->length = record.length;
    item->ts_base = record.tsBase;
    item->ts_relative = record.tsRelative;
    item->pos = record.pos;
    return item->bytes != nullptr ? TAVO_PE_OK : TAVO_PE_BAD_RECORD;
}

int tavo_pe_frame_aac(const tavo_pe_frame* frame, uint32_t index, tavo_pe_item* item) {
    if (frame == nullptr || item == nullptr || frame->region == nullptr ||
        index >= frame->aac_count)
        return TAVO_PE_INVALID;
    CmmbAacRecord record;
    memcpy(&record, &frame->region->aac[index], sizeof(record));
    item->bytes = record.length >= CMMB_ADTS_HEADER_SIZE
                      ? itemBytes(frame, record.offset, record.length)
                      : nullptr;
    item->length = record.length;
    item->ts_base = record.tsBase;
    item->ts_relative = record.tsRelative;
    item->pos = 0;
    return item->bytes != nullptr ? TAVO_PE_OK : TAVO_PE_BAD_RECORD;
}

uint32_t tavo_pe_frame_bad_records(const tavo_pe_frame* frame) {
    if (frame == nullptr || frame->region == nullptr)
        return 0;
    uint32_t bad = 0;
    tavo_pe_item item;
    for (uint32_t i = 0; i < frame->nal_count; ++i)
        bad += tavo_pe_frame_nal(frame, i, &item) != TAVO_PE_OK ? 1 : 0;
    for (uint32_t i = 0; i < frame->aac_count; ++i)
        bad += tavo_pe_frame_aac(frame, i, &item) != TAVO_PE_OK ? 1 : 0;
    return bad;
}

int tavo_pe_release_frame(tavo_pe* pe, tavo_pe_frame* frame) {
    if (pe == nullptr || frame == nullptr || frame->region == nullptr ||
        !validSession(frame->session) || pe->regions[frame->session].buffer() != frame->region) {
        return TAVO_PE_INVALID;
    }
    CmmbSharedBuffer* shared = pe->regions[frame->session].buffer();
    shared->nalCount = 0;
    shared->aacCount = 0;
    frame->region = nullptr;
    return cmmb_sem_post(&shared->mutexDataAccessable) == 0 ? TAVO_PE_OK : TAVO_PE_SYSTEM;
}

const char* tavo_pe_status_text(int status) {
    switch (status) {
        case TAVO_PE_OK:
            return "ok";
        case TAVO_PE_TIMEOUT:
            return "timed out";
        case TAVO_PE_CLOSED:
            return "not connected";
        case TAVO_PE_REFUSED:
            return "no engine listens";
        case TAVO_PE_BAD_REGION:
            return "shared region of the wrong size or not mappable";
        case TAVO_PE_BAD_RECORD:
            return "record outside the payload";
        case TAVO_PE_PROTOCOL:
            return "message cut short or descriptors lost";
        case TAVO_PE_INVALID:
            return "invalid argument";
        case TAVO_PE_SYSTEM:
            return "system call failed";
    }
    return "unknown status";
}

}  // extern "C"
