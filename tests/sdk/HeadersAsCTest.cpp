// The SDK's headers compiled as C agree with the C++ view of every size and offset, and
// the semaphore functions link from C.
#include <gtest/gtest.h>

#include "HeadersAsC.h"
#include "TavoPlayEngine.h"

TEST(SdkHeadersAsC, LayoutAgreesWithCxx) {
    const size_t expected[] = SDK_LAYOUT_ENTRIES;
    const size_t count = sizeof(expected) / sizeof(expected[0]);
    size_t fromC[count + 1];
    ASSERT_EQ(count, sdk_c_layout(fromC, count + 1));
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(expected[i], fromC[i]) << "entry " << i;
    EXPECT_EQ(0, sdk_c_semaphore_round_trip());
}
