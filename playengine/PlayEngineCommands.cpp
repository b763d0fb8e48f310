// Commands to the play engine and the handling of its indications.
//
// Threads: sendCmd and sendPlayEngineCommand run on the command thread ("sharebuffer" after an
// accept) and on application threads (captureImage); onPlayEngineIndication runs on the
// command thread. Each send goes out under the play-engine link's lock, so it reaches the
// client connected at that moment or fails; it never reaches a descriptor that was closed
// and reused.
#include <sys/uio.h>

#include <cstring>

#include "EngineLog.h"
#include "EngineSessions.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

// The text of each command, indexed by PlayEngineCommand.
const char* const kCommandTexts[] = {PLAYENGINE_CMD_TEXT_SHAREBUFFER, PLAYENGINE_CMD_TEXT_CAPTURE,
                                     PLAYENGINE_CMD_TEXT_START_RECORD,
                                     PLAYENGINE_CMD_TEXT_STOP_RECORD, PLAYENGINE_CMD_TEXT_FLUSH};

// Status byte of a message that carries no descriptor: the low 8 bits of the negated value,
// or 1 when these are 0 (so 1 for the usual -1).
unsigned char missingDescriptorStatus(int fd) {
    unsigned char status = static_cast<unsigned char>(-static_cast<unsigned int>(fd) & 0xFFu);
    return status == 0 ? 1 : status;
}

}  // namespace

int TavoMBBMSEngineImpl::sendCmd(const char* cmd, int fd, int session) {
    TLOG(ENGINE, "cmd=%s, session=%d", cmd, session);

    PlayEngineCommandMessage command;
    memset(&command, 0, sizeof(command));
    // At most 32 bytes, zero padded; a text of 32 characters or more has no terminator.
    memcpy(command.command, cmd, strnlen(cmd, sizeof(command.command)));

    // Three 32-byte pieces of one message; the descriptor, if any, goes along with them.
    iovec pieces[3] = {{command.command, 32}, {&command.reserved32, 32}, {&command.session, 32}};
    command.reserved32 = 0;
    if (fd >= 0) {
        command.fdStatus = 0;
        TLOG(CMD_PATH, "Sending fd=%d to client fd=%d", fd, mCommandServer.client());
    } else {
        command.fdStatus = missingDescriptorStatus(fd);
    }

    command.session = static_cast<char>(session >= 0 ? '0' + session : '0');
    command.reserved65 = 0;
    const char sessionText[2] = {command.session, '\0'};
    TLOG(CMD_PATH, "cmd:%s session is %s", cmd, sessionText);

    // A "capture" that goes out is owed an answer by that client; if it goes first, the
    // snapshot ends as failed.
    const int captureSession = strcmp(cmd, PLAYENGINE_CMD_TEXT_CAPTURE) == 0 ? session : -1;
    int client = -1;
    const ssize_t sent = mCommandServer.send(pieces, 3, fd, &client, captureSession);
    if (sent > 0) {
        TLOG(CMD_PATH, ">>>>> sendmsg OK: cmd=%s (session=%d) to client fd=%d", cmd, session,
             client);
        return 0;
    }
    TLOG(ERROR, ">>>>> sendmsg cmd=%s (session=%d) to client fd=%d", cmd, session, client);
    return -1;
}

int TavoMBBMSEngineImpl::sendPlayEngineCommand(PlayEngineCommand cmd, int fd, int session) {
    switch (cmd) {
        case CMD_SHAREBUFFER:
            sendCmd(kCommandTexts[CMD_SHAREBUFFER], mSharedBuffers.fd(0), 0);
            return sendCmd(kCommandTexts[CMD_SHAREBUFFER], mSharedBuffers.fd(1), 1);
        case CMD_CAPTURE:
            return sendCmd(kCommandTexts[CMD_CAPTURE], fd, session);
        case CMD_START_RECORD:
        case CMD_STOP_RECORD:
        case CMD_FLUSH:
            return sendCmd(kCommandTexts[cmd], -1, 0);
    }
    TLOG(ERROR, "cmd not support yet");
    return -1;
}

void TavoMBBMSEngineImpl::onPlayEngineIndication(int indication, int session) {
    switch (indication) {
        case REQUEST_SHAREDBUFFER_FD:
            TLOG(CMD_PATH, "<<<<< receive PlayEngineIndication: REQUEST_SHAREDBUFFER_FD");
            break;
        case GOT_SHAREDBUFFER_FD:
            TLOG(CMD_PATH, "<<<<< receive PlayEngineIndication: GOT_SHAREDBUFFER_FD");
            break;
        case IMAGE_CAPTURE_SUCCESS:
            mCommandServer.captureAnswered(session);
            if (isEngineSession(session))
                mIsCapturing[session].store(false);
            TLOG(CMD_PATH, "<<<<< receive PlayEngineIndication: IMAGE_CAPTURE_SUCCESS");
            notifyEvent(EVENT_CAPTURE_SUCCESS, session);
            break;
        case IMAGE_CAPTURE_FAIL:
            mCommandServer.captureAnswered(session);
            if (isEngineSession(session))
                mIsCapturing[session].store(false);
            notifyEvent(EVENT_CAPTURE_FAIL, session);
            TLOG(CMD_PATH, "<<<<< receive PlayEngineIndication: IMAGE_CAPTURE_FAIL");
            break;
        default:
            TLOG(ERROR, "<<<<< receive PlayEngineIndication: UNKNOWN_INDICATION");
            break;
    }
}
