// JPEG encoding of RGB images, for the simulator's camera streams.
//
// Threads: one JpegEncoder per thread.
#pragma once

// jpeglib.h uses FILE and size_t without declaring them.
#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include <csetjmp>

#include <string>
#include <vector>

namespace kelm {
namespace sim {

class JpegEncoder {
public:
    // `quality`: libjpeg's scale, 1 (smallest) to 100 (best).
    explicit JpegEncoder(int quality);
    ~JpegEncoder();
    JpegEncoder(const JpegEncoder&) = delete;
    JpegEncoder& operator=(const JpegEncoder&) = delete;

    // `rgb`: width x height [px] RGB pixels, top row first. Throws
    // std::runtime_error with libjpeg's message when encoding fails.
    std::string encode(const std::vector<unsigned char>& rgb, int width, int height);

private:
    // libjpeg's default ends the process on an error; this one jumps back
    // into encode(), which frees what it took and throws.
    struct ErrorManager {
        jpeg_error_mgr base;
        std::jmp_buf back;
    };
    static void jumpBack(j_common_ptr info);

    int quality_;
    jpeg_compress_struct compressor_;
    ErrorManager errors_;
    unsigned char* buffer_ = nullptr;  // libjpeg's output, held here so that an error can free it
    unsigned long size_ = 0;
};

}  // namespace sim
}  // namespace kelm
