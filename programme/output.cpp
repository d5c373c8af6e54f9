#include "programme/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"
#include "programme/file_name.h"
#include "programme/output_file.h"
#include "programme/timeline.h"

namespace gsve::programme {
namespace {

constexpr std::array kFormats = {
    OutputFormat{".m2v", "mpeg-2", "", Container::kElementary},
    OutputFormat{".h264", "h.264", "", Container::kElementary},
    OutputFormat{".264", "h.264", "", Container::kElementary},
    OutputFormat{".h265", "h.265", "", Container::kElementary},
    OutputFormat{".265", "h.265", "", Container::kElementary},
    OutputFormat{".hevc", "h.265", "", Container::kElementary},
    OutputFormat{".ts", "", "mpegts", Container::kTransportStream},
    OutputFormat{".mp4", "", "mp4", Container::kMp4},
    OutputFormat{".mov", "", "mov", Container::kMov},
    OutputFormat{".mkv", "", "matroska", Container::kMatroska},
    OutputFormat{".mxf", "", "mxf", Container::kMxf},
};

std::string lower_case(std::string text) {
    for (char& letter : text) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return text;
}

/// The units as they come, one after the other.
class ElementaryStreamFile final : public Output {
public:
    explicit ElementaryStreamFile(const std::string& path)
        : output_(path),
          file_(is_standard_stream(path) ? fdopen(dup(STDOUT_FILENO), "wb")
                                         : std::fopen(output_.written_path().c_str(), "wb")) {
        if (!file_) fail_to_write(output_.path(), AVERROR(errno));
    }

    void write(const encoding::EncodedUnit& unit) override {
        if (std::fwrite(unit.bytes.data(), 1, unit.bytes.size(), file_.get()) != unit.bytes.size())
            fail_to_write(output_.path(), AVERROR(errno));
    }

    void pass(size_t, PacketPtr) override {}

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

/// Entries that name the file that was read, or how it was written.
bool is_of_the_file(std::string_view key) {
    constexpr std::string_view kKeys[] = {"major_brand", "minor_version", "compatible_brands", "encoder",
                                          "duration",    "handler_name",  "vendor_id",         "timecode"};
    return std::find(std::begin(kKeys), std::end(kKeys), key) != std::end(kKeys) ||
           key.starts_with("DURATION") || key.starts_with("_STATISTICS") || key.starts_with("NUMBER_OF_") ||
           key == "BPS";
}

void copy_metadata(AVDictionary*& to, const AVDictionary* from) {
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(from, "", entry, AV_DICT_IGNORE_SUFFIX)))
        if (!is_of_the_file(entry->key)) check_memory(av_dict_set(&to, entry->key, entry->value, 0) >= 0);
}

/// A container, through libavformat. What goes with the pictures waits until a unit of its time comes: the
/// multiplexers want their packets in the order of time, and hold back none.
class ContainerFile final : public Output {
public:
    ContainerFile(const OutputFormat& format, const std::string& path,
                  const encoding::PictureEncoder& encoder, const Companions& companions)
        : file_(path),
          edit_units_(format.container == Container::kMxf),
          picture_duration_(encoder.frame_rate_divider),
          source_time_base_{encoder.frame_rate_den, encoder.frame_rate_num},
          start_(companions.start),
          time_of_(companions.time_of) {
        AVFormatContext* context = nullptr;
        const std::string url = is_standard_stream(path) ? "pipe:1" : file_url(file_.written_path());
        check(avformat_alloc_output_context2(&context, nullptr, std::string(format.muxer).c_str(),
                                             url.c_str()));
        output_.reset(context);
        add_picture(encoder);
        for (const Companions::Stream& stream : companions.streams) add(stream);
        describe(companions);
        describe(companions.transport);
        check(avio_open(&context->pb, url.c_str(), AVIO_FLAG_WRITE));
        context->max_delay = AV_TIME_BASE * 7 / 10;  // a transport stream's clock runs this far ahead
        write_header(format.container, is_standard_stream(path), companions.transport);
        written_.resize(context->nb_streams);
    }

    void write(const encoding::EncodedUnit& unit) override {
        write_waiting(time_of(unit.dts));
        // Lent for the call: nothing is held back for interleaving.
        packet_->data = const_cast<uint8_t*>(unit.bytes.data());
        packet_->size = static_cast<int>(unit.bytes.size());
        packet_->pts = time_of(unit.pts);
        packet_->dts = time_of(unit.dts);
        packet_->duration = av_rescale_q(picture_duration_, source_time_base_, kTimeUnit);
        packet_->flags = unit.key ? AV_PKT_FLAG_KEY : 0;
        picture_end_ = std::max(picture_end_, packet_->pts + packet_->duration);
        write(*packet_, 0);
    }

