// Picture headers: pixel sizes and the EXIF orientation, from bytes built
// here (the readers look at content, never at the name).
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "platform/host_api.h"

namespace {

using bytes = std::vector<unsigned char>;

void put16be(bytes &b, unsigned v) { b.push_back(v >> 8 & 0xff), b.push_back(v & 0xff); }
void put16le(bytes &b, unsigned v) { b.push_back(v & 0xff), b.push_back(v >> 8 & 0xff); }
void put32be(bytes &b, uint32_t v) { put16be(b, v >> 16), put16be(b, v & 0xffff); }
void put32le(bytes &b, uint32_t v) { put16le(b, v & 0xffff), put16le(b, v >> 16); }

bytes segment(unsigned marker, const bytes &payload) {
    bytes b{0xff, static_cast<unsigned char>(marker)};
    put16be(b, static_cast<unsigned>(payload.size() + 2));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// APP1 "Exif" with a first IFD holding a few tags, orientation among them.
bytes exif(bool little, int orientation, unsigned orientation_type = 3) {
    bytes p{'E', 'x', 'i', 'f', 0, 0};
    auto p16 = [&](unsigned v) { little ? put16le(p, v) : put16be(p, v); };
    auto p32 = [&](uint32_t v) { little ? put32le(p, v) : put32be(p, v); };
    p.push_back(little ? 'I' : 'M');
    p.push_back(little ? 'I' : 'M');
    p16(42);
    p32(8);
    p16(3);  // entries
    p16(0x010f), p16(2), p32(4), p32(0x00414243);  // Make, inline ASCII
    p16(0x0112), p16(orientation_type), p32(1), p16(static_cast<unsigned>(orientation)), p16(0);
    p16(0x011a), p16(5), p32(1), p32(0);
    p32(0);  // no next IFD
    return segment(0xe1, p);
}

bytes jpeg(int w, int h, const bytes &app1 = {}, unsigned sof = 0xc0) {
    bytes b{0xff, 0xd8};
    b.insert(b.end(), app1.begin(), app1.end());
    bytes jfif{'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
    bytes app0 = segment(0xe0, jfif);
    b.insert(b.end(), app0.begin(), app0.end());
    bytes dht = segment(0xc4, bytes(20, 0));  // DHT shares the SOF range: skipped
    b.insert(b.end(), dht.begin(), dht.end());
    bytes frame{8};
    put16be(frame, static_cast<unsigned>(h));
    put16be(frame, static_cast<unsigned>(w));
    frame.insert(frame.end(), {3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1});
    bytes sofseg = segment(sof, frame);
    b.insert(b.end(), sofseg.begin(), sofseg.end());
    bytes sos = segment(0xda, bytes{1, 1, 0, 0, 63, 0});
    b.insert(b.end(), sos.begin(), sos.end());
    b.insert(b.end(), {0x12, 0x34, 0xff, 0xd9});
    return b;
}

bytes png(uint32_t w, uint32_t h) {
    bytes b{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    put32be(b, 13);
    b.insert(b.end(), {'I', 'H', 'D', 'R'});
    put32be(b, w);
    put32be(b, h);
    b.insert(b.end(), {8, 6, 0, 0, 0, 0, 0, 0, 0});
    return b;
}

bytes gif(unsigned w, unsigned h, const char *version = "GIF89a") {
    bytes b(version, version + 6);
    put16le(b, w);
    put16le(b, h);
    b.insert(b.end(), {0, 0, 0, ';'});
    return b;
}

bytes bmp(int32_t w, int32_t h, uint32_t header = 40) {
    bytes b{'B', 'M'};
    put32le(b, 100), put32le(b, 0), put32le(b, 54);
    put32le(b, header);
    if (header == 12) {
        put16le(b, static_cast<unsigned>(w)), put16le(b, static_cast<unsigned>(h));
    } else {
        put32le(b, static_cast<uint32_t>(w)), put32le(b, static_cast<uint32_t>(h));
    }
    b.resize(b.size() + 28, 0);
    return b;
}

bytes cut(bytes b, std::size_t n) {
    b.resize(n);
    return b;
}

struct picture {
    std::string path;
    explicit picture(const bytes &content, const char *name = "pic.dat") {
        char tmpl[] = "/tmp/vtrsim-pic-XXXXXX";
        path = std::string(::mkdtemp(tmpl)) + "/" + name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(content.data()),
                                                    static_cast<std::streamsize>(content.size()));
    }
    ~picture() {
        ::unlink(path.c_str());
        ::rmdir(path.substr(0, path.rfind('/')).c_str());
    }
};

TEST(VtrsimImages, PixelSizes) {
    struct row {
        const char *what;
        bytes content;
        int result, w, h;
    };
    const row rows[] = {
        {"jpeg baseline", jpeg(640, 480), 0, 640, 480},
        {"jpeg progressive with exif", jpeg(4000, 3000, exif(false, 6), 0xc2), 0, 4000, 3000},
        {"jpeg without frame", bytes{0xff, 0xd8, 0xff, 0xd9}, -1, 0, 0},
        {"jpeg cut short", bytes{0xff, 0xd8, 0xff, 0xe0, 0x00}, -1, 0, 0},
        {"png", png(1920, 1080), 0, 1920, 1080},
        {"png truncated", cut(png(1, 1), 20), -1, 0, 0},
        {"gif89a", gif(320, 200), 0, 320, 200},
        {"gif87a", gif(16, 65535, "GIF87a"), 0, 16, 65535},
        {"bmp bottom-up", bmp(800, 600), 0, 800, 600},
        {"bmp top-down", bmp(800, -600), 0, 800, 600},
        {"bmp core header", bmp(12, 34, 12), 0, 12, 34},
        {"text", bytes{'h', 'e', 'l', 'l', 'o'}, -1, 0, 0},
        {"empty", bytes{}, -1, 0, 0},
    };
    for (const row &r : rows) {
        picture p(r.content, "photo.jpg");
        int w = 77, h = 77;
        EXPECT_EQ(get_image_dimension(p.path.c_str(), &w, &h), r.result) << r.what;
        EXPECT_EQ(w, r.w) << r.what;
        EXPECT_EQ(h, r.h) << r.what;
    }
    int w = 5, h = 5;
    EXPECT_EQ(get_image_dimension("/nonexistent/x.png", &w, &h), -1);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, 0);
}

TEST(VtrsimImages, ExifOrientationInBothByteOrders) {
    struct row {
        const char *what;
        bytes content;
        int orientation;
    };
    const row rows[] = {
        {"little endian 6", jpeg(10, 10, exif(true, 6)), 6},
        {"big endian 8", jpeg(10, 10, exif(false, 8)), 8},
        {"little endian 1", jpeg(10, 10, exif(true, 1)), 1},
        {"big endian 3", jpeg(10, 10, exif(false, 3)), 3},
        {"out of range", jpeg(10, 10, exif(true, 9)), 0},
        {"wrong type", jpeg(10, 10, exif(false, 6, 4)), 0},
        {"no exif", jpeg(10, 10), 0},
        {"png", png(5, 5), 0},
    };
    for (const row &r : rows) {
        picture p(r.content);
        EXPECT_EQ(jpeg_exif_orient_database_read_only(p.path.c_str()), r.orientation) << r.what;
    }
    EXPECT_EQ(jpeg_exif_orient_database_read_only("/nonexistent.jpg"), 0);
}

}  // namespace
