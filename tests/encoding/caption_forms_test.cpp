// In which forms captions go out, and which settings would lose some of them.

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/caption_forms.h"
#include "encoding/error.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::encoding;
using gsve::test::stderr_of;
using testing::HasSubstr;

using Settings = std::vector<std::pair<std::string, std::string>>;

std::string forms_at(AVRational rate, int divider, const Settings& settings, bool scte20 = false) {
    PictureEncoder encoder("forms");
    encoder.describe_source({.width = 64, .height = 48, .frame_rate = rate});
    encoder.frame_rate_divider = static_cast<uint32_t>(divider);
    for (const auto& [key, value] : settings) encoder.apply(key, value);
    const CaptionForms forms = caption_forms(encoder, scte20);
    EXPECT_EQ(forms.pairs(), forms.cc || forms.cc_data || forms.scte20);
    return std::string(forms.cc ? "CC " : "") + (forms.cc_data ? "A/53 " : "") +
           (forms.scte20 ? "SCTE 20 " : "");
}

TEST(CaptionForms, FollowCodecSettingsAndRate) {
    const Settings both = {{"enable eia-608", "1"}, {"enable cea-708", "1"}};
    const auto with = [&](const char* codec) {
        Settings settings = both;
        settings.emplace_back("encoder", codec);
        return settings;
    };
    EXPECT_EQ(forms_at({30, 1}, 1, with("mpeg-2")), "CC A/53 ");
    EXPECT_EQ(forms_at({30, 1}, 1, with("h.264")), "A/53 ");
    EXPECT_EQ(forms_at({30, 1}, 1, with("h.265")), "A/53 ");
    EXPECT_EQ(forms_at({30, 1}, 1, with("mpeg-2"), true), "CC A/53 SCTE 20 ");
    EXPECT_EQ(forms_at({30, 1}, 1, {{"encoder", "h.265"}}, true), "A/53 SCTE 20 ");
    // "CC" user data goes up to 33 whole pictures a second.
    EXPECT_EQ(forms_at({33, 1}, 1, with("mpeg-2")), "CC A/53 ");
    EXPECT_EQ(forms_at({3399, 100}, 1, with("mpeg-2")), "CC A/53 ");
    EXPECT_EQ(forms_at({34, 1}, 1, with("mpeg-2")), "A/53 ");
    EXPECT_EQ(forms_at({60, 1}, 1, with("mpeg-2")), "A/53 ");
    EXPECT_EQ(forms_at({60, 1}, 2, with("mpeg-2")), "CC A/53 ");
    // As set.
    EXPECT_EQ(forms_at({30, 1}, 1, {{"encoder", "mpeg-2"}, {"enable eia-608", "0"}, {"enable cea-708", "0"}}),
              "");
    EXPECT_EQ(forms_at({30, 1}, 1, {{"encoder", "mpeg-2"}, {"enable eia-608", "1"}, {"enable cea-708", "0"}}),
              "CC ");
    EXPECT_EQ(forms_at({30, 1}, 1, {{"encoder", "mpeg-2"}, {"enable eia-608", "0"}, {"enable cea-708", "1"}}),
              "A/53 ");
}

