// The play-engine SDK against the real engine (fake agent, real socket, real shared memory),
// with the SDK's reader in a process of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "TavoPlayEngine.h"

namespace {

const Pos COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;
const std::chrono::milliseconds kChildBound(20000);

// Connects, retrying while the engine's command thread sets up its socket.
int connectSoon(tavo_pe* pe) {
    int status = TAVO_PE_REFUSED;
    for (int attempt = 0; attempt < 500 && status == TAVO_PE_REFUSED; ++attempt) {
        status = tavo_pe_connect(pe, 10000);
        if (status == TAVO_PE_REFUSED)
            usleep(10000);
    }
    return status;
}

// The inode of the file mapped at `address` (a forked reader also has the engine's own
// mappings of the regions, so they are told apart by address), or "" when none is.
std::string inodeMappedAt(const void* address) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::string range, mode, offset, device, inode;
        fields >> range >> mode >> offset >> device >> inode;
        if (strtoull(range.c_str(), nullptr, 16) == reinterpret_cast<uintptr_t>(address))
            return inode;
    }
    return "";
}

std::string regionInode(tavo_pe* pe, int session) {
    return inodeMappedAt(tavo_pe_region(pe, session));
}

// Records and timestamps of a frame arrive as played (the payloads are compared by every data
// path test, which reads through the SDK); releasing it lets the next frame through without
// loss, and the engine hears both descriptors acknowledged. Then another process scribbles over
// the counts and records: the reader sees clamped counts, a count of bad records and only items
// inside the payload, never a crash; the counts it read stay as read while the scribbler goes on.
TEST(SdkWithEngine, FramesArriveWithTheirRecordsAndACorruptRegionIsReportedNotFollowed) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40, "all", false);
        const Bytes first = nalUnit(4, 0x67, 20, 1), second = nalUnit(3, 0x65, 300, 2);
        const Bytes audio = pattern(120, 9);
        bench.frameStart(40);
        bench.nal(40, first, COMPLETE, 1000, 5);
        bench.nal(40, second, COMPLETE, 1001, 6);
        bench.aac(40, audio, 2000);
        bench.frameEnd(40);
        EXPECT_EQ(
            "", runInChild([&] {
                PlayEngineReader reader;
                ASSERT_EQ("",
                          reader.connect(bench.serverPath(), bench.root().path() + "/sdk.socket"));
                tavo_pe* const client = reader.sdk();
                CmmbSharedBuffer* region = tavo_pe_region(client, 0);
                ASSERT_NE(nullptr, region);
                tavo_pe_frame frame;
                tavo_pe_item item;
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_wait_frame(client, 0, 20000, &frame));
                ASSERT_EQ(2u, frame.nal_count);
                ASSERT_EQ(1u, frame.aac_count);
                EXPECT_EQ(0u, tavo_pe_frame_bad_records(&frame));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_frame_nal(&frame, 0, &item));
                EXPECT_EQ(1000u, item.ts_base);
                EXPECT_EQ(5u, item.ts_relative);
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_frame_nal(&frame, 1, &item));
                EXPECT_EQ(1001u, item.ts_base);
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_frame_aac(&frame, 0, &item));
                EXPECT_EQ(audio.size() + CMMB_ADTS_HEADER_SIZE, item.length);
                EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_frame_nal(&frame, 2, &item));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_release_frame(client, &frame));
                EXPECT_EQ(0u, region->nalCount + region->aacCount);
                EXPECT_EQ(1, valueOf(&region->mutexDataAccessable));
                // Nothing more was played: the next wait ends by its time-out, holding nothing.
                EXPECT_EQ(TAVO_PE_TIMEOUT, tavo_pe_wait_frame(client, 0, 50, &frame));
                EXPECT_EQ(1, valueOf(&region->mutexDataAccessable));

                // The scribbler shares the mapping, as any process holding the descriptor would.
                EXPECT_EQ(
                    "", runInChild([&] {
                        ASSERT_EQ(0, cmmb_sem_wait(&region->mutexDataAccessable));
                        memset(region->nal, 0xFF, sizeof(region->nal));
                        memset(region->aac, 0, sizeof(region->aac));
                        region->nal[0] = {7, 8, 10, 0, 3};  // inside: the one good record
                        region->nal[1] = {0, 0, 0x20, 0xFFFFFFF0u, 3};  // wraps around 32 bits
                        region->nal[2] = {0, 0, 10, 65530, 3};          // past the payload's end
                        region->aac[0] = {0, 0, 5, 0};                  // shorter than its header
                        region->nalCount = 0xFFFFFFFFu;
                        region->aacCount = 1000;
                        region->dataLength = 0xFFFFFFFFu;
                        cmmb_sem_post(&region->mutexDataAccessable);
                        cmmb_sem_post(&region->mutexDataAvailable);
                    }));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_wait_frame(client, 0, 20000, &frame));
                EXPECT_EQ(CMMB_NAL_RECORD_SLOTS, frame.nal_count);
                EXPECT_EQ(CMMB_AAC_RECORD_SLOTS, frame.aac_count);
                EXPECT_EQ(CMMB_PAYLOAD_SIZE, frame.data_length);
                region->nalCount = 3;  // changed under the lock: the frame keeps what it read
                EXPECT_EQ(CMMB_NAL_RECORD_SLOTS + CMMB_AAC_RECORD_SLOTS - 1,
                          tavo_pe_frame_bad_records(&frame));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_frame_nal(&frame, 0, &item));
                EXPECT_EQ(region->data, item.bytes);
                EXPECT_EQ(7u, item.ts_base);
                for (uint32_t i = 1; i < frame.nal_count; ++i) {
                    EXPECT_EQ(TAVO_PE_BAD_RECORD, tavo_pe_frame_nal(&frame, i, &item)) << i;
                    EXPECT_EQ(nullptr, item.bytes);
                }
                EXPECT_EQ(TAVO_PE_BAD_RECORD, tavo_pe_frame_aac(&frame, 0, &item));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_release_frame(client, &frame));
                EXPECT_EQ(0u, region->nalCount + region->aacCount);
                // A wrong session and a released frame are refused, not followed.
                EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_wait_frame(client, 2, 10, &frame));
                EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_release_frame(client, &frame));
                EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_frame_nal(&frame, 0, &item));
            }));
        EXPECT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD", 2));
        bench.playFrame(40, 1, 0);
        EXPECT_EQ(0, bench.root().countLog("A/V DATA LOST"));
    });
}

