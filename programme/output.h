#pragma once

// Where the encoded stream goes: a file with the bare elementary stream, or a container.

#include <memory>
#include <string>
#include <string_view>

#include "encoding/picture_encoder.h"
#include "programme/av.h"

namespace gsve::programme {

/// A kind of output file.
struct OutputFormat {
    std::string_view extension;
    std::string_view codec;  ///< the elementary stream's, as the setting "encoder" names it; empty: any
    std::string_view muxer;  ///< libavformat's name of the container; empty: elementary stream

    /// Whether the container wants the parameter sets once, in its own header.
    bool wants_global_header() const;
};

/// The kind that a file's name asks for. Throws UsageError when there is none.
OutputFormat output_format(const std::string& path);

/// Throws UsageError or Failure where `path` can be no output of `input`.
void check_output(const std::string& path, const std::string& input);

class Output {
public:
    virtual ~Output() = default;
    virtual void write(const encoding::EncodedUnit& unit) = 0;

    /// Completes the file, which then appears under its name. Without it, there is none: a file that was
    /// there before is as it was.
    virtual void finish() = 0;
};

/// Creates `path` for the stream of an opened encoder. Throws Failure, as do the output's operations.
std::unique_ptr<Output> open_output(const OutputFormat& format, const std::string& path,
                                    const encoding::PictureEncoder& encoder);

}  // namespace gsve::programme
