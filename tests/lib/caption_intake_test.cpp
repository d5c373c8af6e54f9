// Captions on their way in: the queues, each picture's share of them, and the questions of which services are
// on.

#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/caption_blocks.h"
#include "support/open_without_codec.h"
#include "support/scripted_encoder.h"

namespace gsve::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class CaptionIntake : public OpenWithoutCodec {
protected:
    static std::vector<zeph_cea708_word> words(unsigned count, uint8_t header = 0xFE, uint16_t first = 0) {
        std::vector<zeph_cea708_word> made;
        for (unsigned i = 0; i < count; i++) made.push_back({header, static_cast<uint16_t>(first + i)});
        return made;
    }
    std::string write_cea708(std::vector<zeph_cea708_word> made) {
        return stderr_of([&] { host.write_cea708(static_cast<unsigned>(made.size()), made.data()); });
    }
};

// EIA-608

TEST_F(CaptionIntake, QueuesEia608WordsByField) {
    host.write_eia608(0, 0x1420);
    host.write_eia608(1, 0x1C21);
    host.write_eia608(0, 0x4142);
    EXPECT_THAT(host.eia608_field1_queue, ElementsAre(0x1420, 0x4142));
    EXPECT_THAT(host.eia608_field2_queue, ElementsAre(0x1C21));
}

TEST_F(CaptionIntake, IgnoresOtherEia608Fields) {
    for (const int field : {2, 3, 255})
        EXPECT_EQ(stderr_of([&] { host.write_eia608(static_cast<uint8_t>(field), 0x1420); }), "") << field;
    EXPECT_THAT(host.eia608_field1_queue, IsEmpty());
    EXPECT_THAT(host.eia608_field2_queue, IsEmpty());
}

TEST_F(CaptionIntake, TakesCaptionsOnlyWhileOpenWithAClient) {
    const struct {
        bool open;
        int refcount;
        size_t taken;
    } cases[] = {{false, 1, 0}, {true, 0, 0}, {false, 0, 0}, {true, 1, 1}, {true, -1, 1}};
    for (const auto& row : cases) {
        host.encoder_open = row.open;
        host.refcount = row.refcount;
        host.eia608_field1_queue.clear();
        host.cea708_queue.clear();
        host.write_eia608(0, 0x1420);
        EXPECT_EQ(write_cea708(words(1)), "");
        EXPECT_EQ(host.eia608_field1_queue.size(), row.taken) << row.open << " " << row.refcount;
        EXPECT_EQ(host.cea708_queue.size(), row.taken) << row.open << " " << row.refcount;
    }
}

TEST_F(CaptionIntake, KeepsRepeatedPaddingAtOneWord) {
    for (const uint16_t padding : {0x8080, 0x0000}) {
        host.eia608_field1_queue.clear();
        for (int i = 0; i < 100; i++) {
            host.write_eia608(0, padding);
            EXPECT_THAT(host.eia608_field1_queue, ElementsAre(padding));
        }
    }
}

TEST_F(CaptionIntake, StripsPaddingOnlyFromTheFront) {
    host.eia608_field2_queue = {0x0000, 0x8080, 0x1420, 0x8080, 0x0000};
    host.write_eia608(1, 0x4142);
    EXPECT_THAT(host.eia608_field2_queue, ElementsAre(0x1420, 0x8080, 0x0000, 0x4142));
    host.eia608_field2_queue = {0x0080, 0x8080};
    host.write_eia608(1, 0x0000);
    EXPECT_THAT(host.eia608_field2_queue, ElementsAre(0x0080, 0x8080, 0x0000)) << "0080 is not padding";
}

TEST_F(CaptionIntake, LeavesTheOtherFieldsPaddingAlone) {
    host.eia608_field1_queue = {0x8080};
    host.write_eia608(1, 0x4142);
    EXPECT_THAT(host.eia608_field1_queue, ElementsAre(0x8080));
}

TEST_F(CaptionIntake, KeepsTheNewest33Eia608Words) {
    for (unsigned i = 0; i < 33; i++)
        EXPECT_EQ(stderr_of([&] { host.write_eia608(0, static_cast<uint16_t>(0x2000 + i)); }), "") << i;
    EXPECT_EQ(host.eia608_field1_queue.size(), 33u);
    EXPECT_EQ(stderr_of([&] { host.write_eia608(0, 0x2021); }), "[gsve] EIA-608 incoming overflow (33)\n");
    EXPECT_EQ(host.eia608_field1_queue.size(), 33u);
    EXPECT_EQ(host.eia608_field1_queue.front(), 0x2001);
    EXPECT_EQ(host.eia608_field1_queue.back(), 0x2021);
}

