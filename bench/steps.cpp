// bench-steps: one step of composing a served frame, repeated on decoded
// camera frames, for counting its instructions under emulation
// (bench/arm64/run runs it twice with different counts and takes the
// difference, so loading and start-up drop out).
//
//   bench-steps STEP FRAMES WxH COUNT
//
// FRAMES holds raw BGR frames of WxH one after the other (ffmpeg -pix_fmt
// bgr24 -f rawvideo), all loaded first. COUNT steps run on them in turn,
// after one untimed step that makes every first-call allocation. STEP:
//   scale     the composer's scale of the frame to 1280x720 (nothing for a
//             frame of that size)
//   overlays  the composer's four overlays drawn into the 1280x720 frame
//   encode    the composer's JPEG encoding of the 1280x720 frame, quality 55
//   libjpeg   libjpeg-turbo called directly on that BGR frame: JCS_EXT_BGR
//             in, jpeg_set_defaults, quality 55, into memory
//   compose   the whole composition as the server runs it without overlays
// Steps other than scale and compose take the frames as scaled by the
// composer beforehand. Prints the steps run and the last JPEG's bytes.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "composer_fixture.h"
#include "frame_composer.h"

// After <cstddef> and <cstdio>, which it needs.
#include <jpeglib.h>

namespace {

// libjpeg-turbo with nothing of ours around it: one compressor, reused.
class BareJpeg {
public:
    BareJpeg() {
        cinfo.err = jpeg_std_error(&errors);
        jpeg_create_compress(&cinfo);
    }
    ~BareJpeg() {
        jpeg_destroy_compress(&cinfo);
        std::free(buffer);
    }
    BareJpeg(const BareJpeg&) = delete;
    BareJpeg& operator=(const BareJpeg&) = delete;

    unsigned long encode(const cv::Mat& bgr) {
        size = capacity;
        jpeg_mem_dest(&cinfo, &buffer, &size);
        cinfo.image_width = static_cast<JDIMENSION>(bgr.cols);
        cinfo.image_height = static_cast<JDIMENSION>(bgr.rows);
        cinfo.input_components = 3;
        cinfo.in_color_space = JCS_EXT_BGR;
        jpeg_set_defaults(&cinfo);
        jpeg_set_quality(&cinfo, 55, TRUE);
        jpeg_start_compress(&cinfo, TRUE);
        while (cinfo.next_scanline < cinfo.image_height) {
            JSAMPROW row = const_cast<JSAMPROW>(bgr.ptr(static_cast<int>(cinfo.next_scanline)));
            jpeg_write_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_compress(&cinfo);
        if (size > capacity) capacity = size;  // libjpeg grew the buffer
        return size;
    }

private:
    jpeg_compress_struct cinfo{};
    jpeg_error_mgr errors{};
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    unsigned long capacity = 0;
};

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: bench-steps scale|overlays|encode|libjpeg|compose FRAMES WxH COUNT\n");
    std::exit(2);
}

std::vector<cv::Mat> loadFrames(const char* path, cv::Size size) {
    std::ifstream in(path, std::ios::binary);
    std::vector<cv::Mat> frames;
    for (;;) {
        cv::Mat frame(size, CV_8UC3);
        if (!in.read(reinterpret_cast<char*>(frame.data),
                     static_cast<std::streamsize>(frame.total() * frame.elemSize())))
            break;
        frames.push_back(std::move(frame));
    }
    return frames;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) usage();
    const std::string step = argv[1];
    int width = 0, height = 0;
    if (std::sscanf(argv[3], "%dx%d", &width, &height) != 2 || width <= 0 || height <= 0) usage();
    const long count = std::atol(argv[4]);
    if (count < 0) usage();

    std::vector<cv::Mat> frames = loadFrames(argv[2], cv::Size(width, height));
    if (frames.empty()) {
        std::fprintf(stderr, "bench-steps: no %dx%d frame in %s\n", width, height, argv[2]);
        return 1;
    }

    std::string dir = (std::filesystem::temp_directory_path() / "bench-steps-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) return 1;
    const std::filesystem::path overlays = std::filesystem::path(dir) / "overlays.json";
    writeFourOverlays(overlays);
    SteadyRates rates;
    FramePool pool;
    FrameComposer composer(
        rates, pool,
        (step == "overlays" ? overlays : overlays.parent_path() / "absent.json").string());

    const bool wholeFrames = step == "scale" || step == "compose";
    if (!wholeFrames) {
        for (cv::Mat& frame : frames) FrameComposerPeer::scale(composer, frame);
    }
    std::vector<uchar> jpeg;
    BareJpeg bare;
    std::size_t bytes = 0;
    auto run = [&](cv::Mat& frame) {
        if (step == "scale") {
            cv::Mat slot = frame;  // shares the data: the pool will not keep it
            FrameComposerPeer::scale(composer, slot);
            pool.give(std::move(slot));  // as the ring gives back a served frame
        } else if (step == "compose") {
            cv::Mat slot = frame;
            bytes = composer.composeFrame(slot, jpeg).size();
            pool.give(std::move(slot));
        } else if (step == "overlays") {
            composer.applyOverlays(frame);
        } else if (step == "encode") {
            FrameComposerPeer::encode(composer, frame, jpeg);
            bytes = jpeg.size();
        } else if (step == "libjpeg") {
            bytes = bare.encode(frame);
        } else {
            usage();
        }
    };
    run(frames[0]);
    for (long i = 0; i < count; ++i) run(frames[static_cast<std::size_t>(i) % frames.size()]);
    std::filesystem::remove_all(dir);
    std::printf("steps=%ld\njpeg_bytes=%zu\n", count, bytes);
    return 0;
}
