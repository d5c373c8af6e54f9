// The way of a programme's pictures, step by step: packets of the stream, decoded pictures on one time line,
// pictures at the frame rate, and all of it together.

#include <atomic>
#include <bitset>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "captions/line21.h"
#include "encoding/error.h"
#include "programme/frame_decoder.h"
#include "programme/input.h"
#include "programme/packet_source.h"
#include "programme/picture_converter.h"
#include "support/captioned_stream.h"
#include "support/clip.h"
#include "support/failure_of.h"
#include "support/media_files.h"
#include "support/scratch.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;
using gsve::Failure;
using gsve::FramePtr;
using gsve::PacketPtr;
using gsve::captions::kRate25;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr AVRational kMilliseconds = {1, 1000};

std::vector<int64_t> regular(unsigned pictures, int64_t step_ms = 40) {
    std::vector<int64_t> times;
    for (unsigned n = 0; n < pictures; n++) times.push_back(n * step_ms);
    return times;
}

class Reading : public testing::Test {
protected:
    Reading() { av_log_set_level(AV_LOG_QUIET); }

    std::string mkv(const std::vector<int64_t>& times_ms, const ClipFormat& format = {},
                    AVPixelFormat pixels = AV_PIX_FMT_YUV420P, bool sound = false) {
        write_mkv(directory / "in.mkv", format, times_ms, pixels, sound);
        return directory / "in.mkv";
    }

    std::string y4m(const ClipFormat& format, unsigned pictures) {
        write_y4m(directory / "in.y4m", format, pictures);
        return directory / "in.y4m";
    }

    /// A captioned stream, whose first byte pair comes with picture `first`.
    std::string captioned(unsigned pictures, int64_t first, const char* codec = "mpeg-2") {
        CaptionedStreamOptions options;
        options.codec = codec;
        options.pictures = pictures;
        options.schedule.rate = kRate25;
        for (int n = 0; n < 4; n++)
            options.schedule.eia608.push_back({first + n, 0, gsve::captions::make_word(0x41 + n, 0x42)});
        if (first > 100) options.settings = {{"enable cea-708", "0"}};
        const std::string path = directory / "captioned.m2v";
        CaptionedStream(options).write_to(path);
        return path;
    }

    ScratchDirectory directory;
};

/// The times of all packets that are left.
std::vector<int64_t> packets_of(PacketSource& source) {
    std::vector<int64_t> times;
    const PacketPtr packet(av_packet_alloc());
    while (source.next(*packet) == 0) times.push_back(packet->pts);
    EXPECT_EQ(source.next(*packet), AVERROR_EOF) << "the end stays the end";
    return times;
}

// Packets

TEST_F(Reading, RefusesWhatIsNoFileOrHasNoVideo) {
    EXPECT_THAT(failure_of([&] { PacketSource(directory / "none.mkv", {}); }),
                HasSubstr("none.mkv: No such file or directory; check the name"));
    EXPECT_THAT(failure_of([&] { PacketSource(directory / "", {}); }), HasSubstr("name a file in it"));
    write_bytes(directory / "notes.txt", "no media file at all, just words in a row");
    EXPECT_THAT(failure_of([&] { PacketSource(directory / "notes.txt", {}); }), StartsWith("cannot open "));
    // RIFF/WAVE: a tenth of a second of silence.
    std::string wave(
        "RIFF\x64\x06\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1F\0\0\x80\x3E\0\0\2\0\x10\0data\x40\x06\0\0", 44);
    wave.append(1600, '\0');
    write_bytes(directory / "sound.wav", wave);
    EXPECT_THAT(failure_of([&] { PacketSource(directory / "sound.wav", {}); }),
                HasSubstr("sound.wav has no video stream that can be decoded"));
}

