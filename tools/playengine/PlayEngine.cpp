#include "PlayEngine.h"

#include <errno.h>
#include <poll.h>

#include <cstdio>
#include <cstring>

#include "SnapshotEncoder.h"

namespace {

const int kCommandWaitMs = 100;
const int kReconnectDelayMs = 200;
// How long a new connection waits for both sessions' descriptors.
const int kDescriptorWaitMs = 2000;
const size_t kSnapshotInputCapacity =
    2 * LatestPicture::kParameterSetCapacity + LatestPicture::kPictureCapacity;

void sleepMs(int ms) {
    poll(nullptr, 0, ms);
}

}  // namespace

PlayEngine::PlayEngine(const PlayEngineOptions& options)
    : mOptions(options),
      mBudget(options.frames),
      mConnection(tavo_pe_create(options.engineSocket.c_str(), options.ownSocket.c_str())),
      mSnapshotInput(new unsigned char[kSnapshotInputCapacity]) {
    for (int session = 0; session < 2; ++session) {
        mOutputs[session].reset(
            new SessionOutput(options.video[session], options.audio[session], &mBudget));
    }
}

bool PlayEngine::shouldStop(const volatile sig_atomic_t* stopRequested) const {
    return *stopRequested != 0 || mBudget.exhausted();
}

bool PlayEngine::connect(bool* reportedWaiting) {
    int status = tavo_pe_connect(mConnection.get(), kDescriptorWaitMs);
    if (status != TAVO_PE_OK) {
        if (!*reportedWaiting) {
            fprintf(stderr, "playengine: waiting for the engine (%s%s%s)\n",
                    tavo_pe_status_text(status), status == TAVO_PE_SYSTEM ? ": " : "",
                    status == TAVO_PE_SYSTEM ? strerror(errno) : "");
            *reportedWaiting = true;
        }
        return false;
    }
    *reportedWaiting = false;
    fprintf(stderr, "playengine: connected to %s as %s\n", mOptions.engineSocket.c_str(),
            mOptions.ownSocket.c_str());
    for (int session = 0; session < 2; ++session) {
        mReaders[session].reset(
            new SessionReader(mConnection.get(), session, mOutputs[session].get()));
        if (mOptions.verbose)
            fprintf(stderr, "playengine: reading session %d\n", session);
    }
    return true;
}

int PlayEngine::run(const volatile sig_atomic_t* stopRequested) {
    if (mConnection == nullptr) {
        fprintf(stderr, "playengine: socket path empty or too long\n");
        return 2;
    }
    bool reportedWaiting = false;
    while (!shouldStop(stopRequested)) {
        if (!tavo_pe_is_connected(mConnection.get()) && !connect(&reportedWaiting)) {
            sleepMs(kReconnectDelayMs);
            continue;
        }

        tavo_pe_command command;
        int status = tavo_pe_next_command(mConnection.get(), &command, kCommandWaitMs);
        if (status == TAVO_PE_OK) {
            handle(command);
        } else if (status != TAVO_PE_TIMEOUT) {
            // The buffers stay mapped until the readers are joined; the next connect maps
            // the descriptors the engine hands out then.
            fprintf(stderr, "playengine: the engine closed the connection (%s)\n",
                    tavo_pe_status_text(status));
            detachBuffers();
            if (!mOptions.reconnect)
                break;
        }
    }
    detachBuffers();
    tavo_pe_disconnect(mConnection.get());
    return 0;
}

void PlayEngine::handle(const tavo_pe_command& command) {
    UniqueFd fd(command.fd);
    if (mOptions.verbose) {
        fprintf(stderr, "playengine: command \"%s\" session %d%s\n", command.text, command.session,
                fd.valid() ? " with a descriptor" : "");
    }
    if (command.kind == TAVO_PE_CMD_CAPTURE) {
        capture(command.session, std::move(fd));
    } else if (mOptions.verbose) {
        // "flush", "startrecord", "stoprecord": nothing to do for a player that only writes
        // streams out.
        fprintf(stderr, "playengine: \"%s\" ignored\n", command.text);
    }
}

void PlayEngine::capture(int session, UniqueFd fd) {
    std::string error;
    bool written = false;
    if (session < 0 || session > 1) {
        error = "no such session";
    } else if (!fd.valid()) {
        error = "no file descriptor came with the request";
    } else {
        size_t size = mOutputs[session]->latestPicture().copyAnnexB(mSnapshotInput.get(),
                                                                    kSnapshotInputCapacity);
        if (size == 0) {
            error = "no complete picture (SPS, PPS and IDR picture) received yet";
        } else {
            written = SnapshotEncoder::encode(mSnapshotInput.get(), size, fd.get(), &error);
        }
    }
    if (written) {
        fprintf(stderr, "playengine: snapshot of session %d written\n", session);
    } else {
        fprintf(stderr, "playengine: snapshot of session %d failed: %s\n", session, error.c_str());
    }
    tavo_pe_send_indication(mConnection.get(),
                            written ? IMAGE_CAPTURE_SUCCESS : IMAGE_CAPTURE_FAIL);
}

void PlayEngine::detachBuffers() {
    for (std::unique_ptr<SessionReader>& reader : mReaders)
        reader.reset();
}

void PlayEngine::printStatistics() const {
    for (int session = 0; session < 2; ++session) {
        const SessionCounters& counters = mOutputs[session]->counters();
        fprintf(stderr, "session %d: frames=%ld nal=%ld aac=%ld empty=%ld bad_records=%ld\n",
                session, counters.frames.load(), counters.nalUnits.load(),
                counters.aacFrames.load(), counters.emptyFrames.load(), counters.badRecords.load());
    }
}
