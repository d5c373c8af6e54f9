#pragma once

// Packets in a file, for one who joins them with the picture later. What their streams are is not in it: the
// input tells.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "programme/av.h"
#include "programme/content_hash.h"
#include "programme/output.h"
#include "programme/output_file.h"

namespace gsve::programme {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

class PacketLog final : public Output {
public:
    explicit PacketLog(const std::string& path);

    void write(const encoding::EncodedUnit&) override {}
    void pass(size_t stream, PacketPtr packet) override;
    void finish() override;

    uint64_t bytes() const { return bytes_; }
    std::string hash() { return hash_.finish(); }  ///< to be asked once

private:
    void put(const void* data, size_t size);

    OutputFile output_;
    FilePtr file_;
    ContentHash hash_;
    uint64_t bytes_ = 0;
};

class PacketLogReader {
public:
    explicit PacketLogReader(const std::string& path);

    /// The next packet, with its stream in `stream_index`; null at the end. Throws Failure.
    PacketPtr next();

private:
    void get(void* data, size_t size);

    std::string path_;
    FilePtr file_;
};

}  // namespace gsve::programme
