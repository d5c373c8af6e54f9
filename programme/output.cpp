#include "programme/output.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"
#include "programme/file_name.h"
#include "programme/output_file.h"

namespace gsve::programme {
namespace {

constexpr std::array kFormats = {
    OutputFormat{".m2v", "mpeg-2", ""},   OutputFormat{".h264", "h.264", ""},
    OutputFormat{".264", "h.264", ""},    OutputFormat{".h265", "h.265", ""},
    OutputFormat{".265", "h.265", ""},    OutputFormat{".hevc", "h.265", ""},
    OutputFormat{".ts", "", "mpegts"},    OutputFormat{".mp4", "", "mp4"},
    OutputFormat{".mkv", "", "matroska"},
};

std::string lower_case(std::string text) {
    for (char& letter : text) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return text;
}

/// The units as they come, one after the other.
class ElementaryStreamFile final : public Output {
public:
    explicit ElementaryStreamFile(const std::string& path)
        : output_(path), file_(std::fopen(output_.written_path().c_str(), "wb")) {
        if (!file_) fail_to_write(output_.path(), AVERROR(errno));
    }

    void write(const encoding::EncodedUnit& unit) override {
        if (std::fwrite(unit.bytes.data(), 1, unit.bytes.size(), file_.get()) != unit.bytes.size())
            fail_to_write(output_.path(), AVERROR(errno));
    }

    void finish() override {
        if (std::fclose(file_.release()) != 0) fail_to_write(output_.path(), AVERROR(errno));
        output_.commit();
    }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    OutputFile output_;
    std::unique_ptr<std::FILE, Close> file_;
};

class Container final : public Output {
public:
    Container(const std::string& muxer, const std::string& path, const encoding::PictureEncoder& encoder)
        : file_(path),
          picture_duration_(encoder.frame_rate_divider),
          source_time_base_{encoder.frame_rate_den, encoder.frame_rate_num} {
        AVFormatContext* context = nullptr;
        const std::string url = file_url(file_.written_path());
        check(avformat_alloc_output_context2(&context, nullptr, muxer.c_str(), url.c_str()));
        output_.reset(context);
        add_stream(encoder);
        check(avio_open(&context->pb, url.c_str(), AVIO_FLAG_WRITE));
        context->max_delay = AV_TIME_BASE * 7 / 10;  // a transport stream's clock runs this far ahead
        check(avformat_write_header(context, nullptr));
    }

    void write(const encoding::EncodedUnit& unit) override {
        // Lent for the call: with a single stream, nothing is held back for interleaving.
        packet_->data = const_cast<uint8_t*>(unit.bytes.data());
        packet_->size = static_cast<int>(unit.bytes.size());
        packet_->pts = unit.pts;
        packet_->dts = unit.dts;
        packet_->duration = picture_duration_;
        packet_->flags = unit.key ? AV_PKT_FLAG_KEY : 0;
        packet_->stream_index = 0;
        av_packet_rescale_ts(packet_.get(), source_time_base_, output_->streams[0]->time_base);
        check(av_write_frame(output_.get(), packet_.get()));
    }

    void finish() override {
        check(av_write_trailer(output_.get()));
        check(avio_closep(&output_->pb));
        file_.commit();
    }

private:
    void add_stream(const encoding::PictureEncoder& encoder) {
        AVStream* stream = avformat_new_stream(output_.get(), nullptr);
        check_memory(stream != nullptr);
        check(avcodec_parameters_from_context(stream->codecpar, encoder.mpeg_context));
        stream->codecpar->codec_tag = 0;
        const bool interlaced = encoder.input_interlaced && encoder.resize_deinterlace < 0;
        if (!interlaced)
            stream->codecpar->field_order = AV_FIELD_PROGRESSIVE;
        else if (encoder.current_field_order == 2)
            stream->codecpar->field_order = AV_FIELD_BB;
        stream->time_base = source_time_base_;
        stream->avg_frame_rate = {encoder.frame_rate_num,
                                  encoder.frame_rate_den * static_cast<int>(encoder.frame_rate_divider)};
        stream->sample_aspect_ratio = stream->codecpar->sample_aspect_ratio;
    }

    void check(int result) const {
        if (result < 0) fail_to_write(file_.path(), result);
    }

    OutputFile file_;
    int64_t picture_duration_;
    AVRational source_time_base_;
    PacketPtr packet_ = new_packet();
    OutputPtr output_;
};

}  // namespace

bool OutputFormat::wants_global_header() const {
    const AVOutputFormat* container =
        muxer.empty() ? nullptr : av_guess_format(muxer.data(), nullptr, nullptr);
    return container && (container->flags & AVFMT_GLOBALHEADER);
}

OutputFormat output_format(const std::string& path) {
    const std::string extension = lower_case(std::filesystem::path(path).extension());
    for (const OutputFormat& format : kFormats)
        if (format.extension == extension) return format;
    std::vector<std::string_view> known;
    known.reserve(kFormats.size());
    for (const OutputFormat& format : kFormats) known.push_back(format.extension);
    throw UsageError(fmt::format("{}: the output's name must end in one of {}", path, fmt::join(known, " ")));
}

void check_output(const std::string& path, const std::string& input) {
    output_format(path);
    std::error_code absent;
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (!directory.empty() && !std::filesystem::is_directory(directory, absent))
        throw Failure(fmt::format("cannot write {}: there is no directory {}; create it or name another",
                                  path, directory.string()));
    if (std::filesystem::is_directory(path, absent))
        throw Failure(fmt::format("cannot write {}: it is a directory; name a file", path));
    if (std::filesystem::equivalent(input, path, absent))
        throw UsageError("input and output are the same file");
}

std::unique_ptr<Output> open_output(const OutputFormat& format, const std::string& path,
                                    const encoding::PictureEncoder& encoder) {
    if (format.muxer.empty()) return std::make_unique<ElementaryStreamFile>(path);
    return std::make_unique<Container>(std::string(format.muxer), path, encoder);
}

}  // namespace gsve::programme
