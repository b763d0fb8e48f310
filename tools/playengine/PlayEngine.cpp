#include "PlayEngine.h"

#include <poll.h>

#include <cstdio>
#include <cstring>

#include "SnapshotEncoder.h"

namespace {

const int kCommandWaitMs = 100;
const int kReconnectDelayMs = 200;
const size_t kSnapshotInputCapacity =
    2 * LatestPicture::kParameterSetCapacity + LatestPicture::kPictureCapacity;

void sleepMs(int ms) {
    poll(nullptr, 0, ms);
}

}  // namespace

PlayEngine::PlayEngine(const PlayEngineOptions& options)
    : mOptions(options),
      mBudget(options.frames),
      mConnection(options.engineSocket, options.ownSocket),
      mSnapshotInput(new unsigned char[kSnapshotInputCapacity]) {
    for (int session = 0; session < 2; ++session) {
        mOutputs[session].reset(
            new SessionOutput(options.video[session], options.audio[session], &mBudget));
    }
}

bool PlayEngine::shouldStop(const volatile sig_atomic_t* stopRequested) const {
    return *stopRequested != 0 || mBudget.exhausted();
}

int PlayEngine::run(const volatile sig_atomic_t* stopRequested) {
    bool reportedWaiting = false;
    while (!shouldStop(stopRequested)) {
        if (!mConnection.isConnected()) {
            std::string error;
            if (!mConnection.connect(&error)) {
                if (!reportedWaiting) {
                    fprintf(stderr, "playengine: waiting for the engine (%s)\n", error.c_str());
                    reportedWaiting = true;
                }
                sleepMs(kReconnectDelayMs);
                continue;
            }
            reportedWaiting = false;
            fprintf(stderr, "playengine: connected to %s as %s\n", mOptions.engineSocket.c_str(),
                    mOptions.ownSocket.c_str());
        }

        EngineCommand command;
        EngineConnection::ReceiveResult result = mConnection.receive(&command, kCommandWaitMs);
        if (result == EngineConnection::RECEIVED) {
            handle(command);
        } else if (result == EngineConnection::CLOSED) {
            fprintf(stderr, "playengine: the engine closed the connection\n");
            detachBuffers();
            if (!mOptions.reconnect)
                break;
        }
    }
    detachBuffers();
    mConnection.close();
    return 0;
}

void PlayEngine::handle(EngineCommand& command) {
    std::string text = command.text();
    int session = command.session();
    if (mOptions.verbose) {
        fprintf(stderr, "playengine: command \"%s\" session %d%s\n", text.c_str(), session,
                command.fd.valid() ? " with a descriptor" : "");
    }
    if (text == PLAYENGINE_CMD_TEXT_SHAREBUFFER) {
        if (session < 0 || session > 1 || !command.fd.valid()) {
            fprintf(stderr, "playengine: sharebuffer for session %d without a usable descriptor\n",
                    session);
            return;
        }
        attachBuffer(session, std::move(command.fd));
    } else if (text == PLAYENGINE_CMD_TEXT_CAPTURE) {
        capture(session, std::move(command.fd));
    } else {
        // "flush", "startrecord", "stoprecord": nothing to do for a player that only writes
        // streams out.
        if (mOptions.verbose)
            fprintf(stderr, "playengine: \"%s\" ignored\n", text.c_str());
    }
}

void PlayEngine::attachBuffer(int session, UniqueFd fd) {
    mReaders[session].reset();  // a repeated descriptor replaces the earlier one
    std::unique_ptr<SharedBufferMapping> mapping(new SharedBufferMapping());
    std::string error;
    if (!mapping->map(std::move(fd), &error)) {
        fprintf(stderr, "playengine: cannot map the buffer of session %d: %s\n", session,
                error.c_str());
        mConnection.sendIndication(1);  // ask for the descriptors again
        return;
    }
    mReaders[session].reset(new SessionReader(std::move(mapping), mOutputs[session].get()));
    mConnection.sendIndication(2);
    if (mOptions.verbose)
        fprintf(stderr, "playengine: reading session %d\n", session);
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
    mConnection.sendIndication(written ? 3 : 4);
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
