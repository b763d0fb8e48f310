// A play engine that rewrites any byte of both shared buffers at any moment and tries to resize
// the regions: the engine never reads or writes outside a region or a copy, nor dies.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "CmmbFrameCopy.h"
#include "EngineDataPath.h"
#include "MBBMSRecManager.h"
#include "RecordingRig.h"
#include "UniqueHandle.h"

namespace {

// The recording copy of a buffer with counts and records out of range: counts are clamped, a
// record outside the payload or past what the copy can hold is copied as empty, the rest
// exactly. Region and copy are heap blocks of their exact size, so ASan catches a stray access.
TEST(HostileReader, RecordingCopyTakesOnlyWhatFits) {
    std::unique_ptr<CmmbSharedBuffer> region(new CmmbSharedBuffer());
    for (size_t i = 0; i < sizeof(region->data); ++i)
        region->data[i] = static_cast<unsigned char>(i * 13 + 5);
    region->nalCount = 0xFFFFFFFFu;
    region->aacCount = 1000;
    region->dataLength = 0x7FFFFFFFu;
    const CmmbNalRecord nal[] = {
        {1, 2, 100, 0, 3},           // copied
        {3, 4, 0xFFFFFFFFu, 0, 3},   // huge length
        {5, 6, 16, 0xFFFFFFF8u, 3},  // offset + length wraps around
        {7, 8, 10, 65530, 3},        // runs past the payload area
        {9, 10, 65536, 0, 3},        // the whole area: more than the copy has left
        {11, 12, 65434, 100, 2},     // exactly what is left up to 65,534 bytes
        {13, 14, 1, 0, 3},           // nothing left
    };
    memcpy(region->nal, nal, sizeof(nal));
    region->aac[0] = CmmbAacRecord{20, 21, 7, 0};  // nothing left
    region->aac[255] = CmmbAacRecord{22, 23, 0xFFFFFFFFu, 0xFFFFFFFFu};

    std::vector<unsigned char> copy(CMMB_FRAME_COPY_MAX_SIZE);
    EXPECT_EQ(0, MBBMSRecManager::getInstance()->read_to_new_sharedbuf(
                     copy.data(), reinterpret_cast<unsigned char*>(region.get())));

    const CmmbFrameCopyCounts counts = cmmbFrameCopyReadCounts(copy.data());
    EXPECT_EQ(256u, counts.nalCount);
    EXPECT_EQ(256u, counts.aacCount);
    ASSERT_EQ(65534u, counts.dataLength);
    const uint32_t lengths[] = {100, 0, 0, 0, 0, 65434, 0};
    for (uint32_t i = 0; i < 7; ++i) {
        const CmmbFrameCopyNalEntry entry = cmmbFrameCopyReadNal(copy.data(), i);
        EXPECT_EQ(std::make_tuple(lengths[i], nal[i].tsBase, nal[i].tsRelative, nal[i].pos),
                  std::make_tuple(entry.length, entry.tsBase, entry.tsRelative, entry.pos))
            << "NAL entry " << i;
    }
    EXPECT_EQ(0u, cmmbFrameCopyReadAac(copy.data(), 256, 0).length);
    EXPECT_EQ(0u, cmmbFrameCopyReadAac(copy.data(), 256, 255).length);
    const unsigned char* payload = copy.data() + cmmbFrameCopyPayloadOffset(256, 256);
    EXPECT_EQ(0, memcmp(region->data, payload, 65534)) << "entries 0 and 5 back to back";
}

// What the hostile process did, in a page shared with it.
struct HostileReport {
    int connected, go, stop;
    unsigned long rounds;
    unsigned long locked;   // rounds done while holding a buffer lock
    unsigned long resized;  // ftruncate calls that succeeded
};

using Rng = std::mt19937;

// Values at and around every bound the engine knows, or anything.
uint32_t hostileValue(Rng& rng) {
    static const uint32_t kBounds[] = {0,          1,          2,          3,         255,   256,
                                       257,        65527,      65534,      65535,     65536, 74772,
                                       0x7FFFFFFF, 0x80000000, 0xFFFFFFF9, 0xFFFFFFFF};
    return (rng() & 1) != 0 ? kBounds[rng() % 16] : static_cast<uint32_t>(rng());
}

// Rewrites one field or byte of a buffer; the two semaphores (bytes 0 to 7) are left alone.
void rewriteOne(CmmbSharedBuffer* b, Rng& rng) {
    CmmbNalRecord& nal = b->nal[rng() % CMMB_NAL_RECORD_SLOTS];
    CmmbAacRecord& aac = b->aac[rng() % CMMB_AAC_RECORD_SLOTS];
    uint32_t* const fields[] = {&b->nalCount,    &b->aacCount,    &b->dataLength, &nal.tsBase,
                                &nal.tsRelative, &nal.length,     &nal.offset,    &nal.pos,
                                &aac.tsBase,     &aac.tsRelative, &aac.length,    &aac.offset};
    const uint32_t pick = rng() % 16;
    if (pick < 12) {
        *fields[pick] = hostileValue(rng);
    } else {
        const uint32_t at = 8 + rng() % (CMMB_SHARED_BUFFER_SIZE - 8);
        reinterpret_cast<unsigned char*>(b)[at] = static_cast<unsigned char>(rng());
    }
}

// Rewrites both buffers at random until told to stop, now and then holding a buffer lock the
// way a reader takes it, and tries to resize the regions.
[[noreturn]] void runHostileReader(const std::string& server, const std::string& own,
                                   HostileReport* report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a test that failed
    PlayEngineReader reader;
    if (!reader.connect(server, own).empty())
        _exit(2);
    const std::vector<int> fds = regionDescriptors();
    Rng rng(0x9E3779B9u);
    __atomic_store_n(&report->connected, 1, __ATOMIC_RELEASE);
    while (!__atomic_load_n(&report->go, __ATOMIC_ACQUIRE))
        usleep(1000);
    while (!__atomic_load_n(&report->stop, __ATOMIC_ACQUIRE)) {
        for (int i = 0; i < 64; ++i)
            rewriteOne(reader.buffer(rng() % 2), rng);
        if (report->rounds % 16 == 0) {
            CmmbSharedBuffer* b = reader.buffer(rng() % 2);
            cmmb_sem_trywait(&b->mutexDataAvailable);
            if (cmmb_sem_timedwait(&b->mutexDataAccessable, 5) == 0) {
                for (int i = 0; i < 16; ++i)
                    rewriteOne(b, rng);
                if ((rng() & 1) != 0) {
                    b->nalCount = 0;
                    b->aacCount = 0;
                }
                cmmb_sem_post(&b->mutexDataAccessable);
                __atomic_add_fetch(&report->locked, 1, __ATOMIC_RELAXED);
            }
        }
        if (report->rounds % 256 == 0) {
            for (int fd : fds) {
                const off_t size = (rng() & 1) != 0 ? 4096 : off_t(1) << 20;
                if (ftruncate(fd, size) == 0)
                    __atomic_add_fetch(&report->resized, 1, __ATOMIC_RELAXED);
            }
        }
        __atomic_add_fetch(&report->rounds, 1, __ATOMIC_RELAXED);
    }
    _exit(0);
}

// A small frame of known content: three NAL units (the last in fragments) and two AAC frames.
MultiplexFrame knownFrame() {
    MultiplexFrame frame;
    const size_t sizes[] = {30, 700, 2600};
    for (size_t i = 0; i < 3; ++i) {
        MediaBytes unit = {0, 0, 0, 1};
        for (size_t k = 0; k < sizes[i]; ++k)
            unit.push_back(static_cast<uint8_t>(i * 31 + k * 7 + 1));
        frame.video.push_back({90000, static_cast<uint32_t>(900 * i), unit});
    }
    for (size_t i = 0; i < 2; ++i)
        frame.audio.push_back({90000, static_cast<uint32_t>(960 * i), MediaBytes(200 + i, 9)});
    return frame;
}

// A hostile play engine rewrites both buffers and tries to resize them while two sessions on one
// channel take real H.264 and AAC and session 0 records it. The engine neither crashes nor
// (under ASan and UBSan) strays out of bounds; the recording is a file ffprobe reads; once the
// hostile reader has gone, the next frame reaches a new play engine exactly as delivered.
TEST(HostileReader, RewritingBothBuffersWhileTwoSessionsIngestAndOneRecords) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR");
        rig.startService(true);
        void* page = mmap(nullptr, sizeof(HostileReport), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, page);
        UniqueMapping pageMapping(Mapping{page, sizeof(HostileReport)});
        HostileReport* report = new (page) HostileReport();
        const pid_t hostile = fork();
        if (hostile == 0)
            runHostileReader(rig.root().resolve("/data/app/cmmb.socket"),
                             rig.root().path() + "/hostile.socket", report);
        ASSERT_GT(hostile, 0);
        while (__atomic_load_n(&report->connected, __ATOMIC_ACQUIRE) == 0)
            usleep(1000);

