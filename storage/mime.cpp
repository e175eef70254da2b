// Extension to MIME type. The exported table is kept in its sorted order
// from the start (case-insensitive by extension, equal extensions in their
// original order), so the run-time sort finds nothing to move and concurrent
// requests never write to it.
#include "storage/mime.h"

#include <strings.h>

#include <cstring>

#include "base/export.h"

extern "C" {

FILEOP_EXPORT mime_entry file_mime_table[mime_table_size] = {
    {".aac", "audio/aac"},  // row 19
    {".ac3", "audio/ac3"},  // row 18
    {".ape", "audio/mac"},  // row 27
    {".asf", "video/x-ms-asf"},  // row 42
    {".avi", "video/x-msvideo"},  // row 37
    {".bmp", "image/bmp"},  // row 6
    {".cue", "audio/x-cue"},  // row 28
    {".dff", "audio/dsd"},  // row 29
    {".div", "video/divx"},  // row 57
    {".divx", "video/divx"},  // row 48
    {".dsf", "audio/dsd"},  // row 30
    {".dts", "audio/dts"},  // row 22
    {".dvr-ms", "video/dvr-ms"},  // row 52
    {".evo", "video/evo"},  // row 67
    {".flac", "audio/flac"},  // row 23
    {".flv", "video/ix-flv"},  // row 70
    {".gif", "image/gif"},  // row 1
    {".h264", "video/H264"},  // row 68
    {".hnl", "video/mpeg"},  // row 55
    {".img", "video/iso"},  // row 73
    {".iso", "video/iso"},  // row 72
    {".jpe", "image/jpeg"},  // row 4
    {".jpeg", "image/jpeg"},  // row 3
    {".jpg", "image/jpeg"},  // row 2
    {".m1v", "video/m1v"},  // row 50
    {".m2p", "video/mpeg"},  // row 47
    {".m2t", "video/x-mp2t-mphl-188"},  // row 53
    {".m2ts", "video/m2ts"},  // row 61
    {".m2v", "video/mpeg"},  // row 46
    {".m3u", "audio/x-mpegurl"},  // row 26
    {".m4a", "audio/m4a"},  // row 10
    {".m4v", "video/m4v"},  // row 51
    {".mk3d", "video/mkv"},  // row 69
    {".mka", "audio/mka"},  // row 25
    {".mkv", "video/mkv"},  // row 65
    {".mod", "video/mpeg"},  // row 33
    {".mov", "video/quicktime"},  // row 36
    {".movie", "video/x-sgi-movie"},  // row 38
    {".mp1", "audio/MP1"},  // row 17
    {".mp2", "audio/mpeg"},  // row 12
    {".mp3", "audio/mpeg"},  // row 13
    {".mp4", "video/MP4V-ES"},  // row 41
    {".mpa", "audio/MPA"},  // row 20
    {".mpe", "video/mpeg"},  // row 34
    {".mpe", "video/mpe"},  // row 44
    {".mpeg", "video/mpeg"},  // row 31
    {".mpg", "video/mpeg"},  // row 32
    {".mpga", "audio/mpeg"},  // row 11
    {".mts", "video/mts"},  // row 63
    {".mv", "video/x-sgi-movie"},  // row 39
    {".ogg", "audio/x-ogg"},  // row 15
    {".pcm", "audio/L16"},  // row 14
    {".phf", "application/x-shockwave-flash"},  // row 74
    {".pls", "audio/pls"},  // row 21
    {".png", "image/png"},  // row 5
    {".qt", "video/quicktime"},  // row 35
    {".rmp", "video/rmp"},  // row 59
    {".rmp4", "video/rmp4"},  // row 60
    {".ssif", "video/mpeg-4-mvc"},  // row 71
    {".swf", "application/x-shockwave-flash"},  // row 75
    {".tif", "image/tiff"},  // row 7
    {".tiff", "image/tiff"},  // row 8
    {".tod", "video/m2ts"},  // row 62
    {".torrent", "torrent"},  // row 0
    {".tp", "video/mpeg"},  // row 64
    {".trp", "video/mpeg"},  // row 56
    {".ts", "video/mpeg"},  // row 45
    {".tta", "audio/tta"},  // row 24
    {".vdr", "video/vdr"},  // row 66
    {".vob", "video/mpeg"},  // row 43
    {".vro", "video/vro"},  // row 54
    {".wav", "audio/wav"},  // row 9
    {".wma", "audio/x-ms-wma"},  // row 16
    {".wmv", "video/x-ms-wmv"},  // row 40
    {".xvi", "video/xvid"},  // row 58
    {".xvid", "video/xvid"},  // row 49
};

}  // extern "C"

namespace storage {

const char mime_none[] = "none";
const char mime_folder[] = "folder";

namespace {

bool table_in_order() noexcept {
    for (int i = 1; i < mime_table_size; ++i)
        if (::strcasecmp(file_mime_table[i - 1].extension, file_mime_table[i].extension) > 0) return false;
    return true;
}

}  // namespace

void sort_mime_table() noexcept {
    // Reads only, unless another module of the player has reordered the
    // exported table; then a stable insertion sort puts it back.
    if (table_in_order()) return;
    for (int i = 1; i < mime_table_size; ++i) {
        mime_entry moving = file_mime_table[i];
        int j = i;
        while (j > 0 && ::strcasecmp(file_mime_table[j - 1].extension, moving.extension) > 0) {
            file_mime_table[j] = file_mime_table[j - 1];
            --j;
        }
        file_mime_table[j] = moving;
    }
}

const char *mime_type_for_path(const char *path) noexcept {
    if (path == nullptr) return mime_none;
    const char *dot = std::strrchr(path, '.');
    if (dot == nullptr) return mime_none;
    int low = 0;
    int high = mime_table_size;
    while (low < high) {
        int middle = (low + high) / 2;
        int order = ::strcasecmp(dot, file_mime_table[middle].extension);
        if (order < 0)
            high = middle;
        else if (order > 0)
            low = middle + 1;
        else
            return file_mime_table[middle].type;
    }
    return mime_none;
}

}  // namespace storage
