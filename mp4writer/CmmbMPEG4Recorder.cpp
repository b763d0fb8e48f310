// The writer's lifecycle: construction on a descriptor, track registration, start with its
// size cap, pause and resume, sample intake, the moov-size prediction, and stop, which
// patches the mdat size and appends the moov at the end of the file.
#define LOG_TAG "CmmbMPEG4Recorder"

#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <ctime>

#include "CmmbMPEG4Writer.h"
#include "Log.h"
#include "MediaTicks.h"
#include "MutexLock.h"
#include "Properties.h"

namespace {

bool repairRecordsWanted() {
    char value[PROPERTY_VALUE_MAX];
    property_get(CmmbMPEG4Writer::kRepairRecordsProperty, value, "1");
    return strcasecmp(value, "0") != 0 && strcasecmp(value, "false") != 0 &&
           strcasecmp(value, "off") != 0;
}

const int64_t kMaxFileSize32Bit = 0x7FFFFFFF;
const uint32_t kDefaultInterleaveTicks = 22500;  // one second of input ticks
const int32_t kDefaultMovieTimeScale = 48000;

}  // namespace

const char CmmbMPEG4Writer::kRepairRecordsProperty[] = "persist.mbbms.record.repair";

CmmbMPEG4Writer::CmmbMPEG4Writer(int fd, Env* env)
    : mFile(UniqueFd(fd), env),
      mWriteError(0),
      mRepairRecords(repairRecordsWanted()),
      mDescribedConfigSize(0),
      mOffset(0),
      mMdatOffset(0),
      mTimeScale(kDefaultMovieTimeScale),
      mUse32BitOffset(true),
      mUseNalLengthFour(true),
      mMaxFileSizeLimitBytes(0),
      mMaxFileDurationLimit(0),
      mInterleaveDuration(kDefaultInterleaveTicks),
      mPaused(false),
      mStarted(false) {
    if (!mFile.isOpen()) {
        ALOGE("cannot write to descriptor %d", fd);
    }
}

CmmbMPEG4Writer::~CmmbMPEG4Writer() {
    stop();
    // A track still running stops while the whole track list is there to consult; the
    // list then goes with the writer.
    for (const std::unique_ptr<Track>& track : mTracks) {
        track->stop();
    }
}

int CmmbMPEG4Writer::addSource(CmmbMediaSource* source) {
    MutexLock guard(mLock);
    mTracks.emplace_back(new Track(this, source));
    return 0;
}

int CmmbMPEG4Writer::start(_CmmbMetaData* meta) {
    if (!mFile.isOpen()) {
        return ERROR_INVALID;
    }
    mTimeScale = meta->timeScale;
    mUse32BitOffset = meta->use32BitFileOffset;
    if (mUse32BitOffset) {
        if (mMaxFileSizeLimitBytes == 0) {
            mMaxFileSizeLimitBytes = kMaxFileSize32Bit;
        } else if (mMaxFileSizeLimitBytes > kMaxFileSize32Bit) {
            ALOGW("32-bit file size limit (%lld bytes) too big. It is changed to %lld bytes",
                  static_cast<long long>(mMaxFileSizeLimitBytes),
                  static_cast<long long>(kMaxFileSize32Bit));
            mMaxFileSizeLimitBytes = kMaxFileSize32Bit;
        }
    }
    mUseNalLengthFour = meta->useNalLengthFour;

    if (!mStarted) {
        writeFileTypeBox();
        mMdatOffset = mOffset;
        writeMdatHeader();
        // A file that cannot take its first bytes is refused at once.
        if (!mFile.flush() || noteOutputFailure()) {
            noteOutputFailure();
            return ERROR_WRITE_FAILED;
        }
        int result = startTracks();
        if (result != 0) {
            return result;
        }
        mStarted = true;
        return 0;
    }
    if (mPaused) {
        mPaused = false;
        return startTracks();
    }
    return 0;
}

int CmmbMPEG4Writer::startTracks() {
    for (size_t i = 0; i < mTracks.size(); ++i) {
        int result = mTracks[i]->start();
        if (result != 0) {
            stopTracks(i);
            return result;
        }
    }
    return 0;
}

void CmmbMPEG4Writer::stopTracks(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        mTracks[i]->stop();
    }
}

int CmmbMPEG4Writer::pause() {
    if (!mFile.isOpen()) {
        return 0;
    }
    mPaused = true;
    int result = 0;
    for (const std::unique_ptr<Track>& track : mTracks) {
        int trackResult = track->pause();
        if (trackResult != 0) {
            result = trackResult;
        }
    }
    return result;
}

