#include "overlay_file.h"

#include <fcntl.h>
#include <json-c/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>
#include <vector>

OverlayFile::OverlayFile(std::string path) : path_(std::move(path)) {}

OverlayFile::~OverlayFile() { releaseDocument(); }

void OverlayFile::releaseDocument() {
    if (overlayDocument != nullptr) {
        json_object_put(overlayDocument);
        overlayDocument = nullptr;
    }
    overlays_ = nullptr;
}

void OverlayFile::say(const char* message) const {
    std::fputs(message, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void OverlayFile::sayAboutFile(const char* before, const char* after) const {
    std::printf("%s%s%s\n", before, path_.c_str(), after);
    std::fflush(stdout);
}

bool OverlayFile::refreshOverlays(int& length) {
    struct stat st;
    if (stat(path_.c_str(), &st) != 0) {
        if (overlayFileSeen) {
            sayAboutFile("Cannot stat ", "");
            overlayFileSeen = false;
        }
        return false;
    }
    overlayFileSeen = true;

    if (st.st_mtime != overlayFileTime) {
        sayAboutFile("", " updated");
        // Stored before parsing: a half-written file that fails to parse is
        // not retried until its writer touches it again.
        overlayFileTime = st.st_mtime;
        releaseDocument();
        overlayDocument = parseFile();
        if (overlayDocument == nullptr) {
            sayAboutFile("Error parsing ", "");
            return false;
        }
    } else if (overlayDocument == nullptr) {
        return false;  // rejected earlier and unchanged since
    }

    json_object* overlays = nullptr;
    if (!json_object_object_get_ex(overlayDocument, "overlays", &overlays) ||
        !json_object_is_type(overlays, json_type_array)) {
        releaseDocument();
        sayAboutFile("Array 'overlays' missing in ", "");
        return false;
    }
    const std::size_t count = json_object_array_length(overlays);
    if (count < 1) {
        releaseDocument();
        sayAboutFile("No overlays in ", "");
        return false;
    }
    overlays_ = overlays;
    length = count > INT_MAX ? INT_MAX : static_cast<int>(count);
    return true;
}

json_object* OverlayFile::parseFile() const {
    // O_NONBLOCK so that a FIFO planted at the path cannot stall the caller;
    // the descriptor's own status then decides, whatever the path now names.
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size > static_cast<off_t>(kMaxOverlayFileBytes)) {
        close(fd);
        return nullptr;
    }

    // Read at most one byte past the bound, in case the file grew since fstat.
    std::vector<char> text(kMaxOverlayFileBytes + 1);
    std::size_t used = 0;
    while (used < text.size()) {
        const ssize_t got = read(fd, text.data() + used, text.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        used += static_cast<std::size_t>(got);
    }
    close(fd);
    if (used > kMaxOverlayFileBytes) return nullptr;

    json_tokener* tokener = json_tokener_new();  // default depth limit
    if (tokener == nullptr) return nullptr;
    json_object* document = json_tokener_parse_ex(tokener, text.data(), static_cast<int>(used));
    if (json_tokener_get_error(tokener) != json_tokener_success) {
        json_object_put(document);
        document = nullptr;
    }
    json_tokener_free(tokener);
    return document;
}

bool OverlayFile::readOverlay(int index, Overlay& out) {
    json_object* element = overlays_ == nullptr ? nullptr
                                                : json_object_array_get_idx(
                                                      overlays_, static_cast<std::size_t>(index));
    if (element == nullptr) return false;

    // A member holding JSON null comes back as null and counts as missing;
    // a non-object element has no members at all.
    json_object* x = nullptr;
    json_object* y = nullptr;
    json_object* type = nullptr;
    json_object* value = nullptr;
    json_object_object_get_ex(element, "x", &x);
    json_object_object_get_ex(element, "y", &y);
    json_object_object_get_ex(element, "type", &type);
    json_object_object_get_ex(element, "value", &value);

    if (x == nullptr) say("Missing 'x' tag in overlay");
    if (y == nullptr) say("Missing 'y' tag in overlay");
    if (type == nullptr) say("Missing 'type' tag in overlay");
    if (value == nullptr) say("Missing 'value' tag in overlay");
    if (x == nullptr || y == nullptr || type == nullptr || value == nullptr) return false;

    out.x = json_object_get_double(x) * 12.8;
    out.y = json_object_get_double(y) * 7.2;
    out.type = json_object_get_string(type);
    out.value = json_object_get_string(value);
    return true;
}