// A reader that connects again while it still holds a frame's lock gets a fresh region for
// that session (the engine replaces a buffer a departed reader kept locked) and the same one
// for the other, and reads the next frame from the fresh one. The private default path is
// bound, so the engine never refuses the SDK.
TEST(SdkWithEngine, ReconnectMapsTheDescriptorsHandedOutThen) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40, "all", false);
        bench.playFrame(40, 1, 0);
        std::string reader;
        AsyncCall readerRun([&] {
            reader = runInChild([&] {
                std::unique_ptr<tavo_pe, decltype(&tavo_pe_destroy)> client(
                    tavo_pe_create(bench.serverPath().c_str(), nullptr), tavo_pe_destroy);
                ASSERT_NE(nullptr, client.get());
                ASSERT_EQ(TAVO_PE_OK, connectSoon(client.get()));
                const std::string before[] = {regionInode(client.get(), 0),
                                              regionInode(client.get(), 1)};
                EXPECT_NE("", before[0]);
                tavo_pe_frame frame;
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_wait_frame(client.get(), 0, 20000, &frame));
                ASSERT_EQ(TAVO_PE_OK, connectSoon(client.get()));  // the lock kept
                EXPECT_NE(before[0], regionInode(client.get(), 0)) << "session 0 not replaced";
                EXPECT_EQ(before[1], regionInode(client.get(), 1));
                EXPECT_EQ(1, valueOf(&tavo_pe_region(client.get(), 0)->mutexDataAccessable));
                ASSERT_EQ(TAVO_PE_OK,
                          tavo_pe_send_indication(client.get(), REQUEST_SHAREDBUFFER_FD));
                ASSERT_EQ(TAVO_PE_OK, tavo_pe_wait_frame(client.get(), 0, 20000, &frame));
                EXPECT_EQ(2u, frame.nal_count);
                EXPECT_EQ(1u, frame.aac_count);
                EXPECT_EQ(0u, tavo_pe_frame_bad_records(&frame));
                EXPECT_EQ(TAVO_PE_OK, tavo_pe_release_frame(client.get(), &frame));
            });
        });
        // The reader's note that it is connected again: an indication the engine only logs.
        ASSERT_TRUE(bench.root().waitForLog("REQUEST_SHAREDBUFFER_FD"));
        bench.playFrame(40, 2, 1);
        EXPECT_TRUE(readerRun.endsWithin(kChildBound));
        EXPECT_EQ("", reader);
        EXPECT_EQ(0, bench.root().countLog("socket file not exist!"));
    });
}

}  // namespace
