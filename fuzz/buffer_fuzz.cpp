// Any units, of any codec, in the checker of decoder buffers. The first byte chooses the codec, the second
// and third how the rest is cut into units; what is told of them adds up.

#include <cmath>

#include "input.h"
#include "programme/buffer_checker.h"

namespace {

using namespace gsve::programme;

constexpr AVCodecID kCodecs[] = {AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_MPEG1VIDEO,
                                 AV_CODEC_ID_HEVC};

void check_account(const BufferAccount& account, const BufferVerdict& verdict) {
    GSVE_FUZZ_REQUIRE(account.bit_rate > 0 && account.size > 0);
    GSVE_FUZZ_REQUIRE(std::isfinite(account.initial_delay) && account.initial_delay >= 0);
    int64_t unit = 0;
    for (const BufferFullness& now : account.course) {
        GSVE_FUZZ_REQUIRE(now.unit >= unit && now.unit < verdict.units);
        GSVE_FUZZ_REQUIRE(now.bits > 0 && std::isfinite(now.seconds));
        GSVE_FUZZ_REQUIRE(now.before <= account.greatest);
        GSVE_FUZZ_REQUIRE(!now.arriving || now.after() >= account.least);
        unit = now.unit;
    }
    size_t listed = 0;
    for (const BufferFinding& finding : account.findings) {
        const auto kind = static_cast<size_t>(finding.kind);
        GSVE_FUZZ_REQUIRE(finding.bits > 0 && finding.bits <= account.most[kind]);
        GSVE_FUZZ_REQUIRE(finding.unit >= 0 && finding.unit < verdict.units);
        listed++;
    }
    int64_t faults = 0;
    for (const int64_t count : account.faults) faults += count;
    GSVE_FUZZ_REQUIRE(listed <= static_cast<size_t>(faults) && account.holds() == (faults == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    gsve::fuzz::Input input(data, size);
    BufferChecker checker(input.one_of(kCodecs));
    const size_t cut = input.u16();
    int64_t units = 0;
    for (; !input.empty(); units++) checker.unit(input.bytes(cut + 1));
    const BufferVerdict verdict = checker.finish();
    GSVE_FUZZ_REQUIRE(verdict.units == units && verdict.unreadable >= 0 && verdict.unreadable <= units);
    GSVE_FUZZ_REQUIRE((verdict.state == BufferVerdict::State::kChecked) == !verdict.accounts.empty());
    for (const BufferAccount& account : verdict.accounts) check_account(account, verdict);
    return 0;
}
