#include "jpeg_writer.h"

#include <jpeglib.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>

#ifndef JCS_EXTENSIONS
#error "libjpeg-turbo with JCS_EXT_BGR is required"
#endif

namespace {
// Where the output goes when nothing has been written yet.
constexpr std::size_t kInitialBytes = 256 * 1024;
}  // namespace

struct JpegWriter::State {
    jpeg_compress_struct cinfo{};
    struct Errors {
        jpeg_error_mgr pub;
        std::jmp_buf jump;
    } errors{};
    jpeg_destination_mgr destination{};
    std::vector<uchar>* out = nullptr;

    // libjpeg's default reaction to an error is exit(); come back instead.
    static void onError(j_common_ptr info) {
        std::longjmp(reinterpret_cast<Errors*>(info->err)->jump, 1);
    }
    static void onMessage(j_common_ptr) {}

    static State& of(j_compress_ptr info) { return *static_cast<State*>(info->client_data); }

    // The output vector is used at its full size while encoding and cut to
    // the bytes written at the end; when full it doubles.
    static void initDestination(j_compress_ptr info) {
        std::vector<uchar>& out = *of(info).out;
        out.resize(std::max(out.capacity(), kInitialBytes));
        info->dest->next_output_byte = out.data();
        info->dest->free_in_buffer = out.size();
    }
    static boolean emptyOutputBuffer(j_compress_ptr info) {
        std::vector<uchar>& out = *of(info).out;
        const std::size_t used = out.size();
        out.resize(used * 2);
        info->dest->next_output_byte = out.data() + used;
        info->dest->free_in_buffer = out.size() - used;
        return TRUE;
    }
    static void termDestination(j_compress_ptr info) {
        std::vector<uchar>& out = *of(info).out;
        out.resize(out.size() - info->dest->free_in_buffer);
    }
};

JpegWriter::JpegWriter() : state(std::make_unique<State>()) {
    State& s = *state;
    s.cinfo.err = jpeg_std_error(&s.errors.pub);
    s.errors.pub.error_exit = &State::onError;
    s.errors.pub.output_message = &State::onMessage;
    jpeg_create_compress(&s.cinfo);
    s.cinfo.client_data = &s;
    s.destination.init_destination = &State::initDestination;
    s.destination.empty_output_buffer = &State::emptyOutputBuffer;
    s.destination.term_destination = &State::termDestination;
    s.cinfo.dest = &s.destination;
}

JpegWriter::~JpegWriter() { jpeg_destroy_compress(&state->cinfo); }

bool JpegWriter::accepts(const cv::Mat& image) {
    return image.depth() == CV_8U && image.channels() == 3 && image.dims == 2 && !image.empty();
}

bool JpegWriter::write(const cv::Mat& image, int quality, std::vector<uchar>& out) {
    CV_Assert(accepts(image));
    State& s = *state;
    jpeg_compress_struct& cinfo = s.cinfo;
    s.out = &out;
    if (setjmp(s.errors.jump) != 0) {
        jpeg_abort_compress(&cinfo);
        out.clear();
        return false;
    }
    cinfo.image_width = static_cast<JDIMENSION>(image.cols);
    cinfo.image_height = static_cast<JDIMENSION>(image.rows);
    cinfo.input_components = 3;
    // Before jpeg_set_defaults, which derives the JPEG colour space from it.
    cinfo.in_color_space = JCS_EXT_BGR;
    jpeg_set_defaults(&cinfo);
    cinfo.restart_interval = 0;
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row =
            const_cast<JSAMPROW>(image.ptr<uchar>(static_cast<int>(cinfo.next_scanline)));
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    return true;
}