TEST_F(Reading, GivesThePacketsOfTheVideoAlone) {
    PacketSource source(mkv(regular(12), {}, AV_PIX_FMT_YUV420P, true), {});
    ASSERT_EQ(source.format().nb_streams, 2u);
    EXPECT_EQ(source.format().streams[0]->discard, AVDISCARD_DEFAULT);
    EXPECT_EQ(source.format().streams[1]->discard, AVDISCARD_ALL) << "not even read";
    EXPECT_TRUE(source.timed());
    EXPECT_EQ(packets_of(source), regular(12));
    EXPECT_EQ(source.missing_at_end(), 0);
    EXPECT_FALSE(source.ends_within_packet());
}

TEST_F(Reading, PromisesNothingForElementaryStreams) {
    PacketSource source(captioned(10, 2), {});
    EXPECT_EQ(packets_of(source).size(), 10u);
    EXPECT_EQ(source.missing_at_end(), 0);
}

TEST_F(Reading, IsStoppedWithinAFile) {
    const std::string path = mkv(regular(100), {.width = 320, .height = 240});
    bool stop = false;
    PacketSource source(path, [&] { return stop; });
    const PacketPtr packet(av_packet_alloc());
    ASSERT_EQ(source.next(*packet), 0);
    EXPECT_FALSE(source.stopped());
    stop = true;
    EXPECT_TRUE(source.stopped());
    int read = 0;
    while (source.next(*packet) == 0) read++;
    EXPECT_LT(read, 90);
}

TEST_F(Reading, KeepsThePacketsThatItLookedIntoForCaptions) {
    for (const int64_t first : {0, 150}) {
        const std::string path = captioned(200, first);
        PacketSource untouched(path, {});
        const size_t all = packets_of(untouched).size();
        PacketSource source(path, {});
        const PacketPtr packet(av_packet_alloc());
        ASSERT_EQ(source.next(*packet), 0);
        const std::vector<uint8_t> first_bytes(packet->data, packet->data + packet->size);
        PacketSource again(path, {});
        EXPECT_EQ(again.find_captions(5).has_value(), first == 0);
        EXPECT_EQ(again.find_captions(5).has_value(), first == 0) << "may be asked twice";
        ASSERT_EQ(again.next(*packet), 0);
        EXPECT_EQ(std::vector<uint8_t>(packet->data, packet->data + packet->size), first_bytes);
        EXPECT_EQ(packets_of(again).size() + 1, all);
    }
}

TEST_F(Reading, FindsCaptionsBehindWhereItLooksInAFile) {
    CaptionedStreamOptions options;
    options.pictures = 60;
    options.schedule.rate = kRate25;
    options.settings = {{"enable cea-708", "0"}};
    const std::string bare = directory / "bare.m2v", path = directory / "late.m2v";
    CaptionedStream(options).write_to(bare);
    std::string bytes = read_file(bare) + read_file(captioned(20, 2));
    write_bytes(path, bytes);
    PacketSource source(path, {});
    EXPECT_TRUE(source.find_captions(1)) << "25 pictures in, the captions come with the 61st";
    EXPECT_EQ(packets_of(source).size(), 80u);
}

TEST_F(Reading, LooksForNoCaptionsWhereACodecHasNone) {
    PacketSource source(mkv(regular(5)), {});
    EXPECT_FALSE(source.find_captions(5));
    EXPECT_EQ(packets_of(source).size(), 5u);
}

TEST_F(Reading, SaysHowMuchOfAFileIsMissingAtItsEnd) {
    const std::string path = mkv(regular(100), {.width = 160, .height = 120});
    const std::string bytes = read_file(path);
    for (const double share : {0.5, 0.75}) {
        write_bytes(path, bytes.substr(0, static_cast<size_t>(static_cast<double>(bytes.size()) * share)));
        PacketSource source(path, {});
        EXPECT_EQ(source.log().container_errors(), 0u);
        const size_t packets = packets_of(source).size();
        EXPECT_EQ(source.log().container_errors(), 1u) << "the reader says that the file ends too early";
        EXPECT_NEAR(static_cast<double>(packets), 100 * share, 6);
        EXPECT_NEAR(source.missing_at_end(), 4 - 0.04 * static_cast<double>(packets), 0.05);
    }
}

