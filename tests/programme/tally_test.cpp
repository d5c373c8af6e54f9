// The account that the program keeps of its pictures.

#include <gtest/gtest.h>

#include "programme/tally.h"

namespace {

using gsve::Failure;
using gsve::encoding::PictureFate;
using gsve::programme::check_complete;
using gsve::programme::Tally;

Tally offered(std::initializer_list<PictureFate> fates) {
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
