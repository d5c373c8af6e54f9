#pragma once

// A file that appears under its name once it is complete.

#include <string>

namespace gsve::programme {

/// Names the file to write in place of `path`: a temporary one beside it, which commit() renames and without
/// it goes again. What is no regular file, a device or a pipe for example, is written as it is; a link's
/// target is replaced, not the link.
class OutputFile {
public:
    /// Creates the temporary file. Throws Failure where that cannot be done.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& path() const { return path_; }             ///< as given, for messages
    const std::string& written_path() const { return written_; }  ///< to write to

    /// To be called once, when the file is closed and complete. Throws Failure.
    void commit();

private:
    std::string path_;
    std::string written_;
    std::string target_;  ///< what written_ is renamed to; empty: it is written as it is
};

/// For a process that is about to die: removes what every OutputFile has not committed. May be called by a
/// signal handler.
void remove_temporary_files();

/// Writes the whole of a file that is not yet committed. Throws Failure.
void write_bytes(const OutputFile& output, const std::string& bytes);

/// Writes a whole file in this way. Throws Failure.
void write_file(const std::string& path, const std::string& bytes);

/// `error` is one of FFmpeg's, which for the system's are errno, negated.
[[noreturn]] void fail_to_write(const std::string& path, int error);

}  // namespace gsve::programme
