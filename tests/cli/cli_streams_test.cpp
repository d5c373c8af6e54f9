// What becomes of every kind of stream in every container: the table that the program prints, walked with a
// real stream of each kind.

#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/crc.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/log.h>
}

#include "support/flash_and_click.h"
#include "support/media_files.h"
#include "support/program.h"
#include "support/scratch.h"

namespace {

using namespace gsve::test;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kExtensions[] = {".ts", ".mp4", ".mov", ".mkv", ".mxf", ".m3u8"};

/// The program's table: kind of stream, and what becomes of it in each container.
std::map<std::string, std::vector<std::string>> table() {
    std::map<std::string, std::vector<std::string>> rows;
    std::istringstream lines(run({"streams"}).out);
    std::string line;
    std::getline(lines, line);
    EXPECT_THAT(line, AllOf(HasSubstr("TS"), HasSubstr("MXF"), HasSubstr("HLS")));
    while (std::getline(lines, line)) {
        const size_t name_end = line.find("  ");
        std::istringstream words(line.substr(name_end));
        std::vector<std::string>& row = rows[line.substr(0, name_end)];
        for (std::string word; words >> word;) row.push_back(word);
    }
    return rows;
}

struct Track {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    std::string codec;
    std::vector<std::string> packets;
};

std::vector<Track> tracks_of(const std::string& path) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(input, nullptr) < 0)
        throw std::runtime_error("cannot read " + path);
    std::map<int, Track> found;
    for (unsigned n = 0; n < input->nb_streams; n++) {
        const AVStream& stream = *input->streams[n];
        if (stream.codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd')) continue;  // of the time code
        Track& track = found[stream.index];
        track.type = stream.codecpar->codec_type;
        track.codec = avcodec_get_name(stream.codecpar->codec_id);
    }
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        if (const auto track = found.find(packet->stream_index); track != found.end())
            track->second.packets.emplace_back(reinterpret_cast<const char*>(packet->data),
                                               static_cast<size_t>(packet->size));
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
    std::vector<Track> tracks;
    for (auto& [index, track] : found) tracks.push_back(std::move(track));
    return tracks;
}

/// Adds a stream of hand-made packets, one each half second, to the picture of picture.ts.
void add_stream(const std::string& from, const std::string& to, AVMediaType type, AVCodecID codec,
                const std::string& packet_bytes, const std::string& extradata = {}) {
    const auto require = [&](int result) {
        if (result < 0) throw std::runtime_error("cannot make " + to);
    };
    AVFormatContext *input = nullptr, *output = nullptr;
    require(avformat_open_input(&input, from.c_str(), nullptr, nullptr));
    require(avformat_find_stream_info(input, nullptr));
    require(avformat_alloc_output_context2(&output, nullptr, nullptr, to.c_str()));
    AVStream* picture = avformat_new_stream(output, nullptr);
    require(avcodec_parameters_copy(picture->codecpar, input->streams[0]->codecpar));
    picture->codecpar->codec_tag = 0;
    picture->time_base = input->streams[0]->time_base;
    AVStream* other = avformat_new_stream(output, nullptr);
    other->codecpar->codec_type = type;
    other->codecpar->codec_id = codec;
    other->codecpar->width = 720;
    other->codecpar->height = 576;
    other->time_base = {1, 1000};
    av_dict_set(&other->metadata, "language", "deu", 0);
    if (!extradata.empty()) {
        other->codecpar->extradata =
            static_cast<uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(other->codecpar->extradata, extradata.data(), extradata.size());
        other->codecpar->extradata_size = static_cast<int>(extradata.size());
    }
    if (type == AVMEDIA_TYPE_ATTACHMENT) {
        av_dict_set(&other->metadata, "filename", "letters.ttf", 0);
        av_dict_set(&other->metadata, "mimetype", "application/x-truetype-font", 0);
    }
    require(avio_open(&output->pb, to.c_str(), AVIO_FLAG_WRITE));
    require(avformat_write_header(output, nullptr));
    AVPacket* packet = av_packet_alloc();
    int64_t next = 0;
    while (av_read_frame(input, packet) >= 0) {
        if (packet->stream_index != 0) {
            av_packet_unref(packet);
            continue;
        }
        const int64_t start = input->streams[0]->start_time;
        packet->pts -= start;
        packet->dts -= start;
        const double time = static_cast<double>(packet->pts) * av_q2d(input->streams[0]->time_base);
        av_packet_rescale_ts(packet, input->streams[0]->time_base, picture->time_base);
        packet->pos = -1;
        require(av_interleaved_write_frame(output, packet));
        for (; !packet_bytes.empty() && static_cast<double>(next) / 1000 <= time; next += 500) {
            require(av_new_packet(packet, static_cast<int>(packet_bytes.size())));
            std::memcpy(packet->data, packet_bytes.data(), packet_bytes.size());
            packet->stream_index = 1;
            packet->pts = packet->dts = av_rescale_q(next, {1, 1000}, other->time_base);
            packet->duration = av_rescale_q(400, {1, 1000}, other->time_base);
            packet->flags = AV_PKT_FLAG_KEY;
            require(av_interleaved_write_frame(output, packet));
        }
    }
    require(av_write_trailer(output));
    av_packet_free(&packet);
    avio_closep(&output->pb);
    avformat_free_context(output);
    avformat_close_input(&input);
}

