// test-camera: a stand-in for the network camera, for tests, demos and benchmarks.
//
// Serves a live synthetic H.264 picture (a moving ball with the running time
// printed on it) over RTSP on 127.0.0.1. One shared pipeline feeds every
// client, so the video server, ffmpeg and a benchmark can watch at once.
// Transport is RTP interleaved in the RTSP TCP connection only: a client sees
// end of stream as soon as the camera goes away, and no frame is lost to UDP
// drops on a loaded machine. ffmpeg (and so OpenCV) falls back to TCP by itself
// after the server refuses UDP.
//
// With --replay FILE it serves the H.264 video of FILE (any container
// GStreamer can demux, or a raw H.264 stream) in a loop at the file's own
// frame rate instead: the access units are read into memory once at start
// and only packetised at run time, so the camera costs next to nothing while
// a benchmark measures its clients. --size, --fps and --stamp do not apply.
//
// With --stamp every frame also carries the wall-clock time of its generation
// as two rows of black and white blocks along its bottom edge (stamp.h,
// which also reads them back), so a client can tell how old a frame is.
//
// When ready it prints exactly one line, "rtsp://127.0.0.1:PORT/PATH", on
// stdout. SIGINT and SIGTERM end it with status 0.

#include <getopt.h>
#include <glib-unix.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <gst/video/video.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "stamp.h"

namespace {

struct Options {
    int port = 8554;
    std::string path = "/stream";
    int width = 1280;
    int height = 720;
    int fps = 30;
    bool stamp = false;
    std::string replay;
};

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: test-camera [--port N] [--path /stream] [--size WxH] [--fps N] [--stamp]\n"
                 "       test-camera [--port N] [--path /stream] --replay FILE\n"
                 "  --port N     RTSP port on 127.0.0.1 (default 8554; 0 picks a free one)\n"
                 "  --path P     stream path (default /stream)\n"
                 "  --size WxH   picture size (default 1280x720)\n"
                 "  --fps N      frames per second (default 30)\n"
                 "  --stamp      write each frame's generation time into its bottom edge\n"
                 "  --replay F   serve the H.264 video of file F in a loop, as it was encoded\n"
                 "Prints the stream URL on stdout once clients can connect.\n");
}

bool parseInt(const char* text, int lo, int hi, int& out) {
    char* end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) return false;
    out = static_cast<int>(v);
    return true;
}

bool parseSize(const char* text, int& w, int& h) {
    std::string s(text);
    auto x = s.find('x');
    if (x == std::string::npos) return false;
    // Even sizes only: the encoder's 4:2:0 chroma needs them.
    return parseInt(s.substr(0, x).c_str(), 16, 7680, w) &&
           parseInt(s.substr(x + 1).c_str(), 16, 4320, h) && w % 2 == 0 && h % 2 == 0;
}

// Returns 0 when the options are good, or the exit status to leave with.
int parseOptions(int argc, char** argv, Options& o) {
    static const option longOpts[] = {
        {"port", required_argument, nullptr, 'p'},   {"path", required_argument, nullptr, 'u'},
        {"size", required_argument, nullptr, 's'},   {"fps", required_argument, nullptr, 'f'},
        {"stamp", no_argument, nullptr, 't'},        {"help", no_argument, nullptr, 'h'},
        {"replay", required_argument, nullptr, 'r'}, {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "", longOpts, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
            case 'p':
                ok = parseInt(optarg, 0, 65535, o.port);
                break;
            case 'u':
                o.path = optarg;
                ok = o.path.size() > 1 && o.path[0] == '/';
                break;
            case 's':
                ok = parseSize(optarg, o.width, o.height);
                break;
            case 'f':
                ok = parseInt(optarg, 1, 240, o.fps);
                break;
            case 't':
                o.stamp = true;
                break;
            case 'r':
                o.replay = optarg;
                ok = !o.replay.empty();
                break;
            case 'h':
                usage(stdout);
                return -1;
            default:
                usage(stderr);
                return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "test-camera: bad value for --%s: %s\n",
                         c == 'p'   ? "port"
                         : c == 'u' ? "path"
                         : c == 's' ? "size"
                         : c == 'r' ? "replay"
                                    : "fps",
                         optarg);
            return 2;
        }
    }
    if (optind < argc) {
        usage(stderr);
        return 2;
    }
    return 0;
}

