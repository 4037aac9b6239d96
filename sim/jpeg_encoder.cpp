#include "jpeg_encoder.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kelm {
namespace sim {

void JpegEncoder::jumpBack(j_common_ptr info) { std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->back, 1); }

JpegEncoder::JpegEncoder(int quality) : quality_(quality) {
    compressor_.err = jpeg_std_error(&errors_.base);
    errors_.base.error_exit = jumpBack;
    jpeg_create_compress(&compressor_);
}

JpegEncoder::~JpegEncoder() { jpeg_destroy_compress(&compressor_); }

std::string JpegEncoder::encode(const std::vector<unsigned char>& rgb, int width, int height) {
    if (width <= 0 || height <= 0 || rgb.size() < static_cast<std::size_t>(width) * height * 3)
        throw std::runtime_error("JPEG encoding: the image is smaller than " + std::to_string(width) + "x" +
                                 std::to_string(height));
    buffer_ = nullptr;
    size_ = 0;
    if (setjmp(errors_.back)) {
        char message[JMSG_LENGTH_MAX];
        (*errors_.base.format_message)(reinterpret_cast<j_common_ptr>(&compressor_), message);
        jpeg_abort_compress(&compressor_);
        std::free(buffer_);
        throw std::runtime_error(std::string("JPEG encoding: ") + message);
    }
    jpeg_mem_dest(&compressor_, &buffer_, &size_);
    compressor_.image_width = static_cast<JDIMENSION>(width);
    compressor_.image_height = static_cast<JDIMENSION>(height);
    compressor_.input_components = 3;
    compressor_.in_color_space = JCS_RGB;
    jpeg_set_defaults(&compressor_);
    jpeg_set_quality(&compressor_, quality_, TRUE);
    jpeg_start_compress(&compressor_, TRUE);
    const std::size_t row = static_cast<std::size_t>(width) * 3;
    while (compressor_.next_scanline < compressor_.image_height) {
        JSAMPROW line = const_cast<JSAMPROW>(rgb.data() + compressor_.next_scanline * row);
        jpeg_write_scanlines(&compressor_, &line, 1);
    }
    jpeg_finish_compress(&compressor_);
    std::string jpeg(reinterpret_cast<const char*>(buffer_), size_);
    std::free(buffer_);
    buffer_ = nullptr;
    return jpeg;
}

}  // namespace sim
}  // namespace kelm