/// Makes a transport stream's KLV stream one of splice information: by what its program's table says (SCTE
/// 35, 8.1).
void call_it_scte35(const std::string& path) {
    constexpr int kTablePid = 0x1000;  // the multiplexer's
    std::string bytes = read_file(path);
    auto* data = reinterpret_cast<uint8_t*>(bytes.data());
    for (size_t at = 0; at + kTransportPacket <= bytes.size(); at += kTransportPacket) {
        if ((AV_RB16(data + at + 1) & 0x1FFF) != kTablePid) continue;
        uint8_t* section = data + at + 5;
        const size_t length = (AV_RB16(section + 1) & 0xFFF) + 3 - 4;  // without the check sum
        std::string table(section, section + 10);
        table += std::string(
            "\xF0\x06\x05\x04"
            "CUEI",
            8);
        for (size_t n = 12 + (AV_RB16(section + 10) & 0xFFF); n + 5 <= length;) {
            const size_t information = AV_RB16(section + n + 3) & 0xFFF;
            const bool is_picture = section[n] == 0x02;
            table += is_picture ? '\x02' : '\x86';
            table.append(section + n + 1, section + n + 3);
            if (is_picture)
                table.append(section + n + 3, section + n + 5 + information);
            else
                table += std::string("\xF0\x00", 2);
            n += 5 + information;
        }
        table[1] = static_cast<char>(0xB0);
        table[2] = static_cast<char>(table.size() + 4 - 3);
        const auto* whole = reinterpret_cast<const uint8_t*>(table.data());
        uint8_t sum[4];
        AV_WL32(sum, av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0u, whole, table.size()));
        table.append(sum, sum + 4);
        table.resize(kTransportPacket - 5, '\xFF');
        std::memcpy(section, table.data(), table.size());
    }
    write_bytes(path, bytes);
}

