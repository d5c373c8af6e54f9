#pragma once

// File names, as libavformat takes them, and what to do about files that cannot be opened.

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

namespace gsve::programme {

/// libavformat takes what stands before a colon for a protocol, which a file's name may look like.
inline std::string file_url(const std::string& path) { return "file:" + path; }

/// Standard input or standard output.
inline bool is_standard_stream(const std::string& path) { return path == "-"; }

/// Whether `path` is read as a pipe.
inline bool is_pipe(const std::string& path) {
    struct stat status = {};
    return is_standard_stream(path) || (stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode));
}

/// An input may also be a URL: it is a file's name where there is such a file.
inline std::string input_url(const std::string& path) {
    if (is_standard_stream(path)) return "pipe:0";
    std::error_code none;
    const bool is_file = path.find(':') != std::string::npos && std::filesystem::exists(path, none);
    return is_file ? file_url(path) : path;
}

/// What to change, after FFmpeg (or, negated, errno) says why an input cannot be opened.
inline std::string_view opening_advice(int error) {
    constexpr std::array<std::pair<int, std::string_view>, 4> kAdvice = {{
        {AVERROR(ENOENT), "check the name"},
        {AVERROR(EACCES), "ask for the right to read it"},
        {AVERROR(EISDIR), "name a file in it"},
        {AVERROR_INVALIDDATA, "name a media file; FFmpeg recognises none here"},
    }};
    for (const auto& [known, advice] : kAdvice)
        if (known == error) return advice;
    return "name another file";
}

/// The same for an output.
inline std::string_view writing_advice(int error) {
    constexpr std::array<std::pair<int, std::string_view>, 6> kAdvice = {{
        {AVERROR(ENOENT), "create its directory"},
        {AVERROR(EPIPE), "keep its reader running"},
        {AVERROR(ENOTDIR), "create its directory"},
        {AVERROR(EACCES), "choose a directory that you may write to"},
        {AVERROR(EISDIR), "name a file in it"},
        {AVERROR(ENOSPC), "make room, or name another disk"},
    }};
    for (const auto& [known, advice] : kAdvice)
        if (known == error) return advice;
    return "name another file";
}

}  // namespace gsve::programme