// All pairs, unless a form beside A/53 has but one of each field, or pictures may be dropped.
TEST(CaptionForms, CarryAllPairsOfFilmInA53Alone) {
    const Settings a53 = {{"enable eia-608", "0"}, {"enable cea-708", "1"}};
    const struct {
        AVRational rate;
        int divider;
        Settings settings;
        bool scte20;
        bool all;
    } rows[] = {
        {{24, 1}, 1, {{"encoder", "mpeg-2"}}, false, true},
        {{24000, 1001}, 1, {{"encoder", "h.264"}}, false, true},
        {{48, 1}, 2, {{"encoder", "h.264"}}, false, true},
        {{24, 1}, 2, {{"encoder", "h.264"}}, false, false},
        {{25, 1}, 1, {{"encoder", "mpeg-2"}}, false, false},
        {{24, 1}, 1, {{"encoder", "h.265"}}, false, true},
        {{24, 1}, 1, {{"encoder", "mpeg-2"}}, true, false},
        {{24, 1}, 1, {{"encoder", "mpeg-2"}, {"enable eia-608", "1"}}, false, false},
        {{24, 1}, 1, {{"encoder", "mpeg-2"}, {"enable cea-708", "0"}}, false, false},
        {{24, 1}, 1, {{"encoder", "mpeg-2"}, {"drop frame for bitrate limit", "on"}}, false, false},
        {{24, 1}, 1, {{"encoder", "mpeg-2"}, {"bitrate", "100000"}}, false, true},
        {{24, 1},
         1,
         {{"encoder", "mpeg-2"}, {"drop frame for bitrate limit", "auto"}, {"bitrate", "750000"}},
         false,
         true},
        {{24, 1},
         1,
         {{"encoder", "mpeg-2"}, {"drop frame for bitrate limit", "auto"}, {"bitrate", "749999"}},
         false,
         false},
    };
    int number = 0;
    for (const auto& row : rows) {
        PictureEncoder encoder("forms");
        encoder.describe_source({.width = 64, .height = 48, .frame_rate = row.rate});
        encoder.frame_rate_divider = static_cast<uint32_t>(row.divider);
        for (const auto& [key, value] : a53) encoder.apply(key, value);
        for (const auto& [key, value] : row.settings) encoder.apply(key, value);
        EXPECT_EQ(caption_forms(encoder, row.scte20).line_rate,
                  row.all ? gsve::captions::LineRate::kFull : gsve::captions::LineRate::kPairOfEachField)
            << "row " << number;
        number++;
    }
}

TEST(ChooseCaptionForms, PutsThemIntoA53AloneUnlessDecidedOtherwise) {
    struct Row {
        AVRational rate;
        CaptionWish wish;
        Settings given;
        const char* forms;
    };
    const Row rows[] = {
        // Captions there are.
        {{30, 1}, {.wanted = true, .present = true}, {}, "A/53 "},
        {{25, 1}, {.wanted = true, .present = true}, {}, "A/53 "},
        {{25, 1}, {.wanted = true, .present = true, .scte20 = true}, {}, "A/53 SCTE 20 "},
        // There are none: as the encoder decides by the rate, and once at most.
        {{30, 1}, {.wanted = true, .present = false}, {}, "A/53 "},
        {{25, 1}, {.wanted = true, .present = false}, {}, ""},
        {{25, 1}, {.wanted = true, .present = false, .scte20 = true}, {}, "SCTE 20 "},
        // None are wanted.
        {{30, 1}, {.wanted = false, .present = true}, {}, ""},
        {{30, 1}, {.wanted = false, .present = false}, {}, ""},
        // Decided by the user.
        {{30, 1}, {.wanted = true, .present = true}, {{"enable eia-608", "1"}}, "CC A/53 "},
        {{30, 1}, {.wanted = true, .present = true}, {{"enable cea-708", "0"}}, "CC "},
        {{30, 1}, {.wanted = true, .present = true, .scte20 = true}, {{"enable cea-708", "0"}}, "SCTE 20 "},
        {{30, 1}, {.wanted = false, .present = true}, {{"enable eia-608", "1"}}, "CC "},
        {{30, 1}, {.wanted = false, .present = true}, {{"enable cea-708", "1"}}, "A/53 "},
        {{25, 1}, {.wanted = true, .present = false}, {{"enable eia-608", "1"}}, "CC "},
    };
    int number = 0;
    for (const Row& row : rows) {
        PictureEncoder encoder("forms");
        encoder.describe_source({.width = 64, .height = 48, .frame_rate = row.rate});
        encoder.frame_rate_divider = 1;
        encoder.apply("encoder", "mpeg-2");
        std::vector<std::string> decided;
        for (const auto& [key, value] : row.given) {
            encoder.apply(key, value);
            decided.push_back(key);
        }
        choose_caption_forms(encoder, row.wish, decided);
        const CaptionForms forms = caption_forms(encoder, row.wish.scte20);
        EXPECT_EQ(std::string(forms.cc ? "CC " : "") + (forms.cc_data ? "A/53 " : "") +
                      (forms.scte20 ? "SCTE 20 " : ""),
                  row.forms)
            << "row " << number;
        number++;
    }
}

class OpenedForCaptions : public testing::Test {
protected:
    void open(AVRational rate, const Settings& settings) {
        encoder.describe_source({.width = 64, .height = 48, .frame_rate = rate});
        for (const auto& [key, value] : Settings{{"encoder", "mpeg-2"},
                                                 {"bitrate", "1000000"},
                                                 {"enable", "1"},
                                                 {"maximum threads", "1"},
                                                 {"min bitrate", "0"}})
            encoder.apply(key, value);
        for (const auto& [key, value] : settings) encoder.apply(key, value);
        bool opened = false;
        const std::string said = stderr_of([&] { opened = encoder.open({}); });
        ASSERT_TRUE(opened) << encoder.last_error << said;
    }