/// A file with a stream of each kind beside a picture, by the table's names.
class Samples {
public:
    Samples() {
        using namespace std::string_literals;
        const std::string dir = directory_ / "";
        ffmpeg(dir,
               flash_and_click(2) + "-map 0 -map 1 -c:v mpeg2video -g 12 -bf 2 -c:a pcm_s16le picture.mkv");
        ffmpeg(dir, "-i picture.mkv -map 0:v -c copy picture.ts");
        sound("MPEG audio, layers 2 and 3", "mp2", "mp2.ts");
        sound("AAC", "aac", "aac.mp4");
        sound("AC-3, E-AC-3", "ac3", "ac3.ts");
        sound("DTS", "dca -strict -2 -ac 2", "dts.ts");
        sound("TrueHD", "truehd -strict -2 -ac 2", "truehd.mkv");
        sound("Opus", "libopus", "opus.mkv");
        sound("FLAC", "flac", "flac.mkv");
        sound("Vorbis", "libvorbis", "vorbis.mkv");
        sound("ALAC", "alac", "alac.mov");
        sound("PCM", "pcm_s16le", "pcm.mov");
        sound("PCM by SMPTE 302M", "s302m -strict -2 -ac 2", "s302m.ts");
        ffmpeg(dir, "-i aac.mp4 -map 0 -c copy -mpegts_flags latm latm.ts");
        add("AAC in LATM", "latm.ts");
        made("DVB subtitles", "dvb.ts", AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_DVB_SUBTITLE,
             "\x0F\x10\x00\x01\x00\x02\x0A\x50\x0F\x80\x00\x01\x00\x00"s, "\x00\x01\x00\x02"s);
        made("Teletext", "teletext.ts", AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_DVB_TELETEXT,
             "\x10\x02\x2C"s + std::string(44, '\x15'), "\x02\x88"s);
        made("DVD subtitles", "dvd.mkv", AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_DVD_SUBTITLE,
             "\x00\x08\x00\x04\x00\x00\x00\x04"s, "size: 720x576\n");
        made("PGS subtitles", "pgs.mkv", AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_HDMV_PGS_SUBTITLE,
             "\x16\x00\x0B\x02\xD0\x02\x40\x10\x00\x00\x00\x00\x00\x00\x80\x00\x00"s);
        made("KLV metadata", "klv.ts", AVMEDIA_TYPE_DATA, AV_CODEC_ID_SMPTE_KLV,
             "\x06\x0E\x2B\x34\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x03one"s);
        made("Timed ID3", "id3.ts", AVMEDIA_TYPE_DATA, AV_CODEC_ID_TIMED_ID3,
             "ID3\x04\x00\x00\x00\x00\x00\x04wxyz"s);
        made("SCTE 35", "scte35.ts", AVMEDIA_TYPE_DATA, AV_CODEC_ID_SMPTE_KLV, std::string(20, '\xFC'));
        call_it_scte35(path("SCTE 35"));
        made("Fonts and other attachments", "font.mkv", AVMEDIA_TYPE_ATTACHMENT, AV_CODEC_ID_TTF, "",
             "letters");
        write_bytes(directory_ / "titles.srt",
                    "1\n00:00:00,200 --> 00:00:00,900\nThe first.\n\n2\n00:00:01,000 --> 00:00:01,500\nThe "
                    "second.\n");
        ffmpeg(dir, "-i picture.ts -i titles.srt -map 0 -map 1 -c:v copy -c:s subrip titles.mkv");
        add("SubRip, ASS, WebVTT, plain text", "titles.mkv");
        ffmpeg(dir, "-i picture.ts -i titles.srt -map 0 -map 1 -c:v copy -c:s mov_text titles.mp4");
        add("MPEG-4 timed text", "titles.mp4");
    }

    bool has(const std::string& kind) const { return files_.contains(kind); }
    std::string path(const std::string& kind) const { return directory_ / files_.at(kind); }

private:
    void add(const char* kind, const char* file) { files_[kind] = file; }

    void sound(const char* kind, const std::string& encoder, const char* file) {
        ffmpeg(directory_ / "",
               "-i picture.mkv -map 0 -c:v copy -metadata:s:a language=deu -c:a " + encoder + " " + file);
        add(kind, file);
    }

    void made(const char* kind, const char* file, AVMediaType type, AVCodecID codec, const std::string& bytes,
              const std::string& extradata = {}) {
        add(kind, file);
        add_stream(directory_ / "picture.ts", path(kind), type, codec, bytes, extradata);
    }

    ScratchDirectory directory_;
    std::map<std::string, std::string> files_;
};

