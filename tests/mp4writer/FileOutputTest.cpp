// The writer's output file, in process: buffering, patches of earlier bytes, and what a failed
// flush or patch leaves behind. Faults come from an Env handed to the output.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "FaultInjectingEnv.h"
#include "FileOutput.h"
#include "MediaFiles.h"
#include "WriterHarness.h"

namespace {

// A scratch file and a FileOutput on it, writing through a fault-injecting Env.
class FileOutputTest : public testing::Test {
protected:
    void SetUp() override {
        mPath = "/tmp/file-output-XXXXXX";
        const int fd = mkstemp(&mPath[0]);
        ASSERT_GE(fd, 0);
        mOutput.reset(new FileOutput(UniqueFd(fd), &mEnv));
    }
    void TearDown() override {
        mOutput.reset();
        unlink(mPath.c_str());
    }
    Bytes fileBytes() const { return readMediaFile(mPath); }

    FaultInjectingEnv mEnv;
    std::string mPath;
    std::unique_ptr<FileOutput> mOutput;
};

TEST_F(FileOutputTest, BuffersSmallWritesPatchesBothSidesOfTheBufferAndKeepsLaterWritesInOrder) {
    const Bytes head = patternBytes(100, 0), tail = patternBytes(50, 100),
                chunk = patternBytes(1000, 7), large = patternBytes(70 * 1024, 3);
    EXPECT_EQ(head.size(), mOutput->write(head.data(), head.size()));
    EXPECT_EQ(100, mOutput->position());
    EXPECT_EQ(0, mEnv.calls(FaultInjectingEnv::WRITE)) << "a small write went to the file";
    ASSERT_TRUE(mOutput->flush());
    EXPECT_EQ(head, fileBytes());
    EXPECT_EQ(tail.size(), mOutput->write(tail.data(), tail.size()));

    // 10 bytes already in the file, 10 still buffered.
    const Bytes patch(20, 0xEE);
    ASSERT_TRUE(mOutput->patch(90, patch.data(), patch.size()));
    EXPECT_FALSE(mOutput->patch(145, patch.data(), patch.size())) << "patched past the end";
    EXPECT_EQ(150, mOutput->position());

    ASSERT_TRUE(mOutput->writeThrough(chunk.data(), chunk.size()));
    EXPECT_EQ(150 + chunk.size(), fileBytes().size()) << "the chunk waited in the buffer";
    EXPECT_EQ(large.size(), mOutput->write(large.data(), large.size()));
    ASSERT_TRUE(mOutput->close());
    EXPECT_FALSE(mOutput->isOpen());

    Bytes expected = head;
    for (const Bytes* part : {&tail, &chunk, &large})
        expected.insert(expected.end(), part->begin(), part->end());
    std::fill(expected.begin() + 90, expected.begin() + 110, 0xEE);
    EXPECT_EQ(expected, fileBytes());
}

TEST_F(FileOutputTest, AFailedFlushDropsTheBufferedBytesAndCloseReportsIt) {
    const Bytes bytes = patternBytes(64, 0);
    mOutput->write(bytes.data(), bytes.size());
    mEnv.failNth(FaultInjectingEnv::WRITE, 1, EIO);
    EXPECT_FALSE(mOutput->close());
    EXPECT_EQ(EIO, mOutput->error());
    EXPECT_EQ(0, mOutput->position());
    EXPECT_FALSE(mOutput->isOpen());
    EXPECT_TRUE(fileBytes().empty());
}

TEST_F(FileOutputTest, AFailedPatchOfFileBytesIsLatched) {
    const Bytes bytes = patternBytes(40, 0);
    ASSERT_TRUE(mOutput->writeThrough(bytes.data(), bytes.size()));
    mEnv.failNth(FaultInjectingEnv::WRITE, 1, EROFS);  // pwrite counts as a write
    EXPECT_FALSE(mOutput->patch(4, bytes.data(), 4));
    EXPECT_EQ(EROFS, mOutput->error());
    EXPECT_EQ(bytes, fileBytes());
}

}  // namespace