bool haveElement(const char* name) {
    GstElementFactory* f = gst_element_factory_find(name);
    if (!f) return false;
    gst_object_unref(f);
    return true;
}

// The text overlay needs the pango plugin, which is optional: without it the
// picture still moves, it just carries no clock.
std::string launchLine(const Options& o, bool withClock) {
    // A yellow ball on slate blue rather than white on black, so that white
    // text on a dark box drawn over the picture stays visible in demos.
    std::string s =
        "( videotestsrc name=src is-live=true pattern=ball background-color=0xff304860 "
        "foreground-color=0xffffd040 ! video/x-raw,format=I420,width=" +
        std::to_string(o.width) + ",height=" + std::to_string(o.height) +
        ",framerate=" + std::to_string(o.fps) + "/1";
    if (withClock) {
        s += " ! timeoverlay halignment=left valignment=top font-desc=\"Sans 24\" "
             "shaded-background=true";
    }
    // One key frame a second, so a client that joins late decodes within a second.
    s += " ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=" + std::to_string(o.fps) +
         " ! video/x-h264,profile=constrained-baseline"
         " ! rtph264pay name=pay0 pt=96 config-interval=1 )";
    return s;
}

// Where the three planes of an I420 buffer start, and their line strides.
struct I420Layout {
    gsize offset[3];
    gint stride[3];
};

// The layout comes from the buffer's video meta when it has one; otherwise
// it is GStreamer's default for I420 (lines padded to four bytes), which the
// buffer's size must then match.
bool i420Layout(GstBuffer* buf, int width, int height, I420Layout& out) {
    // Looked up by name: the meta's API type lives in libgstvideo, which this
    // program does not link; the plugins that attach the meta register it.
    static const GType videoMetaApi = g_type_from_name("GstVideoMetaAPI");
    if (videoMetaApi != 0) {
        if (const GstMeta* meta = gst_buffer_get_meta(buf, videoMetaApi)) {
            const auto* vm = reinterpret_cast<const GstVideoMeta*>(meta);
            if (vm->format != GST_VIDEO_FORMAT_I420 || vm->n_planes != 3 ||
                static_cast<int>(vm->width) != width || static_cast<int>(vm->height) != height) {
                return false;
            }
            for (int i = 0; i < 3; ++i) {
                out.offset[i] = vm->offset[i];
                out.stride[i] = vm->stride[i];
            }
            return true;
        }
    }
    const gint lumaStride = GST_ROUND_UP_4(width);
    const gint chromaStride = GST_ROUND_UP_4(width / 2);
    out.stride[0] = lumaStride;
    out.stride[1] = out.stride[2] = chromaStride;
    out.offset[0] = 0;
    out.offset[1] = static_cast<gsize>(lumaStride) * height;
    out.offset[2] = out.offset[1] + static_cast<gsize>(chromaStride) * (height / 2);
    return gst_buffer_get_size(buf) ==
           out.offset[2] + static_cast<gsize>(chromaStride) * (height / 2);
}

// Buffer probe on the source's output: runs as each raw frame leaves
// videotestsrc, which pushes a live frame at its capture time, so "now" is
// the frame's generation time.
GstPadProbeReturn stampFrame(GstPad*, GstPadProbeInfo* info, gpointer data) {
    const Options& o = *static_cast<const Options*>(data);
    const gint64 now = g_get_real_time();
    GstBuffer* buf = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buf;

    I420Layout layout;
    GstMapInfo map;
    if (!i420Layout(buf, o.width, o.height, layout)) {
        static bool warned = false;
        if (!warned)
            std::fprintf(stderr, "test-camera: unexpected frame layout, frames not stamped\n");
        warned = true;
        return GST_PAD_PROBE_OK;
    }
    if (!gst_buffer_map(buf, &map, GST_MAP_WRITE)) return GST_PAD_PROBE_OK;
    stamp::paint(map.data + layout.offset[0], static_cast<std::size_t>(layout.stride[0]), o.width,
                 o.height, now);
    // Neutral chroma under the stamp: plain grey blocks, no tint of the
    // background bleeding into them.
    for (int plane = 1; plane < 3; ++plane) {
        for (int y = stamp::bandTop(o.height) / 2; y < o.height / 2; ++y) {
            std::memset(
                map.data + layout.offset[plane] + static_cast<gsize>(y) * layout.stride[plane], 128,
                static_cast<std::size_t>(o.width / 2));
        }
    }
    gst_buffer_unmap(buf, &map);
    return GST_PAD_PROBE_OK;
}

