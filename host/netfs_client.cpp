// netfs_client: the network-share client double. Serves the list, search and
// index request lines from the local folder that the share URL maps to (the
// same mapping as the simulated network library) and writes the answer file
// in the network lister's format:
//
//   name|size|date|type code      one record per entry, date "%a %b %d %H:%M:%S %Y"
//   url=<entry URL>
//
// preceded by a summary record "files|folders|date|10" + "url=<folder URL>",
// where files and folders count everything in the folder that passes the
// filter and keyword (before paging and listtype).
//
//   netfs_client "cmd=4&outfile=F&offset=O&range=R&listtype=L&filter=C&sort=S" URL
//   netfs_client "cmd=4&outfile=F&offset=O&range=R&listtype=L&filter=C&keyword=K[&level=0]" URL
//   netfs_client "cmd=4&outfile=F&listtype=L&filter=C&sort=S" URL
//
// Exit status: the configuration variable netfs_client_exit when set (the
// answer file is written anyway), 2 when the URL maps to no configured share
// or its folder cannot be read, 0 otherwise. Every run appends its arguments
// as one line to /tmp/netfs_client.log.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/sim/config.h"

namespace {

enum type_code : int {
    code_unknown = 0, code_folder = 1, code_music = 2, code_photo = 3, code_video = 4, code_others = 5,
    code_torrent = 7, code_phf = 8, code_summary = 10, code_bd_rip = 11, code_dvd_rip = 12, code_video_iso = 13,
};

struct request {
    std::string outfile = "/tmp/smb.out";
    long long offset = 0, range = 0;
    bool paged = false;
    int listtype = 1;  // 1 both, 2 files only, 3 folders only
    int filter = 0;    // 1 video, 2 music, 3 photo, 4 torrent, 5 others
    int sort = 0;      // 0..5: name, size, date; ascending, descending
    std::optional<std::string> keyword;
    bool recursive = false;  // level=0
};

struct entry {
    std::string name;
    std::string relative;  // path below the requested folder
    long long size = 0;
    time_t mtime = 0;
    int code = code_unknown;
};

request parse_request(std::string_view line) {
    request r;
    // The keyword is the last key but may hold any character: everything
    // after "keyword=" up to a final "&level=N".
    std::size_t kw = line.find("keyword=");
    std::string_view keys = line;
    if (kw != std::string_view::npos && (kw == 0 || line[kw - 1] == '&')) {
        std::string_view value = line.substr(kw + 8);
        std::size_t level = value.rfind("&level=");
        if (level != std::string_view::npos) {
            r.recursive = std::atoi(std::string(value.substr(level + 7)).c_str()) == 0;
            value = value.substr(0, level);
        }
        r.keyword = std::string(value);
        keys = line.substr(0, kw);
    }
    while (!keys.empty()) {
        std::size_t amp = keys.find('&');
        std::string_view item = keys.substr(0, amp);
        std::size_t eq = item.find('=');
        if (eq != std::string_view::npos) {
            std::string key(item.substr(0, eq)), value(item.substr(eq + 1));
            if (key == "outfile") r.outfile = value;
            else if (key == "offset") r.offset = std::atoll(value.c_str()), r.paged = true;
            else if (key == "range") r.range = std::atoll(value.c_str()), r.paged = true;
            else if (key == "listtype") r.listtype = std::atoi(value.c_str());
            else if (key == "filter") r.filter = std::atoi(value.c_str());
            else if (key == "sort") r.sort = std::atoi(value.c_str());
            else if (key == "level") r.recursive = std::atoi(value.c_str()) == 0;
        }
        if (amp == std::string_view::npos) break;
        keys.remove_prefix(amp + 1);
    }
    return r;
}

bool exists_at(int dirfd, const std::string &rel) {
    struct stat st {};
    return ::fstatat(dirfd, rel.c_str(), &st, 0) == 0;
}

long long tree_size(int dirfd) {
    DIR *d = ::fdopendir(dirfd);
    if (d == nullptr) {
        ::close(dirfd);
        return 0;
    }
    long long total = 0;
    while (dirent *e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        struct stat st {};
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISREG(st.st_mode)) total += st.st_size;
        else if (S_ISDIR(st.st_mode)) {
            int sub = ::openat(::dirfd(d), e->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
            if (sub >= 0) total += tree_size(sub);
        }
    }
    ::closedir(d);
    return total;
}

// A folder holding a disc structure is served as one video entry.
int folder_code(int parent, const char *name) {
    std::string n = name;
    if (exists_at(parent, n + "/BDMV/index.bdmv") || exists_at(parent, n + "/BDAV")) return code_bd_rip;
    if (exists_at(parent, n + "/VIDEO_TS/VIDEO_TS.IFO") || exists_at(parent, n + "/DVD_RTAV")) return code_dvd_rip;
    return code_folder;
}

// The share's own idea of a file's kind, from the extension after the last
// "." (any case); a name it does not know is "others".
struct extension_code {
    const char *extension;
    int code;
};
constexpr extension_code known_extensions[] = {
    {"avi", code_video},   {"mkv", code_video},       {"mp4", code_video},     {"mpg", code_video},
    {"mpeg", code_video},  {"ts", code_video},        {"m2ts", code_video},    {"mov", code_video},
    {"wmv", code_video},   {"vob", code_video},       {"iso", code_video_iso}, {"img", code_video_iso},
    {"mp3", code_music},   {"flac", code_music},      {"wav", code_music},     {"aac", code_music},
    {"ogg", code_music},   {"wma", code_music},       {"m4a", code_music},     {"jpg", code_photo},
    {"jpeg", code_photo},  {"png", code_photo},       {"gif", code_photo},     {"bmp", code_photo},
    {"tif", code_photo},   {"tiff", code_photo},      {"torrent", code_torrent}, {"swf", code_phf},
    {"phf", code_phf},
};

int file_code(const std::string &name) {
    std::size_t dot = name.rfind('.');
    if (dot == std::string::npos) return code_others;
    for (const extension_code &k : known_extensions)
        if (::strcasecmp(name.c_str() + dot + 1, k.extension) == 0) return k.code;
    return code_others;
}

bool passes_filter(const entry &e, int filter) {
    if (e.code == code_folder) return true;
    switch (filter) {
    case 1: return e.code == code_video || e.code == code_video_iso || e.code == code_bd_rip || e.code == code_dvd_rip;
    case 2: return e.code == code_music;
    case 3: return e.code == code_photo;
    case 4: return e.code == code_torrent;
    case 5: return e.code == code_others || e.code == code_phf || e.code == code_unknown;
    default: return true;
    }
}

bool icontains(std::string_view hay, std::string_view needle) {
    if (needle.empty()) return true;
    auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
    return it != hay.end();
}

// Reads the folder (and, for a recursive search, every folder below it);
// hidden names (starting with ".") are not served.
void scan(int dirfd, const std::string &prefix, bool recursive, std::vector<entry> &out) {
    DIR *d = ::fdopendir(dirfd);
    if (d == nullptr) {
        ::close(dirfd);
        return;
    }
    std::vector<std::string> subfolders;
    while (dirent *de = ::readdir(d)) {
        if (de->d_name[0] == '.') continue;
        entry e;
        e.name = de->d_name;
        e.relative = prefix + e.name;
        struct stat st {};
        if (::fstatat(::dirfd(d), de->d_name, &st, 0) != 0) {
            e.code = code_unknown;  // a dangling link
        } else if (S_ISDIR(st.st_mode)) {
            e.code = folder_code(::dirfd(d), de->d_name);
            e.mtime = st.st_mtime;
            if (e.code != code_folder) {
                int sub = ::openat(::dirfd(d), de->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                if (sub >= 0) e.size = tree_size(sub);
            }
            subfolders.push_back(e.name);
        } else {
            e.code = file_code(e.name);
            e.size = st.st_size;
            e.mtime = st.st_mtime;
        }
        out.push_back(std::move(e));
    }
    if (recursive) {
        for (const std::string &s : subfolders) {
            int sub = ::openat(::dirfd(d), s.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (sub >= 0) scan(sub, prefix + s + "/", true, out);
        }
    }
    ::closedir(d);
}

std::string date_text(time_t t) {
    struct tm tm {};
    char buf[64];
    if (::localtime_r(&t, &tm) == nullptr || std::strftime(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &tm) == 0)
        return "Thu Jan 01 00:00:00 1970";
    return buf;
}

void log_invocation(int argc, char **argv) {
    FILE *log = std::fopen("/tmp/netfs_client.log", "ae");
    if (log == nullptr) return;
    for (int i = 0; i < argc; ++i) std::fprintf(log, "%s%s", i ? " " : "", argv[i]);
    std::fputc('\n', log);
    std::fclose(log);
}

int configured_exit(int otherwise) {
    std::optional<std::string> v = vtrsim::config_value("netfs_client_exit");
    return v && !v->empty() ? std::atoi(v->c_str()) : otherwise;
}

}  // namespace

int main(int argc, char **argv) {
    log_invocation(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: netfs_client REQUEST_LINE SHARE_URL\n");
        return 2;
    }
    request r = parse_request(argv[1]);
    std::string url = argv[2];
    std::optional<std::string> local = vtrsim::map_share_url(url);
    if (!local) {
        std::fprintf(stderr, "netfs_client: %s is not a configured share\n", url.c_str());
        return 2;
    }
    int dirfd = ::open(local->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd < 0) {
        std::fprintf(stderr, "netfs_client: cannot read %s\n", local->c_str());
        return 2;
    }
    struct stat folder_st {};
    ::fstat(dirfd, &folder_st);

    std::vector<entry> all;
    scan(dirfd, "", r.keyword.has_value() && r.recursive, all);

    std::vector<entry> kept;
    long long files = 0, folders = 0;
    for (entry &e : all) {
        if (r.keyword && !icontains(e.name, *r.keyword)) continue;
        if (!passes_filter(e, r.filter)) continue;
        (e.code == code_folder ? folders : files)++;
        if (r.listtype == 2 && e.code == code_folder) continue;
        if (r.listtype == 3 && e.code != code_folder) continue;
        kept.push_back(std::move(e));
    }

    auto name_less = [](const entry &a, const entry &b) {
        int c = ::strcasecmp(a.name.c_str(), b.name.c_str());
        if (c != 0) return c < 0;
        return a.relative < b.relative;
    };
    int sort = r.keyword ? 0 : r.sort;
    std::stable_sort(kept.begin(), kept.end(), [&](const entry &a, const entry &b) {
        bool fa = a.code == code_folder, fb = b.code == code_folder;
        if (fa != fb) return fa;
        switch (sort) {
        case 1: return name_less(b, a);
        case 2: return a.size != b.size ? a.size < b.size : name_less(a, b);
        case 3: return a.size != b.size ? a.size > b.size : name_less(a, b);
        case 4: return a.mtime != b.mtime ? a.mtime < b.mtime : name_less(a, b);
        case 5: return a.mtime != b.mtime ? a.mtime > b.mtime : name_less(a, b);
        default: return name_less(a, b);
        }
    });

    std::size_t first = 0, last = kept.size();
    if (r.paged) {
        long long range = r.offset == 0 && r.range == 0 ? 99999 : r.range;
        long long offset = r.offset < 0 ? 0 : r.offset;
        first = static_cast<std::size_t>(std::min<long long>(offset, static_cast<long long>(kept.size())));
        long long end = range <= 0 ? offset : offset + range;
        last = static_cast<std::size_t>(std::clamp<long long>(end, static_cast<long long>(first),
                                                              static_cast<long long>(kept.size())));
    }

    std::string base = url;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    FILE *out = std::fopen(r.outfile.c_str(), "we");
    if (out == nullptr) {
        std::perror("netfs_client: outfile");
        return 2;
    }
    std::fprintf(out, "%lld|%lld|%s|%d\nurl=%s\n", files, folders, date_text(folder_st.st_mtime).c_str(),
                 code_summary, url.c_str());
    for (std::size_t i = first; i < last; ++i) {
        const entry &e = kept[i];
        std::fprintf(out, "%s|%lld|%s|%d\nurl=%s/%s\n", e.name.c_str(), e.size, date_text(e.mtime).c_str(), e.code,
                     base.c_str(), e.relative.c_str());
    }
    if (std::fclose(out) != 0) return 2;
    return configured_exit(0);
}
