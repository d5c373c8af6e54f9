#pragma once

// Where the encoded stream goes: a file with the bare elementary stream, or a container.

#include <memory>
#include <string>
#include <string_view>

#include "av.h"
#include "host.h"

namespace gsve::cli {

/// A kind of output file.
struct OutputFormat {
    std::string_view extension;
    std::string_view codec;  ///< the elementary stream's, as the setting "encoder" names it; empty: any
    std::string_view muxer;  ///< libavformat's name of the container; empty: elementary stream

    /// Whether the container wants the parameter sets once, in its own header.
    bool wants_global_header() const;
};

/// The kind that a file's name asks for. Throws UsageError when there is none.
const OutputFormat& output_format(const std::string& path);

class Sink {
public:
    virtual ~Sink() = default;
    virtual void write(const EncodedUnit& unit) = 0;

    /// Completes the file. Without it the file stays incomplete.
    virtual void finish() = 0;
};

/// Creates `path` for the stream of an opened encoder. Throws Failure, as do the sink's operations.
std::unique_ptr<Sink> open_sink(const OutputFormat& format, const std::string& path, const Host& encoder);

}  // namespace gsve::cli