TEST_F(Reading, SeesThatATransportStreamEndsWithinAPacket) {
    const std::string path = directory / "whole.ts";
    write_transport_stream(captioned(50, 2), path);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size() % kTransportPacket, 0u);
    for (const size_t cut : {size_t{0}, size_t{1}, size_t{100}, kTransportPacket, kTransportPacket + 90}) {
        write_bytes(path, bytes.substr(0, bytes.size() - cut));
        PacketSource source(path, {});
        packets_of(source);
        EXPECT_EQ(source.ends_within_packet(), cut % kTransportPacket != 0) << cut;
    }
}

// Pictures

/// The times of all pictures, in ticks.
std::vector<int64_t> pictures_of(FrameDecoder& decoder) {
    std::vector<int64_t> times;
    while (decoder.next()) times.push_back(decoder.frame().pts);
    return times;
}

TEST_F(Reading, DecodesEveryPictureFromTimeZeroOn) {
    std::vector<int64_t> times = regular(20);
    for (int64_t& time : times) time += 7000;
    const std::string path = mkv(times);
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    EXPECT_EQ(av_cmp_q(decoder.own_rate(), {25, 1}), 0);
    EXPECT_FALSE(decoder.decoded_all());
    EXPECT_EQ(pictures_of(decoder), regular(20));
    EXPECT_TRUE(decoder.decoded_all());
    EXPECT_EQ(decoder.decoded(), 20u);
    EXPECT_EQ(decoder.end_time(), 800);
    EXPECT_EQ(decoder.problem(), "");
    EXPECT_FALSE(decoder.damage().any());
}