TEST_F(CaptionIntake, StripsLeadingPaddingBeforeCountingEia608Overflow) {
    host.eia608_field1_queue.assign(33, 0x4142);
    host.eia608_field1_queue[0] = 0x8080;
    EXPECT_EQ(stderr_of([&] { host.write_eia608(0, 0x4344); }), "");
    EXPECT_EQ(host.eia608_field1_queue.size(), 33u);

    host.eia608_field1_queue.assign(40, 0x4142);
    host.eia608_field1_queue[0] = 0x0000;
    EXPECT_EQ(stderr_of([&] { host.write_eia608(0, 0x4344); }), "[gsve] EIA-608 incoming overflow (39)\n");
    EXPECT_EQ(host.eia608_field1_queue.size(), 33u);
}

TEST_F(CaptionIntake, StaysBoundedWhenAnHourOfCaptionsComesAtOnce) {
    const unsigned hour = 30 * 3600;
    const std::string said = stderr_of([&] {
        for (unsigned i = 0; i < hour; i++) host.write_eia608(1, static_cast<uint16_t>(0x2000 + i % 0x4000));
    });
    const std::string line = "[gsve] EIA-608 incoming overflow (33)\n";
    EXPECT_EQ(said.size(), line.size() * (hour - 33));
    EXPECT_EQ(said.substr(0, line.size()), line);
    EXPECT_EQ(host.eia608_field2_queue.size(), 33u);
    for (unsigned i = 0; i < 33; i++)
        EXPECT_EQ(host.eia608_field2_queue[i], 0x2000 + (hour - 33 + i) % 0x4000) << i;
}

// CEA-708

TEST_F(CaptionIntake, QueuesCea708ConstructsUnchanged) {
    EXPECT_EQ(write_cea708({{0xFC, 0x1420}, {0xFD, 0x0000}, {0xFE, 0x1234}, {0xFF, 0xFFFF}, {0x00, 0x8080}}),
              "");
    ASSERT_EQ(host.cea708_queue.size(), 5u);
    const uint8_t* third = reinterpret_cast<const uint8_t*>(&host.cea708_queue[2]);
    EXPECT_EQ(hex(third, 3), "FE 34 12") << "low byte first";
    EXPECT_EQ(host.cea708_queue[4].header, 0x00);
    // The + makes a value of the packed member, to which no reference may be bound.
    EXPECT_EQ(+host.cea708_queue[4].value, 0x8080);
}

TEST_F(CaptionIntake, TruncatesCea708BatchesAndTrimsTheQueueBeforeItAppends) {
    EXPECT_EQ(write_cea708(words(300)), "[gsve] CEA-708 incoming too many words, truncating\n");
    ASSERT_EQ(host.cea708_queue.size(), 256u);
    EXPECT_EQ(+host.cea708_queue.back().value, 255);

    EXPECT_EQ(write_cea708(words(1, 0xFF, 5000)), "[gsve] CEA-708 incoming overflow (256)\n");
    ASSERT_EQ(host.cea708_queue.size(), 193u);
    EXPECT_EQ(+host.cea708_queue.front().value, 256 - 192);
    EXPECT_EQ(+host.cea708_queue.back().value, 5000);
}

TEST_F(CaptionIntake, ReportsTruncationAndOverflowOfOneCallInThatOrder) {
    write_cea708(words(200));
    EXPECT_EQ(write_cea708(words(257)),
              "[gsve] CEA-708 incoming too many words, truncating\n[gsve] CEA-708 incoming overflow (200)\n");
    EXPECT_EQ(host.cea708_queue.size(), 192u + 256u);
}

TEST_F(CaptionIntake, TakesCea708BatchesAndQueuesAtTheirBoundsInSilence) {
    EXPECT_EQ(write_cea708(words(192)), "");
    EXPECT_EQ(write_cea708(words(256)), "") << "192 waiting and 256 new are within bounds";
    EXPECT_EQ(host.cea708_queue.size(), 448u);
    host.cea708_queue.resize(193);
    EXPECT_EQ(write_cea708(words(1)), "[gsve] CEA-708 incoming overflow (193)\n");
}

TEST_F(CaptionIntake, TrimsTheCea708QueueForAnEmptyBatchToo) {
    write_cea708(words(200));
    EXPECT_EQ(stderr_of([&] { host.write_cea708(0, nullptr); }), "[gsve] CEA-708 incoming overflow (200)\n");
    EXPECT_EQ(host.cea708_queue.size(), 192u);
}

