// The host's planes are its own again as soon as write_video() returns. Whether the encoder copies a picture
// or reads it in place, it must not look at it later: here the planes become unreadable behind its back.

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/frozen_clock.h"
#include "support/recording_host.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::test {
namespace {

/// Bytes whose last one is followed by an unreadable page; unreadable as a whole once closed.
class Pages {
public:
    explicit Pages(const std::vector<uint8_t>& bytes) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        used_ = (bytes.size() + page - 1) / page * page;
        size_ = used_ + page;
        base_ = static_cast<uint8_t*>(
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        data_ = base_ + used_ - bytes.size();
        std::memcpy(data_, bytes.data(), bytes.size());
        mprotect(base_ + used_, page, PROT_NONE);
    }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;
    ~Pages() { munmap(base_, size_); }

    const uint8_t* data() const { return data_; }
    void close() { ASSERT_EQ(mprotect(base_, size_, PROT_NONE), 0); }

private:
    uint8_t* base_;
    uint8_t* data_;
    size_t used_;
    size_t size_;
};

struct Case {
    const char* codec;
    const char* chroma_format;
    const char* profile;
    int shift_x, shift_y;
    int width, height;
    const char* threads;
};

std::ostream& operator<<(std::ostream& out, const Case& c) {
    return out << c.codec << " " << c.chroma_format << " " << c.width << "x" << c.height << ", " << c.threads
               << " threads";
}

class PictureOwnership : public testing::TestWithParam<Case> {};

constexpr unsigned kPictures = 24;

/// The units of a short film, encoded with `take_away` called on each picture's planes after it was written.
template <class TakeAway>
std::vector<Unit> encode(const Case& c, const TakeAway& take_away) {
    RecordingHost host;
    describe_source(host, c.width, c.height, 25, 1);
    host.input_chroma_shift_x = static_cast<uint32_t>(c.shift_x);
    host.input_chroma_shift_y = static_cast<uint32_t>(c.shift_y);
    configure(host, {{"encoder", c.codec},
                     {"bitrate", "1500000"},
                     {"chroma format", c.chroma_format},
                     {"h.264 profile", c.profile},
                     {"maximum threads", c.threads},
                     {"enable", "1"}});
    EXPECT_TRUE(host.client_addref()) << host.last_error;

    std::vector<std::unique_ptr<Pages>>
        planes;  // stay mapped, so that a late read faults and hits nothing else
    for (unsigned number = 0; number < kPictures; number++) {
        const TestPicture picture(c.width, c.height, c.shift_x, c.shift_y, number);
        for (const auto* plane : {&picture.y, &picture.u, &picture.v})
            planes.push_back(std::make_unique<Pages>(*plane));
        const auto plane = planes.end() - 3;
        EXPECT_TRUE(host.write_video(plane[0]->data(), static_cast<size_t>(c.width), plane[1]->data(),
                                     static_cast<size_t>(picture.chroma_width), plane[2]->data(),
                                     static_cast<size_t>(picture.chroma_width), -1, number));
        for (int i = 0; i < 3; i++) take_away(*plane[i]);
    }
    while (host.flush_delayed_video()) {
    }
    host.client_unref();
    return host.units;
}

TEST_P(PictureOwnership, PlanesAreNotReadAfterTheCall) {
    const std::vector<Unit> kept = encode(GetParam(), [](Pages&) {});
    const std::vector<Unit> taken = encode(GetParam(), [](Pages& planes) { planes.close(); });
    ASSERT_EQ(kept.size(), kPictures);
    ASSERT_EQ(taken.size(), kPictures);
    // Rate control looks at what other threads have spent so far, so that only one thread repeats itself.
    if (GetParam().threads != std::string("1")) return;
    for (unsigned i = 0; i < kPictures; i++)
        EXPECT_EQ(taken[i].bytes, kept[i].bytes) << "unit " << i << " depends on planes that were taken away";
}

INSTANTIATE_TEST_SUITE_P(Codecs, PictureOwnership,
                         testing::Values(Case{"h.264", "4:2:0", "main", 1, 1, 322, 242, "1"},
                                         Case{"h.264", "4:2:0", "main", 1, 1, 318, 238, "3"},
                                         Case{"h.264", "4:2:2", "high422", 1, 0, 320, 180, "1"},
                                         Case{"h.264", "4:4:4", "high444", 0, 0, 162, 122, "1"},
                                         Case{"h.265", "4:2:0", "main", 1, 1, 322, 242, "1"},
                                         Case{"h.265", "4:2:0", "main", 1, 1, 318, 238, "3"},
                                         Case{"mpeg-2", "4:2:0", "", 1, 1, 322, 242, "1"},
                                         Case{"mpeg-2", "4:2:2", "", 1, 0, 318, 238, "3"}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST(PictureOwnership, NoCopyIsMadeForEncodersThatCopyThemselves) {
    for (const auto& [codec, claims] : {std::pair{"h.264", true}, {"h.265", true}, {"mpeg-2", false}}) {
        RecordingHost host;
        describe_source(host, 320, 240, 25, 1);
        configure(host, {{"encoder", codec}, {"bitrate", "1500000"}, {"enable", "1"}});
        ASSERT_TRUE(host.client_addref()) << codec;
        EXPECT_EQ(host.mpeg_frame->buf[0] != nullptr, claims) << codec;
        host.client_unref();
    }
}

TEST(MissingPlane, IsRefusedByTheCodecAndReadByNobody) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        for (const char* resize : {"", "32x32"}) {
            for (int missing = 0; missing < 3; missing++) {
                SCOPED_TRACE(std::string(codec) + " " + resize + ", plane " + std::to_string(missing));
                RecordingHost host;
                describe_source(host, 64, 64, 25, 1);
                configure(host, {{"encoder", codec},
                                 {"bitrate", "1500000"},
                                 {"h.264 profile", "main"},
                                 {"resize", resize},
                                 {"enable", "1"}});
                ASSERT_TRUE(host.client_addref());
                const TestPicture picture(64, 64, 1, 1, 0);
                const uint8_t* planes[] = {picture.y.data(), picture.u.data(), picture.v.data()};
                planes[missing] = nullptr;
                EXPECT_TRUE(host.write_video(planes[0], 64, planes[1], 32, planes[2], 32, 0, 0));
                for (uint64_t n = 1; n < 4; n++) {
                    EXPECT_TRUE(host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(),
                                                 32, 0, n));
                }
                while (host.flush_delayed_video()) {
                }
                EXPECT_EQ(host.units.size(), 3u);
                host.client_unref();
            }
        }
    }
}

