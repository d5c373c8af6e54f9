#include "programme/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"
#include "programme/file_name.h"
#include "programme/hls.h"
#include "programme/muxer.h"
#include "programme/output_file.h"

namespace gsve::programme {
namespace {

constexpr OutputFormat known(std::string_view extension, std::string_view codec, std::string_view muxer,
                             Container container) {
    return {.extension = extension, .codec = codec, .muxer = muxer, .container = container};
}

constexpr std::array kFormats = {
    known(".m2v", "mpeg-2", "", Container::kElementary),
    known(".h264", "h.264", "", Container::kElementary),
    known(".264", "h.264", "", Container::kElementary),
    known(".h265", "h.265", "", Container::kElementary),
    known(".265", "h.265", "", Container::kElementary),
    known(".hevc", "h.265", "", Container::kElementary),
    known(".ts", "", "mpegts", Container::kTransportStream),
    known(".mp4", "", "mp4", Container::kMp4),
    known(".mov", "", "mov", Container::kMov),
    known(".mkv", "", "matroska", Container::kMatroska),
    known(".mxf", "", "mxf", Container::kMxf),
    known(".m3u8", "", "hls", Container::kHls),
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
        if (unit.bytes.empty()) return;
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

/// A container in one file.
class ContainerFile final : public Output {
public:
    ContainerFile(const OutputFormat& format, const std::string& path, encoding::PictureEncoder& encoder,
                  const Companions& companions)
        : file_(path),
          muxer_(format,
                 {.url = is_standard_stream(path) ? "pipe:1" : file_url(file_.written_path()), .path = path},
                 encoder, companions) {}

    void write(const encoding::EncodedUnit& unit) override { muxer_.write(unit); }
    void pass(size_t stream, PacketPtr packet) override { muxer_.pass(stream, std::move(packet)); }
    void end_with_picture() override { muxer_.end_with_picture(); }
    uint64_t overlapping() const override { return muxer_.overlapping(); }

    void finish() override {
        muxer_.finish();
        file_.commit();
    }

private:
    OutputFile file_;
    Muxer muxer_;
};

}  // namespace

bool OutputFormat::has_timecode() const {
    return container == Container::kMp4 || container == Container::kMov ||
           container == Container::kMatroska || container == Container::kMxf;
}

bool OutputFormat::wants_global_header() const {
    if (container == Container::kHls) return fragments;
    const AVOutputFormat* known = muxer.empty() ? nullptr : av_guess_format(muxer.data(), nullptr, nullptr);
    return known && (known->flags & AVFMT_GLOBALHEADER);
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
    const bool is_hls = output_format(path, format).container == Container::kHls;
    if (is_hls && is_standard_stream(path))
        throw UsageError("--format m3u8: HLS is several files; name a playlist, for example out.m3u8");
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
                                    encoding::PictureEncoder& encoder, const Companions& companions) {
    if (format.muxer.empty()) return std::make_unique<ElementaryStreamFile>(path);
    if (format.container == Container::kHls) return open_hls(format, path, encoder, companions);
    return std::make_unique<ContainerFile>(format, path, encoder, companions);
}

}  // namespace gsve::programme