TEST_F(CaptionIntake, KeepsTheNewestCea708WordsOfALongBurst) {
    for (unsigned batch = 0; batch < 1000; batch++) {
        write_cea708(words(20, 0xFE, static_cast<uint16_t>(batch * 20)));
        ASSERT_LE(host.cea708_queue.size(), 192u + 20u);
    }
    EXPECT_EQ(+host.cea708_queue.back().value, 19999);
    EXPECT_EQ(host.cea708_queue.front().value + host.cea708_queue.size() - 1, 19999u);
}

// SCTE 20

TEST_F(CaptionIntake, KeepsOneScte20BlockAndReplacesItWhole) {
    Bytes first = filler(10), second = filler(4, 0x55), large = filler(1024), too_large = filler(1025);
    host.write_scte20(first.data(), first.size());
    EXPECT_EQ(hex(host.scte20_buffer, host.scte20_length), hex(first));
    host.write_scte20(second.data(), second.size());
    EXPECT_EQ(hex(host.scte20_buffer, host.scte20_length), hex(second));
    EXPECT_EQ(stderr_of([&] { host.write_scte20(too_large.data(), too_large.size()); }), "");
    EXPECT_EQ(hex(host.scte20_buffer, host.scte20_length), hex(second)) << "a larger block is ignored";
    host.write_scte20(large.data(), large.size());
    EXPECT_EQ(hex(host.scte20_buffer, host.scte20_length), hex(large));
    host.write_scte20(nullptr, 0);
    EXPECT_EQ(host.scte20_length, 0u);
}

TEST_F(CaptionIntake, TakesScte20BlocksWhileClosedToo) {
    host.encoder_open = false;
    host.refcount = 0;
    Bytes block = filler(3);
    host.write_scte20(block.data(), block.size());
    EXPECT_EQ(host.scte20_length, 3u);
}

// Each picture's share

class CaptionTake : public ScriptedEncoder {
protected:
    void open_at(int num, int den, unsigned divider = 1) {
        open("h.264");
        host.frame_rate_num = num;
        host.frame_rate_den = den;
        host.frame_rate_divider = divider;
    }
    /// Encodes the next picture and returns the record that was filed for it.
    const GeneralStreamingVideoEncoderAuxData& take() {
        stderr_of([&] { write(timestamp++ * host.frame_rate_divider); });
        return host.aux_data_map.at(timestamp - 1);
    }
    uint64_t timestamp = 0;
};

TEST_F(CaptionTake, LimitsCea708ConstructsByTheEncodedRate) {
    const struct {
        int num, den;
        unsigned divider, limit;
    } cases[] = {
        {60, 1, 1, 9},        {60000, 1001, 1, 9},  {59, 1, 1, 9},      {5899, 100, 1, 11},
        {50, 1, 1, 11},       {49, 1, 1, 11},       {4899, 100, 1, 18}, {30, 1, 1, 18},
        {30000, 1001, 1, 18}, {29, 1, 1, 18},       {2899, 100, 1, 22}, {25, 1, 1, 22},
        {249, 10, 1, 22},     {2489, 100, 1, 23},   {24, 1, 1, 23},     {24000, 1001, 1, 23},
        {10, 1, 1, 23},       {60000, 1001, 2, 18}, {50, 1, 2, 22},     {120, 1, 1, 9},
        {120, 1, 2, 9},       {60000, 1001, 3, 23},
    };
    open_at(25, 1);
    for (const auto& row : cases) {
        host.frame_rate_num = row.num;
        host.frame_rate_den = row.den;
        host.frame_rate_divider = row.divider;
        host.cea708_queue.assign(40, {0xFE, 0x1111});
        EXPECT_EQ(take().cea708_count, row.limit) << row.num << "/" << row.den << " by " << row.divider;
        EXPECT_EQ(host.cea708_queue.size(), 40 - row.limit);
    }
}