/// What a host can see of what became of a picture, beside its unit.
std::string outcome(const GeneralStreamingVideoEncoder& e) {
    std::ostringstream text;
    text << "sent " << e.frame_counter << ' ' << e.encoded_frame_count << ", in " << e.input_frame_count
         << ", out " << e.output_frame_count << ", delays " << e.codec_delay_count << ", records "
         << e.aux_data_map.size() << ", times " << e.pts_map.size() << ", rate " << e.smoothed_bitrate
         << ", error \"" << e.last_error << '"';
    return text.str();
}

/// An encoder of one picture, for which `give` does write_video().
struct ShortRows {
    RecordingHost host;
    std::string said;  ///< while the picture was given

    template <class Give>
    ShortRows(int width, unsigned shift_x, unsigned shift_y,
              const std::vector<std::pair<const char*, const char*>>& settings, const Give& give) {
        describe_source(host, width, 48, 25, 1);
        host.input_chroma_shift_x = shift_x;
        host.input_chroma_shift_y = shift_y;
        configure(host, {{"encoder", "mpeg-2"}, {"bitrate", "1500000"}, {"b frames", "0"}, {"enable", "1"}});
        configure(host, settings);
        EXPECT_TRUE(host.client_addref()) << host.last_error;
        const TestPicture picture(width, 48, static_cast<int>(shift_x), static_cast<int>(shift_y), 0);
        said = stderr_of([&] { EXPECT_TRUE(give(host, picture)); });
        while (host.flush_delayed_video()) {
        }
    }
    ~ShortRows() { host.client_unref(); }
};

bool give(RecordingHost& host, const TestPicture& p, const uint8_t* y) {
    const int flags = host.resize_deinterlace >= 0 ? 0 : -1;
    const auto width = static_cast<size_t>(p.width), chroma_width = static_cast<size_t>(p.chroma_width);
    return host.write_video(y, width, p.u.data(), chroma_width, p.v.data(), chroma_width, flags, 0);
}
bool give_whole(RecordingHost& host, const TestPicture& p) { return give(host, p, p.y.data()); }
bool give_no_luma(RecordingHost& host, const TestPicture& p) { return give(host, p, nullptr); }

