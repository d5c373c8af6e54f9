// Nothing is lost: every EIA-608 word, CEA-708 construct, SCTE-20 block, time code and tag that an encoder
// accepts bears a serial number, and independent decoders find each once, in order, on its picture. What the
// interface states as lost is counted, and has a test of its own.
//
// Under a frame-rate divider all of this holds but for the tag, which a unit takes from the picture that has
// the number of its pts, where there is one. The campaign asks for just that tag, and counts those that no
// unit or only another picture's unit has shown.
//
// Left out: timestamps that leap, repeat or go back (timestamps_test), pictures dropped for the bit rate
// (write_video_test), a host that has GOPs follow its own (write_video_test), H.265, which carries nothing,
// and divided sources that do not begin at 0, of which the interface promises nothing.

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/caption_blocks.h"
#include "support/mpeg2_units.h"
#include "support/recording_host.h"
#include "support/serial_host.h"
#include "support/serial_intake.h"
#include "support/serial_numbers.h"
#include "support/serial_streams.h"
#include "support/stderr_capture.h"

namespace gsve::test {
namespace {

/// The same numbers everywhere, unlike the standard's distributions.
class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    uint64_t below(uint64_t limit) { return engine_() % limit; }
    bool one_in(unsigned n) { return below(n) == 0; }
    /// A whole number with this mean.
    unsigned around(double mean) {
        return static_cast<unsigned>(mean + static_cast<double>(below(1000)) / 1000);
    }
    template <typename T>
    T pick(std::initializer_list<T> choices) {
        return choices.begin()[below(choices.size())];
    }

private:
    std::mt19937_64 engine_;
};

uint64_t environment_number(const char* name, uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 10) : otherwise;
}

struct Configuration {
    uint64_t index;
    std::string codec;
    Rate rate;
    std::string b_frames;
    bool closed_gop;

    bool is_mpeg2() const { return codec == "mpeg-2"; }
    std::string name() const {
        std::string text = codec + "_" + std::to_string(rate.num) + "_" + std::to_string(rate.den) + "_b_" +
                           b_frames + (closed_gop ? "_closed" : "_open");
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
        return text;
    }
};

void PrintTo(const Configuration& configuration, std::ostream* out) { *out << configuration.name(); }

std::vector<Configuration> configurations() {
    std::vector<Configuration> made;
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const Rate& rate : {Rate{24000, 1001, 1}, Rate{25, 1, 1}, Rate{30000, 1001, 1}, Rate{50, 1, 1},
                                 Rate{60000, 1001, 1}})
            for (const char* b_frames : {"0", "2", "5"})
                for (const bool closed_gop : {false, true})
                    made.push_back({made.size(), codec, rate, b_frames, closed_gop});
    return made;
}

/// How a run is closed, or reopened.
enum class End { drained, partly_drained, cut_off };

/// One opening of the encoder.
struct Run {
    uint64_t number;
    std::vector<std::pair<std::string, std::string>> settings;
    unsigned divider = 1;
    bool cea708 = true;
    bool eia608 = true;
    bool cc_on_p = true;
    int flags = -1;
    unsigned pictures = 0;
    uint64_t first_timestamp = 0;
    double fill = 1;  ///< of what the pictures can take
    End end = End::drained;

    std::string text() const {
        std::string line = "run " + std::to_string(number) + ", " + std::to_string(pictures) +
                           " pictures, first timestamp " + std::to_string(first_timestamp) + ", fill " +
                           std::to_string(fill) + ", " +
                           (end == End::drained   ? "drained"
                            : end == End::cut_off ? "cut off"
                                                  : "partly drained");
        for (const auto& [key, value] : settings) line += ", " + key + "=" + value;
        return line;
    }
};

/// What a campaign came to.
struct Totals {
    uint64_t written = 0;  ///< pictures given
    uint64_t encoded = 0;
    uint64_t units = 0;  ///< emitted
    uint64_t runs = 0;
    Accounts accounts;

    Totals& operator+=(const Totals& other) {
        written += other.written;
        encoded += other.encoded;
        units += other.units;
        runs += other.runs;
        accounts += other.accounts;
        return *this;
    }
};