    /// What check_caption_settings() says; empty where it accepts.
    std::string refusal() {
        try {
            check_caption_settings(encoder, caption_forms(encoder, false));
        } catch (const gsve::UsageError& error) {
            return error.what();
        }
        return "";
    }

    PictureEncoder encoder{"captions"};
};

TEST_F(OpenedForCaptions, CcUserDataMayReachBackAsFarAsRecordsAreKept) {
    open({30, 1}, {{"enable eia-608", "1"}, {"eia-608 on p-frames", "0"}});
    const struct {
        int b_frames, gop, allowed;
    } rows[] = {{0, 60, 60}, {0, 61, 60}, {1, 58, 58}, {1, 59, 58}, {2, 57, 57}, {2, 58, 57}, {2, 15, 57}};
    for (const auto& row : rows) {
        encoder.mpeg_context->max_b_frames = row.b_frames;
        encoder.effective_gop_size = row.gop;
        const std::string allowed = std::to_string(row.allowed);
        EXPECT_EQ(refusal(), row.gop <= row.allowed
                                 ? ""
                                 : "\"CC\" captions would come only every " + std::to_string(row.gop) +
                                       " pictures, and reach back " + allowed + ": set \"gop size\" to " +
                                       allowed +
                                       " or less, \"eia-608 on p-frames\" to 1, or \"enable eia-608\" to 0");
    }
    encoder.mpeg_context->max_b_frames = 2;  // as it was opened
}

TEST_F(OpenedForCaptions, CcUserDataOnPPicturesReachesBackOverTheBPicturesAlone) {
    open({30, 1}, {{"enable eia-608", "1"}});
    encoder.effective_gop_size = 500;
    EXPECT_EQ(refusal(), "");
    encoder.mpeg_context->max_b_frames = 29;
    EXPECT_EQ(refusal(), "");
    encoder.mpeg_context->max_b_frames = 30;
    EXPECT_THAT(refusal(), HasSubstr("only every 31 pictures, and reach back 29"));
    encoder.mpeg_context->max_b_frames = 2;
    encoder.eia608_enable = 0;
    encoder.eia608_on_p_frames = 0;
    EXPECT_EQ(refusal(), "");
}

TEST_F(OpenedForCaptions, DroppedPicturesRepeatCcUserDataUnlessPicturesAreCounted) {
    open({30, 1}, {{"enable eia-608", "1"}, {"drop frame for bitrate limit", "on"}});
    encoder.per_frame_rate_control = false;
    EXPECT_THAT(refusal(), HasSubstr("\"CC\" captions repeat those of dropped pictures here"));
    encoder.per_frame_rate_control = true;
    EXPECT_EQ(refusal(), "");
    encoder.per_frame_rate_control = false;
    encoder.eia608_enable = 0;
    EXPECT_EQ(refusal(), "");
    encoder.eia608_enable = 1;
    encoder.drop_frame_for_bitrate_limit = 0;
    EXPECT_EQ(refusal(), "");
    // Automatic: below 750000 bits/s.
    encoder.drop_frame_for_bitrate_limit = -1;
    encoder.bitrate = 750000;
    EXPECT_EQ(refusal(), "");
    encoder.bitrate = 749999;
    EXPECT_THAT(refusal(), HasSubstr("\"CC\" captions repeat"));
}

TEST_F(OpenedForCaptions, DroppedPicturesSwapFieldsWhereTheseAlternateAndPicturesAreCounted) {
    open({50, 1}, {{"drop frame for bitrate limit", "on"}});
    encoder.per_frame_rate_control = true;
    EXPECT_THAT(refusal(), HasSubstr("captions alternate between the fields"));
    encoder.per_frame_rate_control = false;
    EXPECT_EQ(refusal(), "");
    encoder.per_frame_rate_control = true;
    encoder.drop_frame_for_bitrate_limit = 0;
    EXPECT_EQ(refusal(), "");
    encoder.drop_frame_for_bitrate_limit = 1;
    encoder.frame_rate_divider = 2;
    EXPECT_EQ(refusal(), "");
    encoder.frame_rate_divider = 1;
}

}  // namespace