TEST(ShortRows, OfWorkingPlanesAreRefusedAsTheCodecRefusesOthers) {
    // Chroma of 33 samples takes 17, of which a stride of 16 has no room for the last.
    const struct {
        int width;
        unsigned shift_x, shift_y;
        std::vector<std::pair<const char*, const char*>> settings;
    } cases[] = {
        {64, 1, 1, {{"resize", "33x32"}}},         {64, 1, 1, {{"resize", "97x32"}}},
        {64, 1, 0, {{"resize", "33x32"}}},         {64, 0, 0, {{"resize", "65x32"}}},
        {33, 1, 1, {{"resize", "33x32"}}},         {33, 1, 1, {{"resize deinterlace", "3"}}},
        {33, 1, 1, {{"resize deinterlace", "4"}}}, {33, 1, 0, {{"chroma format", "4:2:0"}}},
        {33, 0, 0, {{"chroma format", "4:2:2"}}},
    };
    for (const auto& row : cases) {
        const ShortRows refused(row.width, row.shift_x, row.shift_y, row.settings, give_whole);
        SCOPED_TRACE(std::to_string(refused.host.output_width) + " of " + std::to_string(row.width) +
                     ", shifts " + std::to_string(row.shift_x) + " " + std::to_string(row.shift_y));
        ASSERT_NE(refused.host.resize_buffer[1], nullptr);
        EXPECT_EQ(refused.host.output_width % 32, 1);
        EXPECT_EQ(refused.host.resize_buffer_stride[1], static_cast<unsigned>(refused.host.output_width / 2));
        const ShortRows by_the_codec(row.width, row.shift_x, row.shift_y, row.settings, give_no_luma);
        EXPECT_TRUE(refused.host.units.empty());
        EXPECT_EQ(outcome(refused.host), outcome(by_the_codec.host));
        EXPECT_EQ(refused.host.encoded_frame_count, 1u);
        EXPECT_EQ(refused.said, "");
    }
}

TEST(ShortRows, OfTheHostsPlanesAreRefusedWhereLibavcodecCopiesThem) {
    for (int plane = 0; plane < 3; plane++) {
        const ShortRows refused(64, 1, 1, {}, [&](RecordingHost& host, const TestPicture& p) {
            const auto stride = [&](int of, size_t whole) { return of == plane ? whole - 1 : whole; };
            return host.write_video(p.y.data(), stride(0, 64), p.u.data(), stride(1, 32), p.v.data(),
                                    stride(2, 32), -1, 0);
        });
        const ShortRows by_the_codec(64, 1, 1, {}, give_no_luma);
        EXPECT_TRUE(refused.host.units.empty()) << "plane " << plane;
        EXPECT_EQ(outcome(refused.host), outcome(by_the_codec.host)) << "plane " << plane;
    }
}

TEST(ShortRows, AreThoseOfOneSampleMoreThanAMultipleOf32AndNoOthers) {
    for (int width = 16; width < 100; width++) {
        const std::string size = std::to_string(width) + "x32";
        const ShortRows one(64, 1, 1, {{"resize", size.c_str()}}, give_whole);
        EXPECT_EQ(one.host.units.size(), width % 32 == 1 ? 0u : 1u) << size;
        const ShortRows narrow(64, 0, 0, {{"resize", size.c_str()}}, give_whole);
        EXPECT_EQ(narrow.host.units.size(), width % 32 == 1 ? 0u : 1u) << size << ", 4:4:4 to 4:2:2";
        EXPECT_EQ(narrow.host.output_pixel_format, AV_PIX_FMT_YUV422P);
    }
}

TEST(ShortRows, DoNotStopThePicturesThatFollow) {
    RecordingHost host;
    describe_source(host, 64, 48, 25, 1);
    configure(host, {{"encoder", "mpeg-2"}, {"bitrate", "1500000"}, {"b frames", "0"}, {"enable", "1"}});
    ASSERT_TRUE(host.client_addref());
    const TestPicture p(64, 48, 1, 1, 0);
    for (uint64_t n = 0; n < 4; n++)
        EXPECT_TRUE(host.write_video(p.y.data(), 64, p.u.data(), n == 1 ? 31 : 32, p.v.data(), 32, -1, n));
    while (host.flush_delayed_video()) {
    }
    EXPECT_EQ(host.units.size(), 3u);
    host.client_unref();
}

}  // namespace
}  // namespace gsve::test