/// A host that gives everything there is to give at random, run after run, and reads each run back.
class Campaign {
public:
    Campaign(Configuration configuration, uint64_t seed)
        : configuration_(std::move(configuration)), random_(seed) {
        av_log_set_level(AV_LOG_QUIET);
        describe_small_source(host_, configuration_.rate);
        configure(host_, {{"encoder", configuration_.codec.c_str()},
                          {"enable", "1"},
                          {"bitrate", "400000"},
                          {"maximum threads", "1"},
                          {"h.264 profile", "main"},
                          {"b frames", configuration_.b_frames.c_str()},
                          {"closed gop", configuration_.closed_gop ? "1" : "0"}});
    }
    ~Campaign() { host_.refcount = 0; }

    uint64_t encoded() const { return totals_.encoded; }

    /// One run from opening to closing, read back and held against what it was given.
    void run(unsigned pictures) {
        const Run run = plan(pictures);
        SCOPED_TRACE(run.text());
        const std::string said = stderr_of([&] {
            open(run);
            feed(run);
            close(run);
        });
        check_messages(said);
        if (testing::Test::HasFailure()) return;
        read(run);
        totals_.runs++;
        totals_.encoded += loads_.size();
        totals_.units += host_.units.size();
    }

    Totals end() {
        model_.end();
        totals_.accounts = model_.accounts;
        return totals_;
    }

private:
    Run plan(unsigned pictures) {
        Run run;
        run.number = totals_.runs;
        run.pictures = pictures;
        const auto set = [&](const char* key, const std::string& value) {
            run.settings.push_back({key, value});
        };
        run.divider = random_.pick({1u, 1u, 1u, 2u, 3u});
        const Rate& rate = configuration_.rate;
        set("frame rate limit",
            run.divider == 1 ? "0" : std::to_string(static_cast<int>(rate.real() / run.divider) + 1));
        run.cea708 = !random_.one_in(5);
        run.eia608 = !random_.one_in(3);
        run.cc_on_p = !random_.one_in(3);
        set("enable cea-708", run.cea708 ? "1" : "0");
        set("enable eia-608", run.eia608 ? "1" : "0");
        set("eia-608 on p-frames", run.cc_on_p ? random_.pick({"1", "-1"}) : "0");
        set("gop size", std::to_string(random_.one_in(4) ? 0 : 1 + random_.below(30)));
        set("constant bitrate per frame", random_.pick({"0", "1", "-1"}));
        set("h.264 aud", random_.pick({"0", "1"}));
        set("h.264 preset", random_.pick({"", "ultrafast", "ultrafast", "faster"}));
        set("remove trailing zeros", random_.pick({"0", "1"}));
        run.flags = rate.whole() <= 30 ? random_.pick({-1, -1, 0, 1}) : -1;
        // A divided source is to start at 0.
        if (run.divider == 1)
            run.first_timestamp = random_.pick<uint64_t>({0, 1, 1'000'000'007, UINT64_MAX / 2 - 20});
        run.fill = random_.pick({0.5, 0.9, 0.9, 1.0, 1.7});
        run.end = random_.pick({End::drained, End::drained, End::partly_drained, End::cut_off});
        return run;
    }

    void open(const Run& run) {
        host_.units.clear();
        host_.input_interlaced = run.flags >= 0;
        for (const auto& [key, value] : run.settings) host_.on_set(key.c_str(), value.c_str(), false);
        model_.close();
        EXPECT_FALSE(host_.encoder_open);
        give(run);  // while closed
        if (host_.refcount > 0 && random_.one_in(2)) {
            host_.on_set("enable", "1", true);
            model_.close();
        } else {
            host_.client_addref();
        }
        EXPECT_TRUE(host_.encoder_open) << host_.last_error;
        EXPECT_EQ(host_.frame_rate_divider, run.divider);
    }

    void feed(const Run& run) {
        loads_.clear();
        newest_.clear();
        last_tag_ = UINT64_MAX;
        Rate rate = configuration_.rate;
        rate.divider = run.divider;
        for (unsigned source = 0; source < run.pictures; source++) {
            give(run);
            if (random_.one_in(8)) give(run);
            const size_t before = host_.units.size();
            ASSERT_TRUE(write_small_picture(host_, run.first_timestamp + source, run.flags));
            if (host_.units.size() > before) newest_.push_back(loads_.size());
            if (source % run.divider == 0) loads_.push_back(model_.take(rate, loads_.size()));
            last_tag_ = host_.units.size() > before ? host_.units.back().tag : UINT64_MAX;
        }
        totals_.written += run.pictures;
        undrained_ = host_.units.size();
    }

    /// What comes to a host between two pictures.
    void give(const Run& run) {
        Rate rate = configuration_.rate;
        rate.divider = run.divider;
        for (const unsigned field : {0u, 1u}) {
            unsigned words = random_.around(run.fill / run.divider * (rate.whole() > 39 ? 0.45 : 0.9));
            if (random_.one_in(40)) words += 4;
            for (; words > 0; words--) give_word(field);
        }
        if (random_.one_in(20)) host_.write_eia608(static_cast<uint8_t>(2 + random_.below(254)), 0x4142);
        if (random_.one_in(2)) {
            const unsigned room = cc_count(rate) - (rate.whole() > 40 ? 1 : 2);
            give_constructs(random_.around(run.fill / run.divider * 1.8 * room) +
                            (random_.one_in(400) ? static_cast<unsigned>(random_.below(300)) : 0));
        }
        if (!random_.one_in(3)) give_block();
        if (random_.one_in(2)) {
            host_.write_mpeg2_gop_timecode(numbered_timecode(timecodes_));
            model_.timecode(timecodes_++);
        }
        if (!random_.one_in(5)) {
            host_.host_frame_tag = tags_;
            model_.tag(tags_++);
        }
    }

    void give_word(unsigned field) {
        const bool padding = random_.one_in(12);
        // Parity is the encoder's business.
        const auto parity = static_cast<uint16_t>(random_.pick({0x0000, 0x8080, 0x8000, 0x0080}));
        const auto word = padding ? random_.pick<uint16_t>({0x0000, 0x8080})
                                  : static_cast<uint16_t>(numbered_word(words_[field]) | parity);
        host_.write_eia608(static_cast<uint8_t>(field), word);
        model_.word(host_.encoder_open, field, padding ? std::nullopt : std::optional(words_[field]++));
    }

    void give_constructs(unsigned count) {
        std::vector<zeph_cea708_word> constructs;
        std::vector<std::optional<Serial>> serials;
        for (unsigned i = 0; i < count; i++) {
            if (random_.one_in(20)) {
                constructs.push_back({random_.pick<uint8_t>({0xFC, 0xFD, 0xFA, 0xF8}), 0x4142});
                serials.push_back(std::nullopt);
            } else {
                constructs.push_back(numbered_construct(constructs_));
                serials.push_back(constructs_++);
            }
        }
        host_.write_cea708(count, constructs.data());
        model_.constructs(host_.encoder_open, serials);
    }

    void give_block() {
        const size_t size = random_.one_in(30)   ? 1025 + random_.below(100)
                            : random_.one_in(30) ? 0
                            : random_.one_in(10) ? 1024 - random_.below(3)
                                                 : kSmallestBlock + random_.below(40);
        Bytes body = size == 0 ? Bytes{} : numbered_block(blocks_, size);
        host_.write_scte20(body.data(), body.size());
        model_.block(blocks_++, body);
    }

    void close(const Run& run) {
        if (run.end == End::drained)
            while (host_.flush_delayed_video()) {
            }
        if (run.end == End::partly_drained) host_.flush_delayed_video();
        switch (random_.below(3)) {
            case 0:
                while (host_.refcount > 0) host_.client_unref();
                break;
            case 1: host_.free_encoder(); break;
            default: host_.on_set("noise reduction", "5", false);
        }
        model_.close();
    }

    void check_messages(const std::string& said) {
        EXPECT_EQ(count_of(said, "[gsve] EIA-608 incoming overflow"), model_.word_overflows);
        EXPECT_EQ(count_of(said, "[gsve] CEA-708 incoming overflow"), model_.construct_overflows);
        EXPECT_EQ(count_of(said, "[gsve] CEA-708 incoming too many words"), model_.construct_truncations);
        EXPECT_EQ(count_of(said, "[gsve]"),
                  model_.word_overflows + model_.construct_overflows + model_.construct_truncations);
        EXPECT_EQ(count_of(said, "WARNING"), 0u);
        model_.word_overflows = model_.construct_overflows = model_.construct_truncations = 0;
    }

    /// The number, counted from 0 in the run, of the picture whose unit this is. Drained units count encoded
    /// pictures where the codec's timestamps are not mapped.
    size_t number_of(const Run& run, size_t unit) const {
        const int64_t pts = host_.units[unit].pts;
        const bool counts_encoded = unit >= undrained_ && !host_.per_frame_rate_control;
        EXPECT_TRUE(counts_encoded || pts % run.divider == 0) << "unit " << unit << ", pts " << pts;
        return static_cast<size_t>(counts_encoded ? pts : pts / run.divider);
    }

    void read(const Run& run) {
        const bool mpeg2 = configuration_.is_mpeg2();
        Rate rate = configuration_.rate;
        rate.divider = run.divider;

        std::vector<Unit> units = host_.units;
        std::vector<bool> carries(loads_.size()), starts_gop(loads_.size()), seen(loads_.size());
        for (size_t i = 0; i < units.size(); i++) {
            const size_t number = number_of(run, i);
            ASSERT_LT(number, loads_.size()) << "unit " << i;
            ASSERT_FALSE(seen[number]) << "picture " << number << " came twice";
            seen[number] = true;
            carries[number] = i < undrained_;
            starts_gop[number] = mpeg2 && coding_type(units[i].bytes) == AV_PICTURE_TYPE_I;
            units[i].pts = static_cast<int64_t>(number);
        }
        if (run.end == End::drained) {
            ASSERT_EQ(units.size(), loads_.size());
        }

        std::vector<unsigned> cc_counts(units.size());
        if (run.cea708) std::fill_n(cc_counts.begin(), undrained_, cc_count(rate));
        const FoundItems found =
            items_by_libavcodec(mpeg2 ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_H264, units, cc_counts);
        EXPECT_EQ(found.decoded, units.size());
        EXPECT_THAT(found.errors, testing::IsEmpty());

        std::vector<Placed> words[2], constructs, blocks, timecodes, tags, found_tags;
        std::vector<bool> tag_shown(loads_.size());
        for (size_t number = 0; number < loads_.size(); number++) {
            const PictureLoad& load = loads_[number];
            if (!carries[number]) continue;
            if (run.cea708) {
                for (const int field : {0, 1})
                    if (load.words[field]) words[field].push_back({*load.words[field], number});
                for (const Serial serial : load.constructs) constructs.push_back({serial, number});
            }
            if (mpeg2 && load.block) blocks.push_back({*load.block, number});
            if (starts_gop[number] && load.timecode) timecodes.push_back({*load.timecode, number});
        }
        for (size_t i = 0; i < units.size(); i++) {
            const auto number = static_cast<size_t>(units[i].pts);
            if (mpeg2) check_bodies(units[i].bytes, number, carries[number]);
            if (i >= undrained_) {
                EXPECT_EQ(units[i].tag, last_tag_) << "unit " << i << ", drained";
                continue;
            }
            const size_t looked_up = looked_up_by(i);
            if (looked_up < loads_.size() && loads_[looked_up].tag) {
                tags.push_back({*loads_[looked_up].tag, number});
                tag_shown[looked_up] = true;
            }
            if (units[i].tag != UINT64_MAX) found_tags.push_back({units[i].tag, number});
        }
        for (const int field : {0, 1})
            EXPECT_EQ(difference(kKinds[field], words[field], found.words[field]), "") << "in cc_data";
        EXPECT_EQ(difference(kConstruct, constructs, found.constructs), "");
        EXPECT_EQ(difference(kBlock, blocks, found.blocks), "");
        EXPECT_EQ(difference(kTimecode, timecodes, found.timecodes), "");
        EXPECT_EQ(difference(kTag, tags, found_tags), "");
        const size_t cc_end = mpeg2 ? check_cc(run, units, rate, found.cc) : 0;
        account(run, carries, starts_gop, cc_end, tag_shown);
    }

    /// The encoded picture whose tag a unit shows: the one with the number of the unit's pts, which counts
    /// source pictures. SIZE_MAX where that one had not come yet, or was too long ago.
    size_t looked_up_by(size_t unit) const {
        const auto number = static_cast<size_t>(host_.units[unit].pts);
        return number <= newest_[unit] && number + 60 >= newest_[unit] ? number : SIZE_MAX;
    }

    void check_bodies(const Bytes& unit, size_t number, bool carries) {
        const auto bodies = mpeg2_user_data(unit).bodies;
        const PictureLoad& load = loads_[number];
        if (!carries || !load.block) {
            EXPECT_TRUE(bodies.empty()) << "SCTE-20 on picture " << number;
        } else {
            ASSERT_EQ(bodies.size(), 1u) << "SCTE-20 block #" << *load.block << " of picture " << number;
            EXPECT_EQ(hex(bodies[0]), hex(load.block_body))
                << "block #" << *load.block << ", picture " << number;
        }
    }

    /// "CC" user data carries the words of all pictures before the dts of the last picture that may. Returns
    /// where they end.
    size_t check_cc(const Run& run, const std::vector<Unit>& units, const Rate& rate,
                    const std::vector<WordPair>& by_libavcodec) {
        size_t end = 0;
        std::vector<WordPair> by_bytes;
        for (size_t i = 0; i < units.size(); i++) {
            const int type = coding_type(units[i].bytes);
            const bool may = type == AV_PICTURE_TYPE_I || (type == AV_PICTURE_TYPE_P && run.cc_on_p);
            if (may && i < undrained_ && run.eia608 && rate.whole() <= 33)
                end = std::max(end, static_cast<size_t>(std::max<int64_t>(units[i].dts, 0) / run.divider));
            const auto cc = mpeg2_user_data(units[i].bytes).cc;
            by_bytes.insert(by_bytes.end(), cc.begin(), cc.end());
        }
        EXPECT_LE(end, loads_.size());
        for (const auto& read : {by_libavcodec, by_bytes}) {
            EXPECT_EQ(read.size(), end) << "pictures in \"CC\" user data";
            for (const int field : {0, 1}) {
                std::vector<Placed> expected, found;
                for (size_t number = 0; number < end; number++)
                    if (loads_[number].words[field])
                        expected.push_back({*loads_[number].words[field], number});
                for (size_t number = 0; number < read.size(); number++)
                    if (read[number].words[field]) found.push_back({*read[number].words[field], number});
                EXPECT_EQ(difference(kKinds[field], expected, found), "") << "in \"CC\" user data";
            }
        }
        return end;
    }

    /// Counts where this run's items went.
    void account(const Run& run, const std::vector<bool>& carries, const std::vector<bool>& starts_gop,
                 size_t cc_end, const std::vector<bool>& tag_shown) {
        const bool mpeg2 = configuration_.is_mpeg2();
        const auto count = [](Account& account, size_t items, bool served, bool out) {
            (!served ? account.not_carried : out ? account.read : account.left_behind) += items;
        };
        Accounts& accounts = model_.accounts;
        for (size_t number = 0; number < loads_.size(); number++) {
            const PictureLoad& load = loads_[number];
            const bool out = carries[number];
            for (const int field : {0, 1})
                count(accounts.words[field], load.words[field].has_value(),
                      run.cea708 || (mpeg2 && run.eia608 && cc_end > 0),
                      (run.cea708 && out) || number < cc_end);
            count(accounts.constructs, load.constructs.size(), run.cea708, out);
            count(accounts.blocks, load.block.has_value(), mpeg2, out);
            count(accounts.timecodes, load.timecode.has_value(), mpeg2 && (!out || starts_gop[number]), out);
            // Only the first picture of a divided source has the number of its pts.
            const bool own_number = run.divider == 1 || number == 0;
            if (!own_number && tag_shown[number])
                accounts.tags.elsewhere++;
            else
                count(accounts.tags, load.tag.has_value(), own_number || !out, out);
        }
    }

    Configuration configuration_;
    Random random_;
    RecordingHost host_;
    IntakeModel model_;
    Totals totals_;
    Serial words_[2] = {0, 0}, constructs_ = 0, blocks_ = 0, timecodes_ = 0, tags_ = 0;
    std::vector<PictureLoad> loads_;  ///< of the pictures encoded in this run
    size_t undrained_ = 0;            ///< units that came while pictures went in
    std::vector<size_t> newest_;      ///< of each of these, the number of the picture that then went in
    uint64_t last_tag_ = UINT64_MAX;  ///< what the last picture that went in left
};

/// GSVE_CAMPAIGN_PICTURES and GSVE_CAMPAIGN_SEED make it longer, and different.
class NothingLost : public testing::TestWithParam<Configuration> {
protected:
    static void SetUpTestSuite() {
        totals() = Totals{};
        started() = Clock::now();
    }
    static void TearDownTestSuite() {
        const double seconds = std::chrono::duration<double>(Clock::now() - started()).count();
        const Totals& t = totals();
        std::printf("seed %llu: %llu pictures given, %llu encoded in %llu runs, %llu units, %.1f s\n",
                    static_cast<unsigned long long>(seed()), static_cast<unsigned long long>(t.written),
                    static_cast<unsigned long long>(t.encoded), static_cast<unsigned long long>(t.runs),
                    static_cast<unsigned long long>(t.units), seconds);
        std::printf("%-24s %10s %10s %10s %10s %10s %10s %10s %10s %6s\n", "", "given", "read", "refused",
                    "overflow", "replaced", "in codec", "unserved", "elsewhere", "lost");
        Accounts accounts = t.accounts;
        for (size_t i = 0; i < kKinds.size(); i++) {
            const Account& a = *accounts.all()[i];
            std::printf("%-24s", kKinds[i].name);
            for (const uint64_t n : {a.given, a.read, a.refused, a.overflowed, a.replaced, a.left_behind,
                                     a.not_carried, a.elsewhere})
                std::printf(" %10llu", static_cast<unsigned long long>(n));
            std::printf(" %6lld\n", static_cast<long long>(a.given - a.accounted()));
            // A selection of configurations may have no place for a kind.
            const auto* suite = testing::UnitTest::GetInstance()->current_test_suite();
            EXPECT_TRUE(a.read > 0 || suite->test_to_run_count() < suite->total_test_count());
        }
    }

    using Clock = std::chrono::steady_clock;
    static Totals& totals() {
        static Totals sum;
        return sum;
    }
    static Clock::time_point& started() {
        static Clock::time_point time;
        return time;
    }
    static uint64_t seed() { return environment_number("GSVE_CAMPAIGN_SEED", 20260101); }
};

TEST_P(NothingLost, IsFoundByDecodersOnceInOrderOnItsPicture) {
    const uint64_t all = environment_number("GSVE_CAMPAIGN_PICTURES", 6000);
    const uint64_t budget = all / configurations().size() + 1;
    SCOPED_TRACE("GSVE_CAMPAIGN_SEED=" + std::to_string(seed()) +
                 " GSVE_CAMPAIGN_PICTURES=" + std::to_string(all));
    Campaign campaign(GetParam(), seed() * 1000 + GetParam().index);
    Random lengths(seed() * 1000 + 500 + GetParam().index);
    while (campaign.encoded() < budget && !HasFailure())
        campaign.run(static_cast<unsigned>(1 + lengths.below(lengths.one_in(8) ? 1000 : 150)));
    if (HasFailure()) return;

    Totals result = campaign.end();
    for (size_t kind = 0; kind < kKinds.size(); kind++) {
        const Account& account = *result.accounts.all()[kind];
        EXPECT_EQ(account.given, account.accounted()) << kKinds[kind].name;
    }
    totals() += result;
}

INSTANTIATE_TEST_SUITE_P(Campaign, NothingLost, testing::ValuesIn(configurations()),
                         [](const auto& info) { return info.param.name(); });

}  // namespace
}  // namespace gsve::test