class Streams : public testing::Test {
protected:
    Streams() { av_log_set_level(AV_LOG_QUIET); }

    ProgramResult encode(const std::string& in, const std::string& out, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments = {"encode",  in,       out,     "-y",
                                              "--codec", "mpeg-2", "--set", "bitrate=1000000"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }

    ScratchDirectory directory;
};

TEST_F(Streams, AreTreatedAsTheTableSays) {
    const Samples samples;
    for (const auto& [kind, treatments] : table()) {
        ASSERT_TRUE(samples.has(kind)) << kind;
        const std::string in = samples.path(kind);
        const std::vector<Track> before = tracks_of(in);
        ASSERT_EQ(before.size(), 2u) << kind;
        ASSERT_EQ(treatments.size(), std::size(kExtensions)) << kind;
        for (size_t n = 0; n < treatments.size(); n++) {
            SCOPED_TRACE(kind + " in " + kExtensions[n] + ": " + treatments[n]);
            const std::string out = directory / ("out" + std::string(kExtensions[n]));
            const ProgramResult result = encode(in, out);
            ASSERT_EQ(result.status, 0) << result.err;
            const std::vector<Track> after = tracks_of(out);
            EXPECT_EQ(after[0].codec, "mpeg2video");
            if (treatments[n] == "named") {
                EXPECT_EQ(after.size(), 1u);
                EXPECT_THAT(result.err, HasSubstr("is left out: "));
                continue;
            }
            ASSERT_EQ(after.size(), 2u) << result.err;
            EXPECT_EQ(after[1].type, before[1].type);
            if (treatments[n] == "converted") {
                EXPECT_NE(after[1].codec, before[1].codec);
                EXPECT_THAT(result.err, HasSubstr(" is encoded as "));
                EXPECT_THAT(after[1].packets, Not(IsEmpty()));
                continue;
            }
            EXPECT_THAT(result.err, Not(HasSubstr("stream 1")));
            // ISO/IEC 14496-1 has one name for all layers of MPEG-1's sound.
            const bool of_mpeg_1 = before[1].codec == "mp2" && after[1].codec == "mp3";
            EXPECT_TRUE(after[1].codec == before[1].codec || of_mpeg_1) << after[1].codec;
            if (before[1].type != AVMEDIA_TYPE_AUDIO) {
                EXPECT_EQ(after[1].packets, before[1].packets);
            }
            EXPECT_NEAR(static_cast<double>(after[1].packets.size()),
                        static_cast<double>(before[1].packets.size()), 1);
        }
    }
}

TEST_F(Streams, AreChosenByNumberAndProgram) {
    const std::string dir = directory / "";
    ffmpeg(
        dir,
        flash_and_click(1) + flash_and_click(1) +
            "-map 0 -map 1 -map 1 -map 2 -map 3 -c:v mpeg2video -c:a mp2 -program title=Eins:st=0:st=1:st=2 "
            "-program title=Zwei:program_num=9:st=3:st=4 two.ts");
    const std::string in = directory / "two.ts", out = directory / "out.ts";
    const auto kinds = [&] {
        std::string kinds;
        for (const Track& track : tracks_of(out)) kinds += track.type == AVMEDIA_TYPE_VIDEO ? 'p' : 's';
        return kinds;
    };
    ProgramResult result = encode(in, out);
    EXPECT_THAT(result.err,
                HasSubstr("the input has programs 1, 9: 1 is encoded; --program chooses another"));
    EXPECT_EQ(kinds(), "pss");
    result = encode(in, out, {"--program", "9"});
    EXPECT_THAT(result.err, Not(HasSubstr("--program")));
    EXPECT_EQ(kinds(), "ps");
    encode(in, out, {"--streams", "0,2"});
    EXPECT_EQ(kinds(), "ps");
    encode(in, out, {"--no-sound"});
    EXPECT_EQ(kinds(), "p");
    result = encode(in, out, {"--program", "3"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("has no program 3; it has 1, 9"));
    result = encode(in, out, {"--streams", "0,7"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("has no stream 7; its streams are 0 to 4"));
    result = encode(in, out, {"--streams", "1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("none of the chosen streams"));
}

TEST_F(Streams, KeepTheirLanguagesNamesAndChapters) {
    const std::string dir = directory / "";
    write_bytes(directory / "chapters.txt",
                ";FFMETADATA1\ntitle=The City\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=700\n"
                "title=Dawn\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=700\nEND=2000\ntitle=Noon\n");
    ffmpeg(dir, flash_and_click(2) +
                    "-i chapters.txt -map 0 -map 1 -map_metadata 2 -map_chapters 2 -c:v mpeg2video -c:a aac "
                    "-metadata:s:a language=fra -metadata:s:a title=Commentary in.mkv");
    for (const char* extension : {".mkv", ".mp4", ".mov"}) {
        SCOPED_TRACE(extension);
        const std::string out = directory / ("out" + std::string(extension));
        ASSERT_EQ(encode(directory / "in.mkv", out).status, 0);
        AVFormatContext* input = nullptr;
        ASSERT_GE(avformat_open_input(&input, out.c_str(), nullptr, nullptr), 0);
        const auto value = [](const AVDictionary* dictionary, const char* key) {
            const AVDictionaryEntry* entry = av_dict_get(dictionary, key, nullptr, 0);
            return std::string(entry ? entry->value : "");
        };
        EXPECT_EQ(value(input->metadata, "title"), "The City");
        EXPECT_EQ(value(input->streams[1]->metadata, "language"), "fra");
        ASSERT_EQ(input->nb_chapters, 2u);
        EXPECT_EQ(value(input->chapters[1]->metadata, "title"), "Noon");
        EXPECT_NEAR(static_cast<double>(input->chapters[1]->start) * av_q2d(input->chapters[1]->time_base),
                    0.7, 0.03);
        avformat_close_input(&input);
    }
}

TEST_F(Streams, OfSoundTakeTheFormThatIsAskedFor) {
    const std::string dir = directory / "";
    ffmpeg(dir,
           flash_and_click(2) + "-map 0 -map 1 -map 1 -c:v mpeg2video -c:a ac3 -ac 2 -dialnorm -21 in.ts");
    const std::string in = directory / "in.ts", out = directory / "out.ts";
    const struct {
        std::vector<std::string> options;
        const char* codec;
        int64_t bit_rate;
        int channels, sample_rate;
    } rows[] = {
        {{"--sound", "copy"}, "ac3", 192'000, 2, 48'000},
        {{"--sound", "ac3", "--sound-bitrate", "128k", "--sound-layout", "mono"}, "ac3", 128'000, 1, 48'000},
        {{"--sound", "eac3", "--sound-bitrate", "96k"}, "eac3", 96'000, 2, 48'000},
        {{"--sound", "mp2", "--sound-rate", "32000"}, "mp2", 256'000, 2, 32'000},
        {{"--sound", "aac", "--sound-rate", "44100"}, "aac", 0, 2, 44'100},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.codec);
        const ProgramResult result = encode(in, out, row.options);
        ASSERT_EQ(result.status, 0) << result.err;
        AVFormatContext* input = nullptr;
        ASSERT_GE(avformat_open_input(&input, out.c_str(), nullptr, nullptr), 0);
        ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
        ASSERT_EQ(input->nb_streams, 3u) << "both tracks";
        for (int track : {1, 2}) {
            const AVCodecParameters& form = *input->streams[track]->codecpar;
            EXPECT_STREQ(avcodec_get_name(form.codec_id), row.codec);
            EXPECT_EQ(form.ch_layout.nb_channels, row.channels);
            EXPECT_EQ(form.sample_rate, row.sample_rate);
            if (row.bit_rate > 0) {
                EXPECT_EQ(form.bit_rate, row.bit_rate);
            }
        }
        avformat_close_input(&input);
        if (std::string(row.codec) == "ac3") {
            const std::string frame = tracks_of(out)[1].packets[0];
            const bool is_mono = row.channels == 1;  // acmod, and with stereo dsurmod, lfeon, then dialnorm
            const unsigned bits = AV_RB16(frame.data() + 6);
            EXPECT_EQ(bits >> (is_mono ? 7 : 5) & 31, 21u) << "the dialogue level";
        }
    }
    EXPECT_THAT(encode(in, out, {"--sound", "mp2", "--sound-layout", "5.1"}).err,
                HasSubstr("--sound-layout: mp2 does not take 5.1; it takes mono, stereo"));
    EXPECT_THAT(encode(in, out, {"--sound", "ac3", "--sound-rate", "8000"}).err,
                HasSubstr("--sound-rate: ac3 does not take 8000 samples/s; it takes 48000, 44100, 32000"));
    EXPECT_THAT(encode(in, out, {"--sound", "ac3", "--sound-layout", "many"}).err,
                HasSubstr("--sound-layout takes a layout such as mono, stereo or 5.1, not \"many\""));
    EXPECT_EQ(encode(in, out, {"--sound", "opus"}).status, 2);
}

TEST_F(Streams, OfSoundMayChangeTheirFormInTheMiddle) {
    const std::string dir = directory / "";
    ffmpeg(dir, flash_and_click(2) + "-c:v mpeg2video -c:a mp2 -ac 2 -f mpegts one.ts");
    ffmpeg(dir, flash_and_click(2) + "-c:v mpeg2video -c:a mp2 -ac 1 -ar 32000 -f mpegts two.ts");
    write_bytes(directory / "in.ts", read_file(directory / "one.ts") + read_file(directory / "two.ts"));
    const std::string out = directory / "out.mkv";
    const ProgramResult result = encode(directory / "in.ts", out, {"--sound", "aac"});
    ASSERT_EQ(result.status, 0) << result.err;
    const Events events = events_of(out);
    ASSERT_EQ(events.flashes.size(), 4u);
    ASSERT_EQ(events.clicks.size(), 4u);
    for (size_t n = 0; n < 4; n++) EXPECT_NEAR(events.clicks[n], events.flashes[n], 0.022) << n;
}

/// Puts another sound, of other parameters, behind the one of a transport stream.
TEST_F(Streams, ThatChangeTheirFormAreNamedWhereOneHeaderStandsForAll) {
    const std::string dir = directory / "", in = directory / "both.ts";
    ffmpeg(dir, flash_and_click(2) + "-c:v mpeg2video -c:a aac -ar 48000 one.ts");
    ffmpeg(dir, flash_and_click(2) + "-c:v mpeg2video -c:a aac -ar 44100 -ac 2 two.ts");
    write_bytes(in, read_file(directory / "one.ts") + read_file(directory / "two.ts"));
    for (const std::string out : {"out.mp4", "out.mov", "out.mkv"})
        EXPECT_THAT(encode(in, directory / out).err,
                    HasSubstr("players of " +
                              (out == "out.mp4"   ? std::string("MP4")
                               : out == "out.mov" ? "MOV"
                                                  : "MKV") +
                              " take all for the first one; --sound aac makes it one"));
    EXPECT_THAT(encode(in, directory / "out.ts").err, Not(HasSubstr("form changes")));
    EXPECT_THAT(encode(in, directory / "out.mp4", {"--sound", "aac"}).err, Not(HasSubstr("form changes")));
}

TEST_F(Streams, ThatBeginLateAreFoundInFilesAndNamedInPipes) {
    const std::string dir = directory / "", in = directory / "late.ts";
    ffmpeg(dir, flash_and_click(9) +
                    "-c:v mpeg2video -b:v 6M -minrate 6M -maxrate 6M -bufsize 2M -c:a mp2 all.ts");
    // The sound is announced from the start, and comes 7 s later.
    std::string bytes = read_file(directory / "all.ts"), late;
    const size_t begins = bytes.size() * 7 / 9 / kTransportPacket * kTransportPacket;
    for (size_t at = 0; at + kTransportPacket <= bytes.size(); at += kTransportPacket) {
        const int pid = AV_RB16(reinterpret_cast<const uint8_t*>(bytes.data()) + at + 1) & 0x1FFF;
        if (pid != 0x101 || at >= begins) late += bytes.substr(at, kTransportPacket);
    }
    write_bytes(in, late);
    ASSERT_EQ(encode(in, directory / "out.ts").status, 0);
    const std::vector<Track> tracks = tracks_of(directory / "out.ts");
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[1].codec, "mp2");

    // One that never comes.
    std::string silent;
    for (size_t at = 0; at + kTransportPacket <= bytes.size(); at += kTransportPacket)
        if ((AV_RB16(reinterpret_cast<const uint8_t*>(bytes.data()) + at + 1) & 0x1FFF) != 0x101)
            silent += bytes.substr(at, kTransportPacket);
    write_bytes(in, silent);
    const ProgramResult result = encode(in, directory / "out.ts");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr(") is left out: none of it comes"));
    EXPECT_EQ(tracks_of(directory / "out.ts").size(), 1u);
}

TEST_F(Streams, OfOtherKindsThanPacketsAreNamedWhereTheyHaveNoPlace) {
    const std::string dir = directory / "", in = directory / "full.mkv";
    write_bytes(
        directory / "chapters.txt",
        ";FFMETADATA1\ntitle=A film\nartist=Some\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=900\ntitle=One\n");
    ffmpeg(dir, flash_and_click(1) +
                    "-i chapters.txt -map 0 -map 1 -map_metadata 2 -map_chapters 2 -c:v mpeg2video "
                    "-c:a mp2 -metadata:s:v title='Main picture' -metadata:s:v language=fre "
                    "-metadata:s:a language=deu full.mkv");
    for (const std::string out : {"out.ts", "out.mxf", "out.m2v", "out.m3u8"}) {
        const ProgramResult result = encode(in, directory / out);
        EXPECT_THAT(result.err, HasSubstr("1 chapters are left out: ")) << out;
        EXPECT_THAT(result.err, HasSubstr("the input's title, ARTIST are left out: ")) << out;
    }
    EXPECT_THAT(encode(in, directory / "out.mxf").err, HasSubstr("the languages of the sound are left out"));
    EXPECT_THAT(encode(in, directory / "out.mkv").err, Not(HasSubstr("left out: ")));
    AVFormatContext* input = nullptr;
    ASSERT_GE(avformat_open_input(&input, (directory / "out.mkv").c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(input->nb_chapters, 1u);
    EXPECT_STREQ(av_dict_get(input->metadata, "title", nullptr, 0)->value, "A film");
    EXPECT_STREQ(av_dict_get(input->streams[0]->metadata, "title", nullptr, 0)->value, "Main picture");
    EXPECT_STREQ(av_dict_get(input->streams[0]->metadata, "language", nullptr, 0)->value, "fre");
    avformat_close_input(&input);
}

TEST_F(Streams, KeepTheTurnAndTheColoursOfThePicture) {
    const std::string dir = directory / "", in = directory / "turned.mp4";
    ffmpeg(dir, flash_and_click(1) +
                    "-vf setparams=color_primaries=bt2020:color_trc=bt2020-10:colorspace=bt2020nc "
                    "-c:v libx264 -preset ultrafast -c:a aac upright.mp4");
#if LIBAVFORMAT_VERSION_MAJOR < 60
    ffmpeg(dir, "-i upright.mp4 -c copy -metadata:s:v rotate=90 turned.mp4");
#else
    ffmpeg(dir, "-display_rotation 90 -i upright.mp4 -c copy turned.mp4");
#endif
    ASSERT_EQ(run({"encode", in, directory / "out.mp4", "-y"}).status, 0);
    for (const std::string& path : {in, directory / "out.mp4"}) {
        AVFormatContext* input = nullptr;
        ASSERT_GE(avformat_open_input(&input, path.c_str(), nullptr, nullptr), 0);
        ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
        const AVCodecParameters& form = *input->streams[0]->codecpar;
        EXPECT_EQ(form.color_primaries, AVCOL_PRI_BT2020) << path;
        EXPECT_EQ(form.color_trc, AVCOL_TRC_BT2020_10) << path;
        EXPECT_EQ(form.color_space, AVCOL_SPC_BT2020_NCL) << path;
#if LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(60, 15, 100)
        size_t size = 0;
        EXPECT_NE(av_stream_get_side_data(input->streams[0], AV_PKT_DATA_DISPLAYMATRIX, &size), nullptr)
            << path;
#else
        EXPECT_NE(
            av_packet_side_data_get(form.coded_side_data, form.nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX),
            nullptr)
            << path;
#endif
        avformat_close_input(&input);
    }
}

TEST_F(Streams, ThatShareAPidAreNamed) {
    ffmpeg(directory / "", flash_and_click(1) + "-map 0 -map 1 -map 1 -c:v mpeg2video -c:a mp2 in.ts");
    const std::string in = directory / "in.ts";
    EXPECT_THAT(encode(in, directory / "out.ts").err, Not(HasSubstr("PID")));
    // The second sound is announced on the first one's PID.
    std::string bytes = read_file(in);
    auto* data = reinterpret_cast<uint8_t*>(bytes.data());
    for (size_t at = 0; at + kTransportPacket <= bytes.size(); at += kTransportPacket) {
        if ((AV_RB16(data + at + 1) & 0x1FFF) != 0x1000) continue;
        uint8_t* section = data + at + 5;
        const size_t length = (AV_RB16(section + 1) & 0xFFF) + 3 - 4;
        for (size_t n = 12 + (AV_RB16(section + 10) & 0xFFF); n + 5 <= length;
             n += 5 + (AV_RB16(section + n + 3) & 0xFFF))
            if ((AV_RB16(section + n + 1) & 0x1FFF) == 0x102) AV_WB16(section + n + 1, 0xE101);
        AV_WL32(section + length, av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0u, section, length));
    }
    write_bytes(in, bytes);
    const ProgramResult result = encode(in, directory / "out.ts");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("the input announces several streams on PID 257: one of them is read"));
}

TEST_F(Streams, ThatCannotBeTogetherAreRefused) {
    const std::string dir = directory / "", in = directory / "in.ts", out = directory / "out.ts";
    ffmpeg(dir, flash_and_click(1) + "-c:v mpeg2video -c:a mp2 in.ts");
    EXPECT_THAT(encode(in, out, {"--pids", "4096"}).err, HasSubstr("4096 is that of another stream"));
    EXPECT_THAT(encode(in, out, {"--pids", "257"}).err, HasSubstr("257 is that of another stream"));
    EXPECT_THAT(encode(in, out, {"--pids", "300,301,302"}).err, HasSubstr("3 PIDs for 2 streams"));
    EXPECT_EQ(encode(in, out, {"--pids", "257,256"}).status, 0);
    EXPECT_THAT(run({"encode", in, directory / "out.mxf", "--codec", "h.265"}).err,
                HasSubstr("choose mpeg-2 or h.264"));
    EXPECT_THAT(encode(in, directory / "out.mxf", {"--sound", "ac3"}).err,
                HasSubstr("MXF has its sound as PCM"));
    EXPECT_EQ(encode(in, directory / "out.mxf", {"--rate", "59.94"}).status, 0);
    EXPECT_THAT(encode(in, out, {"--sound-bitrate", "96k"}).err,
                HasSubstr("stream 1 (sound, mp2) stays as it is"));
}

}  // namespace
