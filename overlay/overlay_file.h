// Follows the overlay file, a small JSON document that another process
// rewrites at will, by its modification time, and reads its elements.
//
// The file looks like
//   {"overlays": [{"x": 50, "y": 5, "type": "date", "value": "%H:%M:%S"}, ...]}
// with "x" and "y" in percent of the 1280 x 720 output frame.
//
// Owns: the parsed document (one json-c reference); json-c stays inside this
// unit, callers get the elements as Overlay values. Main thread only: no
// member takes a lock. Every message goes to standard output as one line,
// flushed at once, naming the path given to the constructor.
//
// The file lives in a world-writable directory, so its content is untrusted:
//  - Only a regular file of at most kMaxOverlayFileBytes is parsed; anything
//    else (larger, a FIFO, a directory, a device) is reported as
//    "Error parsing <path>" and never opened for blocking reads.
//  - Nesting is limited by json-c's default depth (32); deeper documents are
//    parse errors.
//  - An "overlays" member that is not an array is treated as missing.
//  - Strings are read as C strings, so one holding "\u0000" ends there.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

// json-c's node type, by name only: json-c's headers stay in the .cpp.
struct json_object;

inline constexpr const char* kOverlayFilePath = "/tmp/overlays.json";
inline constexpr std::size_t kMaxOverlayFileBytes = 1 << 20;

// One overlay as read from the file. x and y are the pixel column and row of
// the text's centre (percent x 12.8 and percent y 7.2). The strings point
// into the parsed document and stay valid until the next refreshOverlays().
struct Overlay {
    double x;
    double y;
    const char* type;
    const char* value;
};

class OverlayFile {
public:
    explicit OverlayFile(std::string path = kOverlayFilePath);
    ~OverlayFile();
    OverlayFile(const OverlayFile&) = delete;
    OverlayFile& operator=(const OverlayFile&) = delete;

    // One stat() per call; re-parses the file only when its modification
    // time (whole seconds) differs from the one last seen. On success gives
    // the number of elements of the document's "overlays" array, at least 1,
    // which readOverlay() then reads until the next call. false: no overlays
    // this frame; the reason has been printed once.
    bool refreshOverlays(int& length);

    // The four values of the element at `index` (0 <= index < the length
    // the last successful refreshOverlays() gave), or false: silently for a
    // null element, otherwise after one line per missing member, in the
    // order x, y, type, value. Numbers are converted by json-c's rules; a
    // "type" or "value" that is not a string is its JSON text.
    bool readOverlay(int index, Overlay& out);

    const std::string& path() const { return path_; }

    // Whether the last stat() found the file; a missing file is reported
    // only on the transition from seen to not seen.
    bool overlayFileSeen = true;
    // Modification time of the file when it was last (attempted to be) read.
    time_t overlayFileTime = 0;

private:
    void releaseDocument();
    // The parsed file, or null if it is not a regular file of bounded size
    // or is not valid JSON.
    json_object* parseFile() const;
    void say(const char* message) const;
    void sayAboutFile(const char* before, const char* after) const;

    std::string path_;
    // The parsed file; null while there is none or after it was rejected.
    json_object* overlayDocument = nullptr;
    // Its "overlays" array, as the last successful refreshOverlays() found it.
    json_object* overlays_ = nullptr;
};