TEST_F(CaptionTake, TakesCea708ConstructsInOrderAndDropsOtherWordsSilently) {
    open_at(30000, 1001);
    for (const auto& word : std::vector<zeph_cea708_word>{
             {0xFC, 1}, {0xFF, 2}, {0xFA, 0}, {0xFE, 3}, {0xFD, 4}, {0x00, 5}, {0xFB, 6}, {0xFE, 7}})
        host.cea708_queue.push_back(word);
    const auto& record = take();
    ASSERT_EQ(record.cea708_count, 3u);
    EXPECT_EQ(record.cea708_words[0].header, 0xFF);
    EXPECT_EQ(+record.cea708_words[0].value, 2);
    EXPECT_EQ(+record.cea708_words[1].value, 3);
    EXPECT_EQ(+record.cea708_words[2].value, 7);
    EXPECT_EQ(record.cea708_words[3].header, 0);
    EXPECT_THAT(host.cea708_queue, IsEmpty());
}

TEST_F(CaptionTake, StopsAtTheLimitBeforeItDropsWhatFollows) {
    open_at(60, 1);
    host.cea708_queue.assign(9, {0xFF, 1});
    host.cea708_queue.push_back({0xFA, 0});
    host.cea708_queue.push_back({0xFE, 2});
    EXPECT_EQ(take().cea708_count, 9u);
    EXPECT_EQ(host.cea708_queue.size(), 2u);
    EXPECT_EQ(take().cea708_count, 1u);
}

TEST_F(CaptionTake, TakesOneWordOfEachFieldBelowFortyPicturesASecond) {
    const struct {
        int num, den;
        unsigned divider;
    } rates[] = {{30000, 1001, 1}, {39, 1, 1}, {399, 10, 1}, {60000, 1001, 2}, {24000, 1001, 1}};
    open_at(25, 1);
    for (const auto& rate : rates) {
        host.frame_rate_num = rate.num;
        host.frame_rate_den = rate.den;
        host.frame_rate_divider = rate.divider;
        host.eia608_field1_queue = {0x1420, 0x1421};
        host.eia608_field2_queue = {0x1C22};
        const auto first = take();
        EXPECT_EQ(first.eia608_word_field1, 0x1420) << rate.num << "/" << rate.den;
        EXPECT_EQ(first.eia608_word_field2, 0x1C22) << rate.num << "/" << rate.den;
        const auto second = take();
        EXPECT_EQ(second.eia608_word_field1, 0x1421);
        EXPECT_EQ(second.eia608_word_field2, 0) << "an empty queue leaves no word";
    }
}

TEST_F(CaptionTake, TakesTheFieldsInTurnFromFortyPicturesASecondOn) {
    const struct {
        int num, den;
        unsigned divider;
    } rates[] = {{60000, 1001, 1}, {40, 1, 1}, {50, 1, 1}, {120, 1, 2}};
    open_at(25, 1);
    for (const auto& rate : rates) {
        host.frame_rate_num = rate.num;
        host.frame_rate_den = rate.den;
        host.frame_rate_divider = rate.divider;
        for (const uint64_t counted : {6, 7, 7, 6}) {
            host.input_frame_count = counted;
            host.eia608_field1_queue = {0x1420};
            host.eia608_field2_queue = {0x1C22};
            const auto& record = take();
            EXPECT_EQ(record.eia608_word_field1, counted == 6 ? 0x1420 : 0) << rate.num << " " << counted;
            EXPECT_EQ(record.eia608_word_field2, counted == 7 ? 0x1C22 : 0) << rate.num << " " << counted;
            EXPECT_EQ(host.eia608_field1_queue.size(), counted == 6 ? 0u : 1u);
            EXPECT_EQ(host.eia608_field2_queue.size(), counted == 7 ? 0u : 1u);
        }
    }
}

TEST_F(CaptionTake, CountsOnlyPicturesThatPassTheFrameRateLimitForTheTurns) {
    describe_source(host, 64, 48, 60, 1);
    open("h.264", {{"frame rate limit", "60"}});
    for (int i = 0; i < 4; i++) {
        host.eia608_field1_queue.push_back(static_cast<uint16_t>(0x2001 + i));
        host.eia608_field2_queue.push_back(static_cast<uint16_t>(0x3001 + i));
    }
    std::vector<std::string> taken;
    for (const uint64_t number : {0, 0, 1, 2, 1, 3}) {  // the second 0 and 1 come too early
        stderr_of([&] { write(number); });
        const auto& record = host.aux_data_map.at(number);
        taken.push_back(std::to_string(record.eia608_word_field1 & 0xFF) + "/" +
                        std::to_string(record.eia608_word_field2 & 0xFF));
    }
    EXPECT_THAT(taken, ElementsAre("1/0", "1/0", "0/1", "2/0", "0/1", "0/2"));
}