        // The recording takes its parameter sets and time base from clean frames: scribbled
        // ones would be recorded as they stand and say nothing about the engine's safety.
        ASSERT_EQ(0, rig.startRecording("hostile.mp4"));
        ClipFeed feed;
        rig.playSeconds(feed, 2);
        __atomic_store_n(&report->go, 1, __ATOMIC_RELEASE);
        while (__atomic_load_n(&report->rounds, __ATOMIC_RELAXED) == 0)
            usleep(1000);
        rig.playSeconds(feed, 60);
        __atomic_store_n(&report->stop, 1, __ATOMIC_RELEASE);
        int status = -1;
        ASSERT_EQ(hostile, waitpid(hostile, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        EXPECT_EQ(0ul, report->resized);
        EXPECT_GT(report->locked, 0ul);
        rig.playSeconds(feed, 2);
        ASSERT_EQ(0, rig.engine().stopRecording(0));

        const std::string path = rig.outputPath("hostile.mp4");
        std::string streams;
        EXPECT_EQ(0, runCommand("ffprobe -v quiet -show_entries stream=codec_type -of csv=p=0 '" +
                                    path + "'",
                                &streams));
        EXPECT_NE(std::string::npos, streams.find("video")) << streams;
        EXPECT_NE(std::string::npos, streams.find("audio")) << streams;
        const std::vector<std::string> boxes = topLevelBoxes(path);
        EXPECT_NE(boxes.end(), std::find(boxes.begin(), boxes.end(), "moov"));
        EXPECT_EQ(boxes.end(), std::find(boxes.begin(), boxes.end(), "truncated"));

        // The engine's regions are sealed at their size, the seals sealed too.
        const std::vector<int> fds = regionDescriptors();
        ASSERT_EQ(2u, fds.size());
        for (int fd : fds) {
            const int sealable = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL | F_SEAL_WRITE;
            EXPECT_EQ(F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL, fcntl(fd, F_GET_SEALS) & sealable);
            EXPECT_EQ(-1, fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE)) << "the seals are not sealed";
            for (off_t size : {off_t(0), off_t(74771)}) {
                errno = 0;
                EXPECT_EQ(-1, ftruncate(fd, size)) << "to " << size;
                EXPECT_EQ(EPERM, errno) << "to " << size;
            }
        }
        // NAL units without their start code, AAC frames behind a 7-byte header.
        PlayEngineReader next;
        ASSERT_EQ("", next.connect(rig.root().resolve("/data/app/cmmb.socket"),
                                   rig.root().path() + "/next.socket"));
        const MultiplexFrame frame = knownFrame();
        rig.play(frame);
        for (int session : {0, 1}) {
            SCOPED_TRACE("session " + std::to_string(session));
            ReadFrame read;
            ASSERT_TRUE(next.readFrame(session, &read, 5000));
            ASSERT_EQ(frame.video.size(), read.nals.size());
            for (size_t i = 0; i < frame.video.size(); ++i)
                EXPECT_EQ(MediaBytes(frame.video[i].bytes.begin() + 4, frame.video[i].bytes.end()),
                          read.nals[i])
                    << "NAL " << i;
            ASSERT_EQ(frame.audio.size(), read.aacs.size());
            for (size_t i = 0; i < frame.audio.size(); ++i)
                EXPECT_EQ(frame.audio[i].bytes,
                          MediaBytes(read.aacs[i].begin() + 7, read.aacs[i].end()))
                    << "AAC " << i;
        }
    });
}

}  // namespace
