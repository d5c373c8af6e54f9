#include "captions/bits.h"

#include <climits>
#include <random>

#include <gtest/gtest.h>

namespace gsve::captions {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::string written(unsigned value) {
    BitWriter writer;
    writer.put_unsigned_golomb(value);
    const std::size_t length = writer.position();
    const Bytes bytes = writer.take();
    BitReader reader(bytes);
    std::string text;
    for (std::size_t n = 0; n < length; n++) text += reader.flag() ? '1' : '0';
    return text;
}

TEST(Bits, WriteTheStandardsExamplesOfUnsignedGolombCodes) {
    const char* const expected[] = {"1",     "010",   "011",     "00100",   "00101",
                                    "00110", "00111", "0001000", "0001001", "0001010"};
    for (unsigned value = 0; value < std::size(expected); value++) EXPECT_EQ(written(value), expected[value]);
    EXPECT_EQ(written(0xFFFFFFFE), std::string(31, '0') + std::string(32, '1'));
}

TEST(Bits, MapSignedGolombCodesAlternately) {
    const int expected[] = {0, 1, -1, 2, -2, 3};
    for (unsigned code = 0; code < std::size(expected); code++) {
        BitWriter writer;
        writer.put_unsigned_golomb(code);
        const Bytes bytes = writer.take();
        EXPECT_EQ(BitReader(bytes).signed_golomb(), expected[code]) << code;
    }
}

TEST(Bits, ComeBackAsTheyWereWritten) {
    std::mt19937 random(1);
    for (int run = 0; run < 200; run++) {
        struct Field {
            int kind;
            unsigned value;
            int bits;
        };
        std::vector<Field> fields;
        BitWriter writer;
        for (int n = 0; n < 50; n++) {
            Field field = {static_cast<int>(random() % 3), 0, 1 + static_cast<int>(random() % 32)};
            field.value = random() >> (32 - field.bits);
            if (field.kind == 1 && field.value == UINT_MAX) field.value--;
            if (field.kind == 0) writer.put(field.value, field.bits);
            if (field.kind == 1) writer.put_unsigned_golomb(field.value);
            if (field.kind == 2) writer.put_signed_golomb(static_cast<int>(field.value / 2) - 1000);
            fields.push_back(field);
        }
        const std::size_t end = writer.position();
        const Bytes bytes = writer.take();
        BitReader reader(bytes);
        for (const Field& field : fields) {
            if (field.kind == 0) {
                ASSERT_EQ(reader.get(field.bits), field.value);
            }
            if (field.kind == 1) {
                ASSERT_EQ(reader.unsigned_golomb(), field.value);
            }
            if (field.kind == 2) {
                ASSERT_EQ(reader.signed_golomb(), static_cast<int>(field.value / 2) - 1000);
            }
        }
        EXPECT_EQ(reader.position(), end);
        EXPECT_FALSE(reader.overrun());
    }
}

TEST(Bits, TellWhereAReaderWentPastTheEnd) {
    const Bytes bytes = {0x01};
    BitReader reader(bytes);
    EXPECT_EQ(reader.get(8), 1u);
    EXPECT_TRUE(reader.exhausted());
    EXPECT_FALSE(reader.overrun());
    EXPECT_EQ(reader.get(1), 0u);
    EXPECT_TRUE(reader.overrun());
}

TEST(Bits, TakeNoGolombCodeThatIsCutShortOrTooLong) {
    for (const Bytes& bytes : {Bytes{}, Bytes{0}, Bytes{0x01}, Bytes{0, 0, 0, 0, 0x80, 0, 0, 0, 0}}) {
        BitReader reader(bytes);
        EXPECT_EQ(reader.unsigned_golomb(), 0u);
        EXPECT_TRUE(reader.overrun());
    }
}

TEST(Bits, CopyWhatAReaderStillHas) {
    const Bytes bytes = {0xA5, 0x3C, 0xFF};
    BitReader reader(bytes);
    BitWriter writer;
    writer.put(reader.get(3), 3);
    writer.copy(reader, 20);
    EXPECT_EQ(writer.position(), 20u);
    EXPECT_EQ(writer.take(), (Bytes{0xA5, 0x3C, 0xF0}));
}

}  // namespace
}  // namespace gsve::captions
