#include "FrameReader.h"

#include <unistd.h>

#include "UniqueHandle.h"

namespace {

const int kCommandWaitMs = 5;
const int kConnectWaitMs = 2000;
const int kSessions = CMMB_SHARED_BUFFER_COUNT;

}  // namespace

FrameReader::FrameReader(const std::string& enginePath, const std::string& ownPath)
    : mPlayEngine(tavo_pe_create(enginePath.c_str(), ownPath.c_str())) {
    for (auto& fetched : mFetched)
        fetched.store(0);
}

FrameReader::~FrameReader() {
    mStop.store(true);
    if (mThread.joinable())
        mThread.join();
}

bool FrameReader::start(std::string* error) {
    if (mPlayEngine == nullptr) {
        *error = "socket path empty or too long";
        return false;
    }
    const int status = tavo_pe_connect(mPlayEngine.get(), kConnectWaitMs);
    if (status != TAVO_PE_OK) {
        *error = std::string("connecting to the engine: ") + tavo_pe_status_text(status);
        return false;
    }
    mBuffersMapped.store(tavo_pe_region(mPlayEngine.get(), 0) != nullptr &&
                         tavo_pe_region(mPlayEngine.get(), 1) != nullptr);
    mThread = std::thread(&FrameReader::run, this);
    return true;
}

void FrameReader::run() {
    bool connected = true;
    while (!mStop.load()) {
        if (!connected) {
            usleep(kCommandWaitMs * 1000);  // the engine has ended the connection (deinit)
            continue;
        }
        tavo_pe_command command;
        const int status = tavo_pe_next_command(mPlayEngine.get(), &command, kCommandWaitMs);
        if (status == TAVO_PE_OK) {
            answer(command);
        } else if (status != TAVO_PE_TIMEOUT) {
            connected = false;
            continue;
        }
        for (int session = 0; session < kSessions; ++session)
            fetchFrame(session);
    }
}

void FrameReader::answer(const tavo_pe_command& command) {
    // The passed descriptor is this reader's: nothing is written into it, it is closed here.
    const UniqueFd passed(command.fd);
    if (command.kind == TAVO_PE_CMD_CAPTURE)
        tavo_pe_send_indication(mPlayEngine.get(), IMAGE_CAPTURE_FAIL);
}

void FrameReader::fetchFrame(int session) {
    tavo_pe_frame frame;
    if (tavo_pe_wait_frame(mPlayEngine.get(), session, 0, &frame) != TAVO_PE_OK)
        return;
    const bool hasData = frame.nal_count != 0 || frame.aac_count != 0;
    tavo_pe_release_frame(mPlayEngine.get(), &frame);
    if (hasData)
        mFetched[session].fetch_add(1);
}
