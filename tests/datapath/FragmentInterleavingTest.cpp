// AAC frames delivered between the fragments of a NAL unit (found by fuzzing the tuner
// data): the unit stays contiguous and neither item overlaps the other, also when the open
// unit is overwritten by the next one.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

const int kChannel = 40;
const size_t kAdtsHeader = 7;

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes withoutStartCode(const Bytes& unit) {
    return Bytes(unit.begin() + 4, unit.end());
}

TEST(FragmentInterleaving, AudioBetweenFragmentsKeepsBothItemsWhole) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, kChannel));
        const Bytes first = nalUnit(4, 0x65, 20), middle = pattern(10, 100), last = pattern(5, 200);
        const Bytes audio = pattern(30, 50);

        bench.frameStart(kChannel);
        bench.nal(kChannel, first, MBBMSAgent::NAL_FRAGMENT_START);
        bench.aac(kChannel, audio);
        bench.nal(kChannel, middle, MBBMSAgent::NAL_FRAGMENT_MIDDLE);
        bench.nal(kChannel, last, MBBMSAgent::NAL_FRAGMENT_END);
        // Overwritten while an AAC frame lies behind it: the frame is kept.
        bench.nal(kChannel, nalUnit(4, 0x41, 20), MBBMSAgent::NAL_FRAGMENT_START);
        bench.aac(kChannel, audio);
        const Bytes next = nalUnit(4, 0x65, 60);
        bench.nal(kChannel, next, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        bench.frameEnd(kChannel);

        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        ASSERT_EQ(2u, frame.nals.size());
        EXPECT_EQ(concat(concat(withoutStartCode(first), middle), last), frame.nals[0]);
        EXPECT_EQ(withoutStartCode(next), frame.nals[1]);
        ASSERT_EQ(2u, frame.aacs.size());
        for (const Bytes& aac : frame.aacs) {
            ASSERT_EQ(kAdtsHeader + audio.size(), aac.size());
            EXPECT_EQ(audio, Bytes(aac.begin() + kAdtsHeader, aac.end()));
        }
    });
}

}  // namespace
