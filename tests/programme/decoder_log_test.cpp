// What decoders say about the units that they are given.

#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programme/av.h"
#include "programme/damage_finder.h"
#include "programme/decoder_log.h"

namespace {

using gsve::CodecContextPtr;
using gsve::programme::DamageFinder;
using gsve::programme::DecoderLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(DecoderLog, TellsComplaintsAboutDataFromThoseAboutReferences) {
    DecoderLog log(DecoderLog::Lines::kSwallowed);
    const CodecContextPtr decoder(avcodec_alloc_context3(nullptr));
    const struct {
        int level;
        const char* line;
        unsigned complaint;  ///< 0: none
    } rows[] = {
        {AV_LOG_ERROR, "error while decoding MB %d %d", DamageFinder::kOfData},
        {AV_LOG_INFO, "concealing %d DC, %d AC, %d MV errors", DamageFinder::kOfData},
        {AV_LOG_ERROR, "concealing", DamageFinder::kOfData},
        {AV_LOG_ERROR, "Missing reference picture, default is %d", DamageFinder::kOfReferences},
        {AV_LOG_FATAL, "number of reference frames (%d+%d) exceeds max", DamageFinder::kOfReferences},
        {AV_LOG_INFO, "Missing reference picture, default is %d", 0},
        {AV_LOG_INFO, "using cpu capabilities", 0},
        {AV_LOG_WARNING, "error while decoding MB %d %d", 0},
        {AV_LOG_DEBUG, "concealing", 0},
    };
    int64_t unit = 0;
    for (const auto& row : rows) {
        log.expect(*decoder, ++unit);
        av_log(decoder.get(), row.level, row.line, 1, 2, 3);
        const auto said = log.take();
        if (row.complaint == 0)
            EXPECT_THAT(said, IsEmpty()) << row.line;
        else
            EXPECT_THAT(said, ElementsAre(Pair(unit, row.complaint))) << row.line;
    }
}

TEST(DecoderLog, KeepsOneOfEqualComplaintsAndTheirOrder) {
    DecoderLog log(DecoderLog::Lines::kSwallowed);
    const CodecContextPtr decoder(avcodec_alloc_context3(nullptr));
    av_log(decoder.get(), AV_LOG_ERROR, "before any unit");
    for (const int64_t unit : {3, 3, 4, 3}) {
        log.expect(*decoder, unit);
        av_log(decoder.get(), AV_LOG_ERROR, "bad");
    }
    using Said = std::pair<int64_t, unsigned>;
    EXPECT_THAT(log.take(), ElementsAre(Said(3, DamageFinder::kOfData), Said(4, DamageFinder::kOfData),
                                        Said(3, DamageFinder::kOfData)));
    EXPECT_THAT(log.take(), IsEmpty());
}

}  // namespace
