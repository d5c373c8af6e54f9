// The account that the program keeps of its pictures.

#include <gtest/gtest.h>

#include "cli/tally.h"

namespace {

using gsve::cli::check_complete;
using gsve::cli::Failure;
using gsve::cli::Outcome;
using gsve::cli::Tally;

Tally offered(std::initializer_list<Outcome> outcomes) {
    Tally tally({25, 1});
    for (const Outcome outcome : outcomes) tally.picture(outcome);
    return tally;
}

TEST(Tally, IsCompleteWhenEveryPictureCameOutOrWasLeftOut) {
    Tally tally = offered({Outcome::kEncoded, Outcome::kSkipped, Outcome::kDropped});
    tally.unit({}, 'I');
    EXPECT_EQ(tally.lost(), 0);
    EXPECT_NO_THROW(check_complete(tally));
}

TEST(Tally, FailsWhenTheCodecKeptPictures) {
    Tally tally = offered({Outcome::kEncoded, Outcome::kEncoded, Outcome::kEncoded, Outcome::kDropped});
    tally.unit({}, 'I');
    EXPECT_EQ(tally.lost(), 2);
    try {
        check_complete(tally);
        FAIL() << "two pictures are missing";
    } catch (const Failure& failure) {
        EXPECT_TRUE(std::string(failure.what()).starts_with("2 pictures went into the codec"));
    }
}

}  // namespace
