// The account that the program keeps of its pictures.

#include <vector>

#include <gtest/gtest.h>

#include "programme/tally.h"

namespace {

using gsve::Failure;
using gsve::encoding::PictureFate;
using gsve::programme::check_complete;
using gsve::programme::Tally;

Tally offered(const std::vector<PictureFate>& fates) {
    Tally tally(gsve::captions::kRate25);
    for (const PictureFate fate : fates) tally.picture(fate);
    return tally;
}

TEST(Tally, IsCompleteWhenEveryPictureCameOutOrWasLeftOut) {
    Tally tally = offered({PictureFate::kEncoded, PictureFate::kSkipped, PictureFate::kDropped});
    tally.unit({});
    EXPECT_EQ(tally.lost(), 0);
    EXPECT_NO_THROW(check_complete(tally));
}

TEST(Tally, FindsTheBusiestSecond) {
    Tally tally = offered(std::vector(100, PictureFate::kEncoded));
    for (int64_t n = 0; n < 100; n++) {
        const std::vector<uint8_t> bytes(n >= 30 && n < 55 ? 300 : 100);
        tally.unit({.bytes = bytes, .pts = n, .dts = n, .key = false, .type = 'P', .ancillary = false});
    }
    EXPECT_DOUBLE_EQ(tally.peak_bit_rate(), 8 * 25 * 300);
    EXPECT_DOUBLE_EQ(tally.mean_bit_rate(), 8 * (25 * 300 + 75 * 100) / 4.0);
}

TEST(Tally, FailsWhenTheCodecKeptPictures) {
    Tally tally =
        offered({PictureFate::kEncoded, PictureFate::kEncoded, PictureFate::kEncoded, PictureFate::kDropped});
    tally.unit({});
    EXPECT_EQ(tally.lost(), 2);
    try {
        check_complete(tally);
        FAIL() << "two pictures are missing";
    } catch (const Failure& failure) {
        EXPECT_TRUE(std::string(failure.what()).starts_with("2 pictures went into the codec"));
    }
}

}  // namespace
