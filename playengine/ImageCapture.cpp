// Snapshots: the engine asks the play engine to write a picture of a session into a file
// the application opened; the outcome arrives later as an indication (see
// PlayEngineCommands.cpp) and reaches the application as EVENT_CAPTURE_SUCCESS or
// EVENT_CAPTURE_FAIL.
#include <errno.h>

#include <cstring>

#include "EngineGuard.h"
#include "EngineLog.h"
#include "EngineSessions.h"
#include "Env.h"
#include "FileSystemSpace.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

// A snapshot needs at least this much free space on the file system of its file.
const long long kMinimumFreeKB = 100;

}  // namespace

int TavoMBBMSEngineImpl::captureImage(int session, int fd) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (!isEngineSession(session)) {
        TLOG(ERROR, "invalid session %d", session);
        return -1;
    }

    struct statfs space;
    if (mEnv.load()->fstatfs(fd, &space) != 0) {
        TLOG(ERROR, "fstatfs failed, reason: %s", strerror(errno));
        notifyEvent(EVENT_CAPTURE_FAIL, session);
        return 0;
    }
    long long freeKB = freeSpaceBytes(space) / 1024;
    if (freeKB < kMinimumFreeKB) {
        TLOG(ERROR, "free space (%lld KB) is not enough", freeKB);
        notifyEvent(EVENT_CAPTURE_FAIL, session);
        return 0;
    }

    mIsCapturing[session].store(true);
    if (sendPlayEngineCommand(CMD_CAPTURE, fd, session) != 0) {
        // Nobody received the request, so no indication will ever end it: end it here.
        mIsCapturing[session].store(false);
        notifyEvent(EVENT_CAPTURE_FAIL, session);
    }
    return 0;
}

bool TavoMBBMSEngineImpl::isCapturing(int session) {
    if (!isEngineSession(session))
        return false;
    return mIsCapturing[session].load();
}