TEST_F(Reading, KeepsUnevenTimesAndPauses) {
    const std::string path = mkv({7000, 7040, 7090, 7130, 17'130, 17'170, 37'170, 37'210});
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    EXPECT_THAT(pictures_of(decoder), ElementsAre(0, 40, 90, 130, 10'130, 10'170, 30'170, 30'210));
    EXPECT_EQ(decoder.origin(), 7000);
    ASSERT_EQ(decoder.pauses().size(), 2u);
    EXPECT_EQ(decoder.pauses()[0].at, 10'130);
    EXPECT_FALSE(decoder.pauses()[0].skipped);
    EXPECT_EQ(decoder.pauses()[1].at, 30'170);
}

TEST_F(Reading, SkipsPausesThatAreTooLongToBeFilled) {
    const std::string path = mkv({0, 40, 80, 12'080, 12'120, 62'120});
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    decoder.repeat_for(20);
    const std::vector<int64_t> times = pictures_of(decoder);
    const auto picture = static_cast<int64_t>(std::lround(1000 / av_q2d(decoder.own_rate())));
    EXPECT_THAT(times, ElementsAre(0, 40, 80, 12'080, 12'120, 12'120 + picture));
    ASSERT_EQ(decoder.pauses().size(), 2u);
    EXPECT_TRUE(decoder.pauses()[1].skipped);
    EXPECT_EQ(decoder.pauses()[1].at, times[5]);
    EXPECT_EQ(decoder.pauses()[1].lasted, 50'000 - picture);
}

TEST_F(Reading, TellsWhenPicturesAreShownAcrossPauses) {
    std::vector<int64_t> times = regular(50);
    for (int64_t time : regular(50)) times.push_back(32'000 + time);
    InputOptions options;
    options.longest_repeat = 10;
    options.frame_rate = {25, 1};
    Input input(mkv(times), options);
    uint64_t pictures = 0;
    while (input.next()) pictures++;
    EXPECT_EQ(pictures, 100u) << "none is repeated";
    const auto ms = [&](int64_t number) {
        return av_rescale_q(input.time_of(number), kTimeUnit, kMilliseconds);
    };
    EXPECT_EQ(ms(-2), -80);
    EXPECT_EQ(ms(0), 0);
    EXPECT_EQ(ms(49), 1960);
    EXPECT_EQ(ms(50), 32'000);
    EXPECT_EQ(ms(99), 33'960);
    EXPECT_THAT(input.timing_notes(),
                HasSubstr("the input has no picture for 30.000 s: the output has none either"));
}

TEST_F(Reading, CountsFieldsWhereThereAreNoTimes) {
    const std::string path = captioned(30, 2);
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    const std::vector<int64_t> times = pictures_of(decoder);
    ASSERT_EQ(times.size(), 30u);
    const double tick = av_q2d(source.stream().time_base);
    for (size_t n = 0; n < times.size(); n++)
        EXPECT_NEAR(static_cast<double>(times[n]) * tick, 0.04 * static_cast<double>(n), 1e-3);
}

TEST_F(Reading, ShowsPacketsOnTheirWayToTheDecoder) {
    const std::string path = mkv(regular(5));
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    std::vector<int64_t> seen;
    decoder.on_packet([&](AVPacket& packet) { seen.push_back(packet.pts); });
    pictures_of(decoder);
    EXPECT_EQ(seen, regular(5));
}

TEST_F(Reading, EndsWhereThePictureChangesItsSize) {
    const std::string path = directory / "joined.h264";
    std::string bytes;
    for (const int height : {144, 96}) {
        CaptionedStreamOptions options;
        options.codec = "h.264";
        options.pictures = 10;
        options.schedule.rate = kRate25;
        options.settings = {{"resize", height == 144 ? "176x144" : "176x96"}};
        CaptionedStream(options).write_to(path);
        bytes += read_file(path);
    }
    write_bytes(path, bytes);
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    EXPECT_EQ(pictures_of(decoder).size(), 10u);
    EXPECT_EQ(decoder.problem(),
              "the picture changes from 176x144 to 176x96 (yuv420p) after 10 pictures: encode the parts "
              "separately");
    EXPECT_FALSE(decoder.decoded_all());
}

TEST_F(Reading, TellsOfDamageOnceAtTheEnd) {
    const std::string path = mkv(regular(100), {.width = 160, .height = 120});
    const std::string bytes = read_file(path);
    write_bytes(path, bytes.substr(0, bytes.size() / 2));
    PacketSource source(path, {});
    FrameDecoder decoder(source, path, 0);
    const size_t pictures = pictures_of(decoder).size();
    const Damage damage = decoder.damage();
    ASSERT_TRUE(damage.early_end);
    EXPECT_TRUE(damage.any());
    EXPECT_NEAR(static_cast<double>(pictures), 50, 5);
}

TEST_F(Reading, TellsOfNoEarlyEndWhereItWasStopped) {
    const std::string path = mkv(regular(100), {.width = 160, .height = 120});
    const std::string bytes = read_file(path);
    write_bytes(path, bytes.substr(0, bytes.size() / 2));
    bool stop = false;
    PacketSource source(path, [&] { return stop; });
    FrameDecoder decoder(source, path, 0);
    pictures_of(decoder);
    stop = true;
    EXPECT_FALSE(decoder.damage().early_end);
}

// Conversion

FramePtr frame_of(AVPixelFormat pixels, int width, int height, int64_t pts) {
    FramePtr frame(av_frame_alloc());
    frame->format = pixels;
    frame->width = width;
    frame->height = height;
    frame->pts = pts;
    frame->sample_aspect_ratio = {1, 1};
    if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
    for (int plane = 0; plane < 3 && frame->data[plane]; plane++)
        std::memset(frame->data[plane], 0x40 + static_cast<int>(pts % 7),
                    static_cast<size_t>(frame->linesize[plane]));
    return frame;
}

/// The times of what becomes of pictures at `times`, in pictures at the new rate.
std::vector<int64_t> converted(const std::vector<int64_t>& times, AVRational rate, int64_t end) {
    PictureConverter converter(*frame_of(AV_PIX_FMT_YUV420P, 32, 16, times[0]), kMilliseconds,
                               {rate, "", {}});
    EXPECT_EQ(converter.notes(), "");
    std::vector<int64_t> given;
    const FramePtr frame(av_frame_alloc());
    const auto receive = [&] {
        int result = 0;
        while ((result = converter.receive(*frame)) == 0) {
            given.push_back(frame->pts);
            av_frame_unref(frame.get());
        }
        return result;
    };
    for (const int64_t time : times) {
        const FramePtr sent = frame_of(AV_PIX_FMT_YUV420P, 32, 16, time);
        converter.send(*sent);
        EXPECT_EQ(sent->data[0], nullptr) << "it is the converter's now";
        EXPECT_EQ(receive(), AVERROR(EAGAIN));
    }
    converter.finish(end);
    EXPECT_EQ(receive(), AVERROR_EOF);
    return given;
}

TEST(Converting, KeepsRepeatsAndLeavesOutPictures) {
    EXPECT_THAT(converted(regular(4), {25, 1}, 160), ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(converted(regular(3), {50, 1}, 120), ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_THAT(converted(regular(6, 20), {25, 1}, 120), ElementsAre(0, 1, 2));
    EXPECT_THAT(converted({0, 40, 200}, {25, 1}, 240), ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(Converting, PassesPicturesOnWithoutACopy) {
    const FramePtr sent = frame_of(AV_PIX_FMT_YUV422P, 32, 16, 0);
    const uint8_t* const samples = sent->data[0];
    PictureConverter converter(*sent, kMilliseconds, {{25, 1}, "", {}});
    converter.send(*sent);
    converter.finish(40);
    const FramePtr frame(av_frame_alloc());
    ASSERT_EQ(converter.receive(*frame), 0);
    EXPECT_EQ(frame->data[0], samples);
}

TEST(Converting, GivesFormatsThatTheEncoderTakes) {
    const struct {
        AVPixelFormat pixels;
        const char* chroma_format;
        AVPixelFormat given;
    } rows[] = {
        {AV_PIX_FMT_YUV420P, "", AV_PIX_FMT_YUV420P},        {AV_PIX_FMT_YUV422P, "", AV_PIX_FMT_YUV422P},
        {AV_PIX_FMT_YUV444P, "4:2:0", AV_PIX_FMT_YUV444P},   {AV_PIX_FMT_YUV411P, "", AV_PIX_FMT_YUV420P},
        {AV_PIX_FMT_YUV411P, "4:2:0", AV_PIX_FMT_YUV411P},   {AV_PIX_FMT_YUV410P, "", AV_PIX_FMT_YUV420P},
        {AV_PIX_FMT_YUV410P, "4:2:0", AV_PIX_FMT_YUV420P},   {AV_PIX_FMT_RGB24, "", AV_PIX_FMT_YUV420P},
        {AV_PIX_FMT_RGB24, "4:2:2", AV_PIX_FMT_YUV422P},     {AV_PIX_FMT_RGB24, "4:4:4", AV_PIX_FMT_YUV444P},
        {AV_PIX_FMT_YUV422P10, "4:2:2", AV_PIX_FMT_YUV422P}, {AV_PIX_FMT_GRAY8, "", AV_PIX_FMT_YUV420P},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(av_get_pix_fmt_name(row.pixels)) + " " + row.chroma_format);
        const FramePtr sent = frame_of(row.pixels, 32, 16, 0);
        sent->sample_aspect_ratio = {16, 11};
        PictureConverter converter(*sent, kMilliseconds, {{25, 1}, row.chroma_format, {}});
        EXPECT_EQ(converter.notes(), row.pixels == row.given ? ""
                                                             : std::string("pictures are converted from ") +
                                                                   av_get_pix_fmt_name(row.pixels) + " to " +
                                                                   av_get_pix_fmt_name(row.given) + "\n");
        converter.send(*sent);
        converter.finish(40);
        const FramePtr frame(av_frame_alloc());
        ASSERT_EQ(converter.receive(*frame), 0);
        EXPECT_EQ(frame->format, row.given);
        EXPECT_EQ(av_cmp_q(frame->sample_aspect_ratio, {16, 11}), 0);
    }
}

TEST(Converting, SaysWhatItCannotDo) {
    const FramePtr frame = frame_of(AV_PIX_FMT_RGB24, 32, 16, 0);
    frame->width = 0;
    EXPECT_THAT(failure_of([&] {
                    PictureConverter(*frame, kMilliseconds, {{25, 1}, "", {}});
                }),
                StartsWith("cannot convert the pictures: "));
}

// All of it

std::vector<int> rows_differing(const Picture& picture, const TestPicture& expected) {
    std::vector<int> rows;
    for (int row = 0; row < expected.height; row++)
        if (std::memcmp(picture.frame->data[0] + row * picture.frame->linesize[0],
                        &expected.y[static_cast<size_t>(row) * static_cast<size_t>(expected.width)],
                        static_cast<size_t>(expected.width)) != 0)
            rows.push_back(row);
    return rows;
}

TEST_F(Reading, GivesThePicturesInOrderHoweverFarItReadsAhead) {
    const ClipFormat format = {.sample_aspect = {4, 3}};
    const std::string path = y4m(format, 30);
    for (const double seconds : {0.0, 0.1, 1.0, 100.0}) {
        Input input(path, {});
        EXPECT_EQ(input.format().width, 128);
        EXPECT_EQ(input.format().height, 96);
        EXPECT_EQ(av_cmp_q(input.format().frame_rate, {25, 1}), 0);
        EXPECT_FALSE(input.format().interlaced);
        EXPECT_EQ(input.format().chroma_shift_x, 1u);
        EXPECT_EQ(input.format().chroma_shift_y, 1u);
        EXPECT_EQ(input.notes(), "");
        EXPECT_EQ(input.expected_pictures(), 30u);
        EXPECT_EQ(input.first().number, 0u);
        EXPECT_EQ(av_cmp_q(input.first().display_aspect, {16, 9}), 0);
        input.read_ahead(seconds);
        for (unsigned n = 0; n < 30; n++) {
            const std::optional<Picture> picture = input.next();
            ASSERT_TRUE(picture) << n;
            EXPECT_EQ(picture->number, n);
            EXPECT_EQ(picture->field_order, 0);
            EXPECT_FALSE(picture->timecode);
            EXPECT_THAT(rows_differing(*picture, clip_picture(format, n)), testing::IsEmpty()) << n;
            EXPECT_EQ(picture->view().planes[0], picture->frame->data[0]);
            EXPECT_EQ(picture->view().strides[1], static_cast<size_t>(picture->frame->linesize[1]));
            EXPECT_EQ(picture->view().number, n);
            const auto ahead = static_cast<uint64_t>(std::ceil(seconds * 25 - 1e-9));
            if (n == 0) continue;  // it was decoded before
            EXPECT_GE(input.decoded(), std::min<uint64_t>(n + ahead + 1, 30)) << seconds;
            EXPECT_LE(input.decoded(), std::min<uint64_t>(n + ahead + 4, 30)) << seconds;
        }
        EXPECT_FALSE(input.next());
        EXPECT_FALSE(input.next());
        EXPECT_TRUE(input.decoded_all());
        EXPECT_EQ(input.problem(), "");
        EXPECT_FALSE(input.damage().any());
    }
}

InputOptions with_rate(AVRational rate) {
    InputOptions options;
    options.frame_rate = rate;
    return options;
}

TEST_F(Reading, SaysWhatIsChangedOrLeftOut) {
    const struct {
        const char* what;
        ClipFormat format;
        AVPixelFormat pixels;
        bool sound;
        InputOptions options;
        int width, height;
        AVRational rate;
        const char* notes;
    } rows[] = {
        {"odd sizes",
         {.width = 127, .height = 95},
         AV_PIX_FMT_YUV420P,
         false,
         {},
         126,
         94,
         {25, 1},
         "pictures are cropped from 127x95 to 126x94: the codec takes even sizes\n"},
        {"a rate",
         {},
         AV_PIX_FMT_YUV420P,
         false,
         with_rate({50, 1}),
         128,
         96,
         {50, 1},
         "the frame rate is 25.000: made 50.000 pictures/s by repeating or leaving out pictures\n"},
        {"its own rate", {}, AV_PIX_FMT_YUV420P, false, with_rate({50, 2}), 128, 96, {25, 1}, ""},
        {"sound",
         {},
         AV_PIX_FMT_YUV420P,
         true,
         {},
         128,
         96,
         {25, 1},
         "stream 1 (sound, pcm_s16le) is left out: an elementary stream has room for the picture alone; a "
         "name in .ts or .mp4 or .mov or .mkv or .mxf or .m3u8 takes it\n"},
        {"ten bits",
         {},
         AV_PIX_FMT_YUV420P10,
         false,
         {},
         128,
         96,
         {25, 1},
         "pictures are converted from yuv420p10le to yuv420p\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Input input(mkv(regular(10), row.format, row.pixels, row.sound), row.options);
        EXPECT_EQ(input.notes(), row.notes);
        EXPECT_EQ(input.format().width, row.width);
        EXPECT_EQ(input.format().height, row.height);
        EXPECT_EQ(av_cmp_q(input.format().frame_rate, row.rate), 0);
        EXPECT_EQ(av_cmp_q(input.own_rate(), {25, 1}), 0);
    }
}

TEST_F(Reading, MakesAVariableRateConstant) {
    std::vector<int64_t> times;
    for (int64_t n = 0; n < 48; n++) times.push_back(n * 40 + n * 7 % 23);
    Input input(mkv(times), {});
    EXPECT_THAT(input.notes(), HasSubstr("the frame rate is variable: made ")) << av_q2d(input.own_rate());
    uint64_t pictures = 0;
    while (input.next()) pictures++;
    const double seconds = static_cast<double>(times.back()) / 1000;
    EXPECT_NEAR(static_cast<double>(pictures), seconds * av_q2d(input.format().frame_rate), 3);
}

TEST_F(Reading, TellsFieldsAndCropsThemInPairs) {
    for (const char interlacing : {'p', 't', 'b'}) {
        Input input(y4m({.height = 98, .interlacing = interlacing}, 4), {});
        const bool interlaced = interlacing != 'p';
        EXPECT_EQ(input.format().interlaced, interlaced) << interlacing;
        EXPECT_EQ(input.format().height, interlaced ? 96 : 98);
        EXPECT_EQ(input.first().field_order, interlacing == 't' ? 1 : interlacing == 'b' ? 2 : 0);
        EXPECT_EQ(input.notes(), interlaced ? "pictures are cropped from 128x98 to 128x96: the codec takes "
                                              "even sizes, in each field\n"
                                            : "");
    }
}

TEST_F(Reading, RefusesPicturesThatAreTooSmall) {
    EXPECT_THAT(failure_of([&] { Input(mkv(regular(3), {.width = 128, .height = 1}), {}); }),
                "a picture of 128x1 is too small to encode");
}

TEST_F(Reading, BringsCaptionsWithTheirPictures) {
    const std::string path = captioned(50, 10);
    Input without(path, {});
    EXPECT_FALSE(without.has_captions());
    EXPECT_EQ(without.captions_behind(), 0);
    EXPECT_TRUE(without.take_captions().empty());
    InputOptions options;
    options.captions = true;
    Input input(path, options);
    EXPECT_TRUE(input.has_captions());
    std::vector<int64_t> frames;
    int64_t number = 0;
    while (input.next()) {
        for (const SourceCaptions& captions : input.take_captions())
            for (const gsve::captions::Word word : captions.captions.fields[0])
                if (word != gsve::captions::kNullPair) frames.push_back(captions.frame);
        EXPECT_TRUE(frames.empty() || frames.back() <= number + 3);
        number++;
    }
    EXPECT_THAT(frames, ElementsAre(10, 11, 12, 13));
    EXPECT_FALSE(input.parity_damage().any());
}

TEST_F(Reading, GivesTheTimeCodesOfGroups) {
    CaptionedStreamOptions options;
    options.pictures = 40;
    options.schedule.rate = kRate25;
    options.timecode = gsve::captions::parse_timecode("10:11:12:13", kRate25);
    const std::string path = directory / "coded.m2v";
    CaptionedStream(options).write_to(path);
    Input input(path, {});
    EXPECT_EQ(input.timecode(), "10:11:12:13");
    std::vector<std::string> codes;
    while (const std::optional<Picture> picture = input.next())
        if (picture->timecode) codes.push_back(gsve::captions::format_timecode(picture->timecode->timecode));
    ASSERT_GE(codes.size(), 2u);
    EXPECT_EQ(codes[0], "10:11:12:13");
    Input film(mkv(regular(4)), {});
    EXPECT_EQ(film.timecode(), "");
}

/// An H.265 stream with a time code in front of each picture, at 25 pictures/s. Where `code` is empty, the
/// message has none; the last number of it is that of the picture.
std::string with_time_codes(const std::string& stream, const char* code) {
    const std::string start_code("\0\0\1", 3);
    std::string coded;
    size_t from = 0;
    for (size_t at = stream.find(start_code); at != stream.npos; at = stream.find(start_code, at + 3)) {
        const int type = static_cast<uint8_t>(stream[at + 3]) >> 1 & 63;
        const bool first_slice = type < 32 && (static_cast<uint8_t>(stream[at + 5]) & 0x80);
        if (!first_slice) continue;
        coded += stream.substr(from, at - from);
        from = at;
        // ITU-T H.265, D.2.27: one clock time stamp, whole, of frames; then the message's length and its end.
        std::string bits = "00";
        if (int hours = 0, minutes = 0, seconds = 0, frames = 0;
            std::sscanf(code, "%d:%d:%d:%d", &hours, &minutes, &seconds, &frames) == 4)
            bits =
                "01"
                "1"
                "0"
                "00000"
                "1"
                "0"
                "0" +
                std::bitset<9>(static_cast<unsigned>(frames)).to_string() +
                std::bitset<6>(static_cast<unsigned>(seconds)).to_string() +
                std::bitset<6>(static_cast<unsigned>(minutes)).to_string() +
                std::bitset<5>(static_cast<unsigned>(hours)).to_string() + "00000";
        bits += "1";
        bits.resize((bits.size() + 7) / 8 * 8, '0');
        std::string message;
        for (size_t bit = 0; bit < bits.size(); bit += 8)
            message += static_cast<char>(std::bitset<8>(bits.substr(bit, 8)).to_ulong());
        coded += std::string("\0\0\0\1\x4E\1", 6) + static_cast<char>(136) +
                 static_cast<char>(message.size()) + message + static_cast<char>(0x80);
    }
    return coded + stream.substr(from);
}

TEST_F(Reading, GivesTheTimeCodesOfPictures) {
    CaptionedStreamOptions options;
    options.codec = "h.265";
    options.pictures = 5;
    options.schedule.rate = kRate25;
    const std::string path = directory / "coded.h265";
    CaptionedStream(options).write_to(path);
    const std::string stream = read_file(path);
    for (const auto& [code, read] : std::vector<std::pair<const char*, const char*>>{
             {"10:11:12:13", "10:11:12:13"}, {"10:11:12:27", ""}, {"", ""}}) {
        write_bytes(path, with_time_codes(stream, code));
        Input input(path, {});
        int pictures = 0;
        while (const std::optional<Picture> picture = input.next()) {
            EXPECT_EQ(picture->timecode ? gsve::captions::format_timecode(picture->timecode->timecode) : "",
                      read)
                << "picture " << pictures;
            EXPECT_FALSE(picture->timecode && picture->timecode->of_gop);
            pictures++;
        }
        EXPECT_EQ(pictures, 5);
    }
}

TEST_F(Reading, EndsWhenItIsStopped) {
    bool stop = false;
    Input input(mkv(regular(60)), {}, [&] { return stop; });
    for (int n = 0; n < 5; n++) ASSERT_TRUE(input.next());
    stop = true;
    EXPECT_FALSE(input.next());
    EXPECT_EQ(input.problem(), "");
}

}  // namespace
