// Picture headers: pixel size of JPEG, PNG, GIF and BMP files and the EXIF
// orientation of JPEG files, read from the bytes (never from the name).
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/sim/vtrsim_export.h"
#include "platform/host_api.h"

namespace {

struct file {
    int fd = -1;
    explicit file(const char *path) : fd(path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1) {}
    ~file() {
        if (fd >= 0) ::close(fd);
    }
    file(const file &) = delete;
    file &operator=(const file &) = delete;
    bool read_at(off_t off, void *buf, std::size_t n) const {
        std::size_t done = 0;
        while (done < n) {
            ssize_t r = ::pread(fd, static_cast<char *>(buf) + done, n - done, off + static_cast<off_t>(done));
            if (r <= 0) return false;
            done += static_cast<std::size_t>(r);
        }
        return true;
    }
};

uint32_t be16(const unsigned char *p) { return (uint32_t{p[0]} << 8) | p[1]; }
uint32_t le16(const unsigned char *p) { return (uint32_t{p[1]} << 8) | p[0]; }
uint32_t be32(const unsigned char *p) { return (be16(p) << 16) | be16(p + 2); }
uint32_t le32(const unsigned char *p) { return (le16(p + 2) << 16) | le16(p); }

struct jpeg_info {
    bool is_jpeg = false;
    bool has_size = false;
    int width = 0, height = 0;
    int orientation = 0;
};

int exif_orientation(const std::vector<unsigned char> &seg) {
    // seg: APP1 payload without its length word.
    if (seg.size() < 6 + 8 || std::memcmp(seg.data(), "Exif\0\0", 6) != 0) return 0;
    const unsigned char *t = seg.data() + 6;
    std::size_t n = seg.size() - 6;
    bool little;
    if (t[0] == 'I' && t[1] == 'I') little = true;
    else if (t[0] == 'M' && t[1] == 'M') little = false;
    else return 0;
    auto u16 = [&](std::size_t off) { return little ? le16(t + off) : be16(t + off); };
    auto u32 = [&](std::size_t off) { return little ? le32(t + off) : be32(t + off); };
    if (u16(2) != 42) return 0;
    std::size_t ifd = u32(4);
    if (ifd + 2 > n) return 0;
    std::size_t count = u16(ifd);
    for (std::size_t i = 0; i < count; ++i) {
        std::size_t e = ifd + 2 + 12 * i;
        if (e + 12 > n) return 0;
        if (u16(e) != 0x0112) continue;
        if (u16(e + 2) != 3) return 0;  // SHORT
        uint32_t v = u16(e + 8);
        return v >= 1 && v <= 8 ? static_cast<int>(v) : 0;
    }
    return 0;
}

jpeg_info read_jpeg(const file &f) {
    jpeg_info info;
    unsigned char b[8];
    if (!f.read_at(0, b, 2) || b[0] != 0xff || b[1] != 0xd8) return info;
    info.is_jpeg = true;
    off_t pos = 2;
    for (int guard = 0; guard < 10000; ++guard) {
        if (!f.read_at(pos, b, 1)) return info;
        if (b[0] != 0xff) {  // garbage between segments: skip it
            ++pos;
            continue;
        }
        unsigned char m;
        do {
            if (!f.read_at(++pos, &m, 1)) return info;
        } while (m == 0xff);
        ++pos;
        if (m == 0x01 || m == 0xd8 || (m >= 0xd0 && m <= 0xd7)) continue;
        if (m == 0xd9 || m == 0xda) return info;  // end of image or start of scan
        if (!f.read_at(pos, b, 2)) return info;
        uint32_t len = be16(b);
        if (len < 2) return info;
        bool sof = m >= 0xc0 && m <= 0xcf && m != 0xc4 && m != 0xc8 && m != 0xcc;
        if (sof && !info.has_size) {
            if (!f.read_at(pos + 2, b, 5)) return info;
            info.height = static_cast<int>(be16(b + 1));
            info.width = static_cast<int>(be16(b + 3));
            info.has_size = true;
        } else if (m == 0xe1 && info.orientation == 0) {
            std::vector<unsigned char> seg(len - 2);
            if (!seg.empty() && f.read_at(pos + 2, seg.data(), seg.size())) info.orientation = exif_orientation(seg);
        }
        if (info.has_size && info.orientation != 0) return info;
        pos += len;
    }
    return info;
}

bool picture_size(const char *path, int &w, int &h) {
    file f(path);
    if (f.fd < 0) return false;
    unsigned char b[32] = {};
    if (!f.read_at(0, b, 2)) return false;
    if (b[0] == 0xff && b[1] == 0xd8) {
        jpeg_info j = read_jpeg(f);
        if (!j.has_size) return false;
        w = j.width;
        h = j.height;
        return true;
    }
    if (f.read_at(0, b, 24) && std::memcmp(b, "\x89PNG\r\n\x1a\n", 8) == 0 && std::memcmp(b + 12, "IHDR", 4) == 0) {
        w = static_cast<int>(be32(b + 16));
        h = static_cast<int>(be32(b + 20));
        return true;
    }
    if (f.read_at(0, b, 10) && (std::memcmp(b, "GIF87a", 6) == 0 || std::memcmp(b, "GIF89a", 6) == 0)) {
        w = static_cast<int>(le16(b + 6));
        h = static_cast<int>(le16(b + 8));
        return true;
    }
    if (b[0] == 'B' && b[1] == 'M' && f.read_at(0, b, 26)) {
        uint32_t header = le32(b + 14);
        if (header == 12) {  // the old core header: 16-bit sizes
            w = static_cast<int>(le16(b + 18));
            h = static_cast<int>(le16(b + 20));
            return true;
        }
        if (header >= 40) {
            auto sw = static_cast<int32_t>(le32(b + 18));
            auto sh = static_cast<int32_t>(le32(b + 22));
            if (sw < 0 || sh == INT32_MIN) return false;
            w = sw;
            h = sh < 0 ? -sh : sh;
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" {

VTRSIM_API int get_image_dimension(const char *path, int *width, int *height) {
    int w = 0, h = 0;
    bool ok = picture_size(path, w, h);
    if (!ok) w = h = 0;
    if (width != nullptr) *width = w;
    if (height != nullptr) *height = h;
    return ok ? 0 : -1;
}

VTRSIM_API int jpeg_exif_orient_database_read_only(const char *path) {
    file f(path);
    if (f.fd < 0) return 0;
    return read_jpeg(f).orientation;
}

}  // extern "C"
