// Follows the overlay file, a small JSON document that another process
// rewrites at will, by its modification time, and reads its elements:
//   {"overlays": [{"x": 50, "y": 5, "type": "date", "value": "%H:%M:%S"}, ...]}
// with "x" and "y" in percent of the 1280 x 720 output frame.
//
// Owns the parsed document; json-c stays inside this unit. Main thread only.
// Every message goes to standard output as one line, flushed at once.
//
// The file lives in a world-writable directory, so only a regular file of at
// most kMaxOverlayFileBytes is parsed (anything else is "Error parsing"), and
// never with a blocking open; json-c's default depth limit applies.
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

private:
    void releaseDocument();
    // The parsed file, or null if it is not a regular file of bounded size
    // or is not valid JSON.
    json_object* parseFile() const;
    void say(const char* message) const;
    void sayAboutFile(const char* before, const char* after) const;

    std::string path_;
    // Whether the last stat() found the file: a missing file is reported
    // only when it goes.
    bool overlayFileSeen = true;
    // The modification time when the file was last read (or tried).
    time_t overlayFileTime = 0;
    // The parsed file; null while there is none or after it was rejected.
    json_object* overlayDocument = nullptr;
    // Its "overlays" array, as the last successful refreshOverlays() found it.
    json_object* overlays_ = nullptr;
};