TEST_F(CaptionTake, TakesPaddingWordsLikeOthers) {
    open_at(30, 1);
    host.eia608_field1_queue = {0x8080, 0x0000, 0x1420};
    EXPECT_EQ(take().eia608_word_field1, 0x8080);
    EXPECT_EQ(take().eia608_word_field1, 0x0000);
    EXPECT_EQ(take().eia608_word_field1, 0x1420);
}

TEST_F(CaptionTake, GivesAnScte20BlockToOnePictureOnly) {
    open_at(30, 1);
    for (const size_t size : {1, 1024}) {
        Bytes block = filler(size);
        host.write_scte20(block.data(), block.size());
        const auto first = take();
        EXPECT_EQ(hex(first.scte20_data, first.scte20_data_length), hex(block));
        EXPECT_EQ(host.scte20_length, 0u);
        EXPECT_EQ(take().scte20_data_length, 0u);
    }
}

// Which services are on

struct ServiceCase {
    int setting, width, height, num, den;
    bool eia608, cea708;
};

TEST(CaptionServices, FollowTheSettingElseTheSource) {
    const ServiceCase cases[] = {
        // As set, whatever the source.
        {1, 1920, 1080, 25, 1, true, true},
        {7, 0, 0, -1, -1, true, true},
        {0, 720, 480, 30000, 1001, false, false},
        // Automatic.
        {-1, 720, 576, 25, 1, false, false},
        {-1, 720, 480, 30000, 1001, true, true},
        {-1, 1920, 1080, 30000, 1001, false, true},
        {-9, 720, 480, 30000, 1001, true, true},
        {-1, 720, 480, 0, 1, false, false},
        {-1, 720, 480, 30, 0, false, false},
        {-1, 720, 480, -30, -1, false, false},
        // Picture size.
        {-1, 752, 576, 30, 1, true, true},
        {-1, 753, 576, 30, 1, false, true},
        {-1, 752, 577, 30, 1, false, true},
        // Bands of the rate.
        {-1, 720, 480, 2299, 100, false, false},
        {-1, 720, 480, 23, 1, true, true},
        {-1, 720, 480, 24000, 1001, true, true},
        {-1, 720, 480, 24, 1, true, true},
        {-1, 720, 480, 2409, 100, true, true},
        {-1, 720, 480, 241, 10, false, false},
        {-1, 720, 480, 2899, 100, false, false},
        {-1, 720, 480, 29, 1, true, true},
        {-1, 720, 480, 61, 2, true, true},
        {-1, 720, 480, 3051, 100, false, false},
        {-1, 720, 480, 50, 1, false, false},
        {-1, 720, 480, 5899, 100, false, false},
        {-1, 720, 480, 59, 1, true, true},
        {-1, 720, 480, 60000, 1001, true, true},
        {-1, 720, 480, 121, 2, true, true},
        {-1, 720, 480, 6051, 100, false, false},
        {-1, 720, 480, 120, 1, false, false},
    };
    for (const ServiceCase& row : cases) {
        RecordingHost host;
        describe_source(host, row.width, row.height, row.num, row.den);
        host.frame_rate_divider = 2;  // not looked at
        host.eia608_enable = row.setting;
        host.cea708_enable = row.setting;
        const std::string context = "set " + std::to_string(row.setting) + ", " + std::to_string(row.width) +
                                    "x" + std::to_string(row.height) + " at " + std::to_string(row.num) +
                                    "/" + std::to_string(row.den);
        EXPECT_EQ(host.enabled_eia608(), row.eia608) << context;
        EXPECT_EQ(host.enabled_cea708(), row.cea708) << context;
    }
}

TEST(CaptionServices, AreSwitchedOneByOne) {
    RecordingHost host;
    describe_source(host, 720, 480, 30, 1);
    host.on_set("enable eia-608", "0", false);
    EXPECT_FALSE(host.enabled_eia608());
    EXPECT_TRUE(host.enabled_cea708());
    host.on_set("enable eia-608", "", false);
    host.on_set("enable cea-708", "0", false);
    EXPECT_TRUE(host.enabled_eia608());
    EXPECT_FALSE(host.enabled_cea708());
}

TEST(CaptionServices, PutEia608OnPPicturesUnlessSwitchedOff) {
    RecordingHost host;
    EXPECT_TRUE(host.do_eia608_on_p_frames()) << "automatic";
    for (const int setting : {-5, -1, 0, 1, 2}) {
        host.eia608_on_p_frames = setting;
        EXPECT_EQ(host.do_eia608_on_p_frames(), setting != 0) << setting;
    }
}

}  // namespace
}  // namespace gsve::test