    void pass(size_t stream, PacketPtr packet) override {
        packet->stream_index = static_cast<int>(stream) + 1;
        packet->pos = -1;
        const int64_t time = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        waiting_.emplace(time == AV_NOPTS_VALUE ? latest_ : time, std::move(packet));
    }

    void end_with_picture() override { waiting_.erase(waiting_.lower_bound(picture_end_), waiting_.end()); }

    uint64_t overlapping() const override { return overlapping_; }

    void finish() override {
        write_waiting(std::numeric_limits<int64_t>::max());
        check(av_write_trailer(output_.get()));
        check(avio_closep(&output_->pb));
        file_.commit();
    }

private:
    void add_picture(const encoding::PictureEncoder& encoder) {
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

    void add(const Companions::Stream& companion) {
        AVStream* stream = avformat_new_stream(output_.get(), nullptr);
        check_memory(stream != nullptr);
        check(avcodec_parameters_copy(stream->codecpar, companion.form));
        stream->codecpar->codec_tag = 0;
        stream->time_base = companion.form->sample_rate > 0 ? AVRational{1, companion.form->sample_rate}
                                                            : companion.source->time_base;
        stream->disposition = companion.source->disposition;
        copy_metadata(stream->metadata, companion.source->metadata);
    }

    void describe(const Companions& companions) {
        if (!companions.timecode.empty())
            check(av_dict_set(&output_->streams[0]->metadata, "timecode", companions.timecode.c_str(), 0));
        if (!companions.input) return;
        copy_metadata(output_->metadata, companions.input->metadata);
        if (companions.program) copy_metadata(output_->metadata, companions.program->metadata);
        for (unsigned n = 0; n < companions.input->nb_chapters; n++)
            add_chapter(*companions.input->chapters[n], companions.zero);
    }

    void add_chapter(const AVChapter& source, int64_t zero) {
        auto* chapter = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        check_memory(chapter != nullptr);
        av_dynarray_add(&output_->chapters, reinterpret_cast<int*>(&output_->nb_chapters), chapter);
        check_memory(output_->chapters != nullptr);
        const auto at = [&](int64_t time) {
            const int64_t shifted = av_rescale_q(time, source.time_base, kTimeUnit) - zero;
            return av_rescale_q(std::max<int64_t>(shifted, 0), kTimeUnit, source.time_base);
        };
        chapter->id = source.id;
        chapter->time_base = source.time_base;
        chapter->start = at(source.start);
        chapter->end = at(source.end);
        copy_metadata(chapter->metadata, source.metadata);
    }

    void write_header(Container container, bool is_pipe, const TransportChoice& transport) {
        AVDictionary* options = nullptr;
        const auto set = [&](const char* key, const auto& value) {
            check_memory(av_dict_set(&options, key, fmt::format("{}", value).c_str(), 0) >= 0);
        };
        if (container == Container::kMp4 || container == Container::kMov) {
            // In edit lists, a track's start is rounded to this unit: the default's is a millisecond.
            set("movie_timescale", 90'000);
            // What cannot go back to its beginning comes in pieces.
            if (is_pipe) set("movflags", "frag_keyframe+delay_moov+default_base_moof");
        }
        if (container == Container::kTransportStream) {
            if (transport.rate > 0) set("muxrate", transport.rate);
            if (transport.program > 0) set("mpegts_service_id", transport.program);
            if (transport.pmt_pid > 0) set("mpegts_pmt_start_pid", transport.pmt_pid);
        }
        const int result = avformat_write_header(output_.get(), &options);
        av_dict_free(&options);
        check(result);
    }

    void describe(const TransportChoice& transport) {
        const auto name = [&](const char* key, const std::string& value) {
            if (!value.empty()) check(av_dict_set(&output_->metadata, key, value.c_str(), 0));
        };
        name("service_name", transport.service);
        name("service_provider", transport.provider);
        for (size_t n = 0; n < transport.pids.size() && n < output_->nb_streams; n++)
            output_->streams[n]->id = transport.pids[n];
    }

    /// On the output's time line.
    int64_t time_of(int64_t number) const {
        return start_ + (time_of_ ? time_of_(number) : av_rescale_q(number, source_time_base_, kTimeUnit));
    }

    void write_waiting(int64_t up_to) {
        for (; !waiting_.empty() && waiting_.begin()->first <= up_to; waiting_.erase(waiting_.begin()))
            write(*waiting_.begin()->second, waiting_.begin()->second->stream_index);
        latest_ = std::max(latest_, std::min(up_to, std::numeric_limits<int64_t>::max() - 1));
    }

    void write(AVPacket& packet, int index) {
        packet.stream_index = index;
        if (index > 0 && !follows(packet, written_[static_cast<size_t>(index)])) return;
        av_packet_rescale_ts(&packet, kTimeUnit, output_->streams[index]->time_base);
        if (index > 0) make_rise(packet, written_[static_cast<size_t>(index)]);
        if (edit_units_) {
            const PacketPtr kept = new_packet();
            check_memory(av_packet_ref(kept.get(), &packet) >= 0);
            check(av_interleaved_write_frame(output_.get(), kept.get()));
        } else {
            check(av_write_frame(output_.get(), &packet));
        }
        check(output_->pb->error);  // of an earlier packet, which was written only now
    }

    /// The latest packet of a stream.
    struct Written {
        int64_t time = std::numeric_limits<int64_t>::min();  ///< in kTimeUnit
        int64_t dts = std::numeric_limits<int64_t>::min();   ///< in the stream's unit
    };

    /// Whether a packet comes after the latest one. Where clocks jump, sound of both recordings may overlap:
    /// what has more than its half before what is written already is left out.
    bool follows(const AVPacket& packet, Written& written) {
        if (packet.dts == AV_NOPTS_VALUE) return true;
        if (packet.dts < written.time && packet.dts + packet.duration / 2 <= written.time) {
            overlapping_++;
            return false;
        }
        written.time = std::max(written.time, packet.dts);
        return true;
    }

    /// Short packets may have the same time in a coarse unit, which most multiplexers refuse.
    void make_rise(AVPacket& packet, Written& written) const {
        if (packet.dts == AV_NOPTS_VALUE) return;
        const bool may_repeat = output_->oformat->flags & AVFMT_TS_NONSTRICT;
        if (written.dts != std::numeric_limits<int64_t>::min())
            packet.dts = std::max(packet.dts, written.dts + (may_repeat ? 0 : 1));
        if (packet.pts != AV_NOPTS_VALUE) packet.pts = std::max(packet.pts, packet.dts);
        written.dts = packet.dts;
    }

    void check(int result) const {
        if (result < 0) fail_to_write(file_.path(), result);
    }

    OutputFile file_;
    bool edit_units_;  ///< the multiplexer cuts sound into what goes with each picture
    int64_t picture_duration_;
    AVRational source_time_base_;
    int64_t start_;
    std::function<int64_t(int64_t)> time_of_;
    PacketPtr packet_ = new_packet();
    OutputPtr output_;
    std::multimap<int64_t, PacketPtr> waiting_;  ///< by the time of decoding
    std::vector<Written> written_;               ///< by stream
    int64_t latest_ = 0;
    int64_t picture_end_ = 0;
    uint64_t overlapping_ = 0;
};

}  // namespace

bool OutputFormat::has_timecode() const {
    return container != Container::kElementary && container != Container::kTransportStream;
}

bool OutputFormat::wants_global_header() const {
    const AVOutputFormat* container =
        muxer.empty() ? nullptr : av_guess_format(muxer.data(), nullptr, nullptr);
    return container && (container->flags & AVFMT_GLOBALHEADER);
}

OutputFormat output_format(const std::string& path, const std::string& format) {
    const std::string extension =
        lower_case(format.empty() ? std::filesystem::path(path).extension().string() : "." + format);
    for (const OutputFormat& known : kFormats)
        if (known.extension == extension) return known;
    std::vector<std::string_view> known;
    known.reserve(kFormats.size());
    for (const OutputFormat& other : kFormats)
        known.push_back(other.extension.substr(format.empty() ? 0 : 1));
    if (!format.empty())
        throw UsageError(fmt::format("--format: \"{}\" is none of {}", format, fmt::join(known, " ")));
    if (is_standard_stream(path))
        throw UsageError(
            "standard output has no name to tell the format by: give --format, for example --format ts");
    throw UsageError(fmt::format("{}: the output's name must end in one of {}", path, fmt::join(known, " ")));
}

void check_output(const std::string& path, const std::string& format, const std::string& input) {
    output_format(path, format);
    if (is_standard_stream(path)) return;
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
                                    const encoding::PictureEncoder& encoder, const Companions& companions) {
    if (format.muxer.empty()) return std::make_unique<ElementaryStreamFile>(path);
    return std::make_unique<ContainerFile>(format, path, encoder, companions);
}

}  // namespace gsve::programme
