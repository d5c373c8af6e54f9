// Decoding times that the program makes from the order of pictures and units.

#include <gtest/gtest.h>

#include "encoding/unit_times.h"

namespace {

using gsve::encoding::UnitTimes;

TEST(UnitTimes, AreDisplayTimesWithoutReordering) {
    UnitTimes times(0, 1);
    for (int64_t n = 0; n < 5; n++) {
        times.offered(n);
        EXPECT_EQ(times.next_decode_time(), n);
    }
}

TEST(UnitTimes, StartBeforeTheFirstPictureByTheReorderDepth) {
    UnitTimes times(2, 1);
    for (int64_t n = 0; n < 6; n++) times.offered(n);
    for (int64_t expected : {-2, -1, 0, 1, 2, 3}) EXPECT_EQ(times.next_decode_time(), expected);
}

TEST(UnitTimes, StepByTheDividerBeforeTheFirstPicture) {
    UnitTimes times(2, 3);
    for (int64_t n = 0; n < 12; n += 3) times.offered(n);
    for (int64_t expected : {-6, -3, 0, 3}) EXPECT_EQ(times.next_decode_time(), expected);
}

TEST(UnitTimes, PassOverPicturesThatHaveNoUnit) {
    UnitTimes times(1, 1);
    for (int64_t n : {10, 11, 12, 13}) {
        times.offered(n);
        if (n == 11) times.withdrawn();
    }
    for (int64_t expected : {9, 10, 12}) EXPECT_EQ(times.next_decode_time(), expected);
}

}  // namespace
