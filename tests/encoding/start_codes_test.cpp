#include "encoding/start_codes.h"

#include <random>

#include <gtest/gtest.h>

namespace gsve::encoding {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(const Section& section) { return {section.bytes.begin(), section.bytes.end()}; }

TEST(StartCodes, DivideAUnitWithoutAGap) {
    const Bytes unit = {9, 0, 0, 1, 0xB3, 7, 0, 0, 0, 1, 0xB8, 0, 0, 1, 0x00, 2};
    const std::vector<Section> found = sections(unit);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(bytes_of(found[0]), (Bytes{0xB3, 7, 0})) << "a zero at the end may be data";
    EXPECT_EQ(bytes_of(found[1]), (Bytes{0xB8}));
    EXPECT_EQ(bytes_of(found[2]), (Bytes{0x00, 2}));
    EXPECT_EQ(found[0].begin, 1u);
    for (size_t n = 1; n < found.size(); n++) EXPECT_EQ(found[n].begin, found[n - 1].end);
    EXPECT_EQ(found[2].end, unit.size());
}

// A NAL unit ends with a one and zeros up to a byte, so that a zero byte behind it is the start code's.
TEST(StartCodes, OfNalUnitsHaveTheZeroByteInFront) {
    const Bytes unit = {0, 0, 0, 1, 0x67, 7, 0, 0, 0, 1, 0x68, 8, 0, 0, 1, 0x65, 2, 0, 0};
    const std::vector<Section> found = nal_units(unit);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(bytes_of(found[0]), (Bytes{0x67, 7}));
    EXPECT_EQ(bytes_of(found[1]), (Bytes{0x68, 8}));
    EXPECT_EQ(bytes_of(found[2]), (Bytes{0x65, 2}));
    EXPECT_EQ(found[0].begin, 0u);
    EXPECT_EQ(found[0].end, 6u);
    EXPECT_EQ(found[1].begin, 6u);
    EXPECT_EQ(found[1].end, 12u);
    EXPECT_EQ(found[2].begin, 12u);
    EXPECT_EQ(found[2].end, unit.size());
}

TEST(StartCodes, AreNotFoundInOtherBytes) {
    EXPECT_TRUE(sections({}).empty());
    EXPECT_TRUE(sections(Bytes{0, 0, 2, 0, 0}).empty());
    EXPECT_TRUE(sections(Bytes{5, 0, 0, 1}).empty()) << "a prefix with nothing behind it";
}

TEST(StartCodes, NeverStandInANalUnit) {
    const Bytes header = {6};
    EXPECT_EQ(make_nal(header, Bytes{0, 0, 0, 0, 0, 3, 0, 0, 4, 0, 0, 2}),
              (Bytes{0, 0, 0, 1, 6, 0, 0, 3, 0, 0, 3, 0, 3, 0, 0, 4, 0, 0, 3, 2}));
}

TEST(StartCodes, LeavePayloadsOfAnyContentAsTheyWere) {
    std::mt19937 random(1);
    for (int run = 0; run < 500; run++) {
        Bytes rbsp(random() % 60);
        for (uint8_t& byte : rbsp) byte = static_cast<uint8_t>(random() % 5);
        rbsp.push_back(0x80);
        const Bytes header = {0x4E, 1};
        const Bytes nal = make_nal(header, rbsp);
        const std::vector<Section> found = sections(nal);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(rbsp_of(found[0].bytes, header.size()), rbsp);
    }
}

}  // namespace
}  // namespace gsve::encoding
