#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/stream_converter.h"

namespace gsve::programme {
namespace {

/// AAC with a header in front of each frame, as transport streams have it, for a container that has one for
/// all of them.
class AacRepacker final : public StreamConverter {
public:
    AacRepacker(const AVStream& source, const AVPacket* first)
        : filter_(open(source)), form_(avcodec_parameters_alloc()), time_base_(source.time_base) {
        check_memory(form_ && avcodec_parameters_copy(form_.get(), filter_->par_out) >= 0);
        if (first) learn_header(source, *first);
        if (form_->extradata_size == 0)
            throw Failure(
                fmt::format("stream {} has no AAC header in front of its sound; --sound aac encodes "
                            "it anew",
                            source.index));
    }

    const AVCodecParameters& form() const override { return *form_; }
    AVRational time_base() const override { return time_base_; }
    uint64_t refused() const override { return refused_; }
    bool keeps_coding() const override { return true; }

    std::vector<PacketPtr> convert(const AVPacket* packet) override {
        std::vector<PacketPtr> packets;
        if (packet) repack(*filter_, *packet, packets);
        return packets;
    }

private:
    static BitstreamFilterPtr open(const AVStream& source) {
        AVBSFContext* filter = nullptr;
        check_memory(av_bsf_alloc(av_bsf_get_by_name("aac_adtstoasc"), &filter) >= 0);
        BitstreamFilterPtr owned(filter);
        check_memory(avcodec_parameters_copy(filter->par_in, source.codecpar) >= 0);
        filter->time_base_in = source.time_base;
        check_memory(av_bsf_init(filter) >= 0);
        return owned;
    }

    void repack(AVBSFContext& filter, const AVPacket& packet, std::vector<PacketPtr>& packets) {
        const PacketPtr given = new_packet();
        check_memory(av_packet_ref(given.get(), &packet) >= 0);
        if (av_bsf_send_packet(&filter, given.get()) < 0) {
            refused_++;
            return;
        }
        for (;;) {
            PacketPtr taken = new_packet();
            const int result = av_bsf_receive_packet(&filter, taken.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
            if (result < 0) {
                refused_++;
                return;
            }
            packets.push_back(std::move(taken));
        }
    }

    /// The header for all is made of the first frame's, and has to be known before any is written.
    void learn_header(const AVStream& source, const AVPacket& first) {
        const BitstreamFilterPtr filter = open(source);
        std::vector<PacketPtr> packets;
        repack(*filter, first, packets);
        if (packets.empty()) return;
        size_t size = 0;
        const uint8_t* header = av_packet_get_side_data(packets[0].get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
        if (!header) return;
        form_->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        check_memory(form_->extradata != nullptr);
        std::copy(header, header + size, form_->extradata);
        form_->extradata_size = static_cast<int>(size);
    }

    BitstreamFilterPtr filter_;
    ParametersPtr form_;
    AVRational time_base_;
    uint64_t refused_ = 0;
};

}  // namespace

std::unique_ptr<StreamConverter> repack_aac(const AVStream& source, const AVPacket* first) {
    return std::make_unique<AacRepacker>(source, first);
}

}  // namespace gsve::programme