int CmmbMPEG4Writer::writeout(_CmmbOutBuffer* buffer) {
    if (!mFile.isOpen()) {
        return ERROR_INVALID;
    }
    if (mWriteError != 0) {
        return ERROR_WRITE_FAILED;  // no further samples after a failed write
    }
    for (const std::unique_ptr<Track>& track : mTracks) {
        int result = track->CmmbOutWrite(buffer);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

bool CmmbMPEG4Writer::reachedEOS() {
    return std::all_of(mTracks.begin(), mTracks.end(),
                       [](const std::unique_ptr<Track>& track) { return track->reachedEOS(); });
}

int CmmbMPEG4Writer::setMaxFileSize(long long bytes) {
    mMaxFileSizeLimitBytes = bytes;
    return 0;
}

int CmmbMPEG4Writer::setMaxFileDuration(long long duration) {
    mMaxFileDurationLimit = duration;
    return 0;
}

int CmmbMPEG4Writer::setInterleaveDuration(unsigned int ticks) {
    mInterleaveDuration = ticks;
    return 0;
}

bool CmmbMPEG4Writer::exceedsFileSizeLimit() {
    if (mMaxFileSizeLimitBytes == 0) {
        return false;
    }
    int64_t estimated = 0;
    for (const std::unique_ptr<Track>& track : mTracks) {
        estimated += track->getEstimatedTrackSizeBytes();
    }
    return estimated >= mMaxFileSizeLimitBytes * 95 / 100;
}

bool CmmbMPEG4Writer::exceedsFileDurationLimit() {
    // A duration limit is stored for the interface's sake but never enforced: recordings
    // end on the size limit or on request.
    return false;
}

long long CmmbMPEG4Writer::queryMoovLength() {
    int64_t dataBytes = 0;
    int64_t headerBytes = 0;
    for (const std::unique_ptr<Track>& track : mTracks) {
        dataBytes += track->getEstimatedTrackSizeBytes();
        headerBytes += track->getEstimatedTrackHeaderSizeBytes();
    }
    // 0.6 % of the data, grossed up to the full size limit the data may reach.
    int64_t estimate = ((dataBytes * 100) / 95) * 6 / 1000;
    if (estimate < headerBytes) {
        estimate += headerBytes;
        ALOGW("queryMoovLength: warning! estimation goes wrong!add more bytes!");
    }
    return estimate;
}

int CmmbMPEG4Writer::stop() {
    if (!mFile.isOpen()) {
        return ERROR_INVALID;
    }
    // Completion is tried even after a failed sample write: the storage may still take the
    // index of the samples that reached the file.
    mFile.clearError();
    int result = 0;
    int64_t maxDurationTicks = 0;
    for (const std::unique_ptr<Track>& track : mTracks) {
        int trackResult = track->stop();
        if (trackResult != 0 && result == 0) {
            result = trackResult;
        }
        maxDurationTicks = std::max<int64_t>(maxDurationTicks, track->getDurationUs());
    }
    if (result != 0) {
        return closeFile(result);  // no moov; the mdat size still reads "????"
    }

    patchMdatSize();
    beginBox("moov");
    writeMovieHeaderBox(maxDurationTicks);
    for (size_t i = 0; i < mTracks.size(); ++i) {
        int trackResult = mTracks[i]->writeTrackHeader(static_cast<int>(i + 1));
        if (trackResult != 0 && result == 0) {
            result = trackResult;
        }
    }
    if (result != 0) {
        mBoxes.clear();  // the moov is abandoned, its open boxes keep their placeholders
        return closeFile(result);
    }
    endBox();
    TAVO_ASSERT(mBoxes.empty());
    return closeFile(mFile.error() != 0 ? ERROR_WRITE_FAILED : 0);
}

int CmmbMPEG4Writer::closeFile(int result) {
    if (!mFile.close() && result == 0) {
        result = ERROR_WRITE_FAILED;
    }
    noteOutputFailure();
    mStarted = false;
    return result;
}

void CmmbMPEG4Writer::writeFileTypeBox() {
    beginBox("ftyp");
    writeFourcc("3gp4");  // major brand
    writeInt32(0);        // minor version
    writeFourcc("isom");
    writeFourcc("3gp4");
    endBox();
}

void CmmbMPEG4Writer::writeMdatHeader() {
    if (mUse32BitOffset) {
        write("????mdat", 8);
    } else {
        writeInt32(1);  // the size follows as 64 bits
        writeFourcc("mdat");
        write("????????", 8);
    }
}

void CmmbMPEG4Writer::patchMdatSize() {
    uint64_t size = static_cast<uint32_t>(mOffset - mMdatOffset);
    if (mUse32BitOffset) {
        uint8_t bytes[4] = {static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                            static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
        patchAt(mMdatOffset, bytes, sizeof(bytes));
    } else {
        unsigned long long bigEndian = cmmb_hton64(size);
        patchAt(mMdatOffset + 8, &bigEndian, sizeof(bigEndian));
    }
}

void CmmbMPEG4Writer::writeMovieHeaderBox(int64_t durationTicks) {
    uint32_t now = static_cast<uint32_t>(time(nullptr));  // seconds since 1970
    beginBox("mvhd");
    writeInt32(0);  // version and flags
    writeInt32(static_cast<int>(now));
    writeInt32(static_cast<int>(now));
    writeInt32(mTimeScale);
    writeInt32(ticksToHeaderDuration(durationTicks, mTimeScale));
    writeInt32(0x00010000);  // rate 1.0
    writeInt16(0x0100);      // volume 1.0
    writeInt16(0);
    writeInt32(0);
    writeInt32(0);
    writeCompositionMatrix(0);
    for (int i = 0; i < 6; ++i) {
        writeInt32(0);  // pre-defined
    }
    writeInt32(static_cast<int>(mTracks.size() + 1));  // next track id
    endBox();
}