// Each time the shared pipeline is built (again, after the last client left).
void onMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data) {
    GstElement* bin = gst_rtsp_media_get_element(media);
    GstElement* src = gst_bin_get_by_name(GST_BIN(bin), "src");
    if (src) {
        GstPad* pad = gst_element_get_static_pad(src, "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, stampFrame, data, nullptr);
        gst_object_unref(pad);
        gst_object_unref(src);
    }
    gst_object_unref(bin);
}

// The replayed video: its H.264 access units in decoding order, time stamps
// counted from the first, and the time one pass through them takes.
struct Recording {
    std::vector<GstBuffer*> units;  // one reference each, for the program's life
    GstCaps* caps = nullptr;
    GstClockTime loopDuration = 0;
};

// Reads every access unit of the file's H.264 video into memory.
bool loadRecording(const std::string& path, Recording& rec) {
    GError* err = nullptr;
    GstElement* pipeline = gst_parse_launch(
        "filesrc name=file ! parsebin ! h264parse ! "
        "video/x-h264,stream-format=byte-stream,alignment=au ! appsink name=sink sync=false",
        &err);
    if (pipeline == nullptr) {
        std::fprintf(stderr, "test-camera: %s\n", err ? err->message : "cannot read files");
        g_clear_error(&err);
        return false;
    }
    GstElement* file = gst_bin_get_by_name(GST_BIN(pipeline), "file");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_object_set(file, "location", path.c_str(), nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstClockTime firstPts = GST_CLOCK_TIME_NONE, lastEnd = 0;
    bool timed = true;
    for (;;) {
        GstSample* sample = nullptr;
        g_signal_emit_by_name(sink, "try-pull-sample", GstClockTime{10 * GST_SECOND}, &sample);
        if (sample == nullptr) break;
        GstBuffer* unit = gst_buffer_copy(gst_sample_get_buffer(sample));
        if (rec.caps == nullptr) rec.caps = gst_caps_copy(gst_sample_get_caps(sample));
        gst_sample_unref(sample);
        if (!GST_BUFFER_PTS_IS_VALID(unit)) timed = false;
        if (!timed) {
            gst_buffer_unref(unit);
            continue;
        }
        if (firstPts == GST_CLOCK_TIME_NONE) firstPts = GST_BUFFER_PTS(unit);
        GST_BUFFER_PTS(unit) -= std::min(firstPts, GST_BUFFER_PTS(unit));
        GST_BUFFER_DTS(unit) = GST_BUFFER_DTS_IS_VALID(unit)
                                   ? GST_BUFFER_DTS(unit) - std::min(firstPts, GST_BUFFER_DTS(unit))
                                   : GST_BUFFER_PTS(unit);
        const GstClockTime step =
            GST_BUFFER_DURATION_IS_VALID(unit) ? GST_BUFFER_DURATION(unit) : 0;
        lastEnd = std::max(lastEnd, GST_BUFFER_PTS(unit) + step);
        rec.units.push_back(unit);
    }
    gboolean eos = FALSE;
    g_object_get(sink, "eos", &eos, nullptr);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(file);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    if (!eos || !timed || rec.units.size() < 2 || lastEnd == 0) {
        std::fprintf(stderr, "test-camera: %s: no timed H.264 video to replay\n", path.c_str());
        return false;
    }
    rec.loopDuration = lastEnd;
    return true;
}

// Where one shared pipeline is in the recording.
struct Playback {
    const Recording* rec;
    std::size_t next = 0;
    GstClockTime offset = 0;  // loops played so far, as time
};

// The source asks for more: the next access unit, stamped for this loop.
// The pipeline's sink plays them out at their time stamps.
void onNeedData(GstElement* src, guint, gpointer data) {
    Playback& p = *static_cast<Playback*>(data);
    GstBuffer* unit = gst_buffer_copy(p.rec->units[p.next]);  // shares the memory
    GST_BUFFER_PTS(unit) += p.offset;
    GST_BUFFER_DTS(unit) += p.offset;
    GstFlowReturn ret;
    g_signal_emit_by_name(src, "push-buffer", unit, &ret);
    gst_buffer_unref(unit);
    if (++p.next == p.rec->units.size()) {
        p.next = 0;
        p.offset += p.rec->loopDuration;
    }
}

void onReplayConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data) {
    GstElement* bin = gst_rtsp_media_get_element(media);
    GstElement* src = gst_bin_get_by_name(GST_BIN(bin), "src");
    if (src) {
        const auto* rec = static_cast<const Recording*>(data);
        g_object_set(src, "caps", rec->caps, "format", GST_FORMAT_TIME, nullptr);
        g_signal_connect_data(
            src, "need-data", G_CALLBACK(onNeedData), new Playback{rec},
            [](gpointer p, GClosure*) { delete static_cast<Playback*>(p); }, GConnectFlags(0));
        gst_object_unref(src);
    }
    gst_object_unref(bin);
}

gboolean onQuitSignal(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (int rc = parseOptions(argc, argv, opt); rc != 0) return rc < 0 ? 0 : rc;

    // A client that vanishes mid-write must not kill the camera.
    signal(SIGPIPE, SIG_IGN);
    gst_init(nullptr, nullptr);

    Recording recording;
    if (!opt.replay.empty() && !loadRecording(opt.replay, recording)) return 1;
    for (const char* needed : {"videotestsrc", "x264enc", "rtph264pay"}) {
        if (!haveElement(needed)) {
            std::fprintf(stderr, "test-camera: GStreamer element %s is missing\n", needed);
            return 1;
        }
    }
    const bool withClock = haveElement("timeoverlay");
    if (!withClock)
        std::fprintf(stderr, "test-camera: timeoverlay missing, picture has no clock\n");

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    GstRTSPServer* server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, "127.0.0.1");
    gst_rtsp_server_set_service(server, std::to_string(opt.port).c_str());

    // Handle every client in the main loop, one request at a time. With the
    // default pool thread per client, a client that connects while the last
    // one's disconnect is still tearing the shared pipeline down is answered
    // "503 Service Unavailable".
    GstRTSPThreadPool* pool = gst_rtsp_server_get_thread_pool(server);
    gst_rtsp_thread_pool_set_max_threads(pool, 0);
    g_object_unref(pool);

    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    if (opt.replay.empty()) {
        gst_rtsp_media_factory_set_launch(factory, launchLine(opt, withClock).c_str());
    } else {
        gst_rtsp_media_factory_set_launch(
            factory,
            "( appsrc name=src is-live=false ! rtph264pay name=pay0 pt=96 config-interval=-1 )");
        g_signal_connect(factory, "media-configure", G_CALLBACK(onReplayConfigure), &recording);
    }
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    gst_rtsp_media_factory_set_protocols(factory, GST_RTSP_LOWER_TRANS_TCP);
    if (opt.stamp && opt.replay.empty())
        g_signal_connect(factory, "media-configure", G_CALLBACK(onMediaConfigure), &opt);
    GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, opt.path.c_str(), factory);  // takes factory
    g_object_unref(mounts);

    GError* err = nullptr;
    GSource* listen = gst_rtsp_server_create_source(server, nullptr, &err);
    if (!listen) {
        std::fprintf(stderr, "test-camera: cannot listen on 127.0.0.1:%d: %s\n", opt.port,
                     err ? err->message : "unknown error");
        g_clear_error(&err);
        g_object_unref(server);
        g_main_loop_unref(loop);
        return 1;
    }
    g_source_attach(listen, nullptr);

    g_unix_signal_add(SIGINT, onQuitSignal, loop);
    g_unix_signal_add(SIGTERM, onQuitSignal, loop);

    std::printf("rtsp://127.0.0.1:%d%s\n", gst_rtsp_server_get_bound_port(server),
                opt.path.c_str());
    std::fflush(stdout);

    g_main_loop_run(loop);

    // Stop accepting, then leave without tearing the streaming threads down
    // one by one: the kernel closes every client connection at exit, which is
    // exactly what a camera that goes away looks like to its clients.
    g_source_destroy(listen);
    g_source_unref(listen);
    std::fflush(nullptr);
    _exit(0);
}
