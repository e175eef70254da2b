// The player's system utility and network-share libraries, simulated with
// the real file system: stat, statvfs, access and /proc/self/mounts.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/io.h"
#include "host/sim/config.h"
#include "host/sim/vtrsim_export.h"
#include "platform/host_api.h"

namespace {

char *dup_string(const std::string &s) {
    char *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (p != nullptr) std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

// Sum of regular file sizes below the open folder plus 4096 per folder
// (the folder itself included). Symbolic links inside are not followed.
long long folder_size(int dirfd) {
    DIR *d = ::fdopendir(dirfd);
    if (d == nullptr) {
        ::close(dirfd);
        return -1;
    }
    long long total = 4096;
    while (dirent *e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        struct stat st {};
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISREG(st.st_mode)) {
            total += st.st_size;
        } else if (S_ISDIR(st.st_mode)) {
            int sub = ::openat(::dirfd(d), e->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
            if (sub < 0) {
                total += 4096;
                continue;
            }
            long long s = folder_size(sub);
            if (s > 0) total += s;
        }
    }
    ::closedir(d);
    return total;
}

// The path itself when it exists, else its nearest existing ancestor
// (relative paths resolve against the working directory).
std::string nearest_existing(const char *path) {
    std::string p = path;
    if (p.empty()) p = ".";
    struct stat st {};
    while (::stat(p.c_str(), &st) != 0) {
        std::size_t slash = p.find_last_of('/');
        if (slash == std::string::npos) return ".";
        if (slash == 0) return "/";
        p.resize(slash);
    }
    return p;
}

std::string canonical(const char *path) {
    std::string p = nearest_existing(path);
    char resolved[PATH_MAX];
    if (::realpath(p.c_str(), resolved) == nullptr) return p;
    return resolved;
}

std::string unescape_mount_field(const char *s) {
    std::string out;
    for (std::size_t i = 0; s[i] != '\0'; ++i) {
        if (s[i] == '\\' && s[i + 1] >= '0' && s[i + 1] <= '7' && s[i + 2] != '\0' && s[i + 3] != '\0') {
            out += static_cast<char>(((s[i + 1] - '0') << 6) | ((s[i + 2] - '0') << 3) | (s[i + 3] - '0'));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool mount_covers(const std::string &mount_point, const std::string &path) {
    if (mount_point == "/") return true;
    return path.compare(0, mount_point.size(), mount_point) == 0 &&
           (path.size() == mount_point.size() || path[mount_point.size()] == '/');
}

// Type of the file system holding the (canonical) path: the last listed
// mount with the longest mount point covering it.
std::string mounted_type(const std::string &path) {
    FILE *f = std::fopen("/proc/self/mounts", "re");
    if (f == nullptr) return {};
    std::string best_type;
    std::size_t best_len = 0;
    char *line = nullptr;
    size_t cap = 0;
    while (::getline(&line, &cap, f) >= 0) {
        char dev[4096], dir[4096], type[256];
        if (std::sscanf(line, "%4095s %4095s %255s", dev, dir, type) != 3) continue;
        std::string mp = unescape_mount_field(dir);
        if (!mount_covers(mp, path)) continue;
        if (mp.size() >= best_len) {
            best_len = mp.size();
            best_type = type;
        }
    }
    std::free(line);
    std::fclose(f);
    return best_type;
}

bool is_fat_type(const std::string &type) {
    return type == "vfat" || type == "msdos" || type == "fat";
}

}  // namespace

extern "C" {

VTRSIM_API int isfileexist(const char *path) {
    struct stat st {};
    return path != nullptr && ::stat(path, &st) == 0 ? 1 : 0;
}

VTRSIM_API int isdir(const char *path) {
    struct stat st {};
    return path != nullptr && ::stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

VTRSIM_API long filesize(const char *path) {
    struct stat st {};
    if (path == nullptr || ::stat(path, &st) != 0) return -1;
    return static_cast<long>(st.st_size);
}

VTRSIM_API long long filesize64(const char *path) {
    struct stat st {};
    if (path == nullptr || ::stat(path, &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return static_cast<long long>(st.st_size);
    int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    return folder_size(fd);
}

VTRSIM_API unsigned int statfilesize(const char *path) {
    struct stat st {};
    if (path == nullptr || ::stat(path, &st) != 0) return 0;
    return static_cast<unsigned int>(st.st_size);
}

VTRSIM_API int write_permission(const char *path) {
    if (path == nullptr || ::access(path, W_OK) != 0) return 0;
    struct statvfs vfs {};
    if (::statvfs(path, &vfs) == 0 && (vfs.f_flag & ST_RDONLY) != 0) return 0;
    std::string real = canonical(path);
    if (vtrsim::under_fat_path(real) || vtrsim::under_fat_path(path)) return 2;
    if (is_fat_type(mounted_type(real))) return 2;
    return 1;
}

VTRSIM_API int samerootdrive(const char *a, const char *b, int /*flags*/) {
    if (a == nullptr || b == nullptr) return 0;
    struct stat sa {}, sb {};
    if (::stat(nearest_existing(a).c_str(), &sa) != 0) return 0;
    if (::stat(nearest_existing(b).c_str(), &sb) != 0) return 0;
    return sa.st_dev == sb.st_dev ? 1 : 0;
}

VTRSIM_API int get_partition_free_space(const char *path, long long space[3]) {
    if (path == nullptr || space == nullptr) return 0;
    struct statvfs vfs {};
    if (::statvfs(path, &vfs) != 0) return 0;
    auto frsize = static_cast<long long>(vfs.f_frsize);
    space[0] = static_cast<long long>(vfs.f_bavail) * frsize;
    space[1] = static_cast<long long>(vfs.f_blocks - vfs.f_bfree) * frsize;
    space[2] = static_cast<long long>(vfs.f_blocks) * frsize;
    return 1;
}

VTRSIM_API char *get_mounted_filesystem_type(const char *path) {
    if (path == nullptr) return nullptr;
    std::string real = canonical(path);
    if (vtrsim::under_fat_path(real) || vtrsim::under_fat_path(path)) return dup_string("vfat");
    std::string type = mounted_type(real);
    if (type.empty()) return nullptr;
    return dup_string(type);
}

VTRSIM_API int get_disc_type(int fd) {
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    char buf[32] = {};
    ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
    if (n <= 0) return 0;
    return std::atoi(buf);
}

VTRSIM_API char *get_cmd_output(const char *command, int max_bytes) {
    if (command == nullptr || max_bytes <= 0) return nullptr;
    FILE *pipe = ::popen(command, "re");
    if (pipe == nullptr) return nullptr;
    std::string out;
    char buf[4096];
    while (out.size() < static_cast<std::size_t>(max_bytes)) {
        std::size_t want = std::min(sizeof buf, static_cast<std::size_t>(max_bytes) - out.size());
        std::size_t got = std::fread(buf, 1, want, pipe);
        if (got == 0) break;
        out.append(buf, got);
    }
    // Let the command finish writing instead of dying on a broken pipe.
    while (std::fread(buf, 1, sizeof buf, pipe) > 0) {
    }
    ::pclose(pipe);
    if (out.empty()) return nullptr;
    if (out.back() == '\n') out.pop_back();
    return dup_string(out);
}

VTRSIM_API char *get_var_mem(const char *name) {
    if (name == nullptr) return nullptr;
    std::optional<std::string> v = vtrsim::config_value(name);
    return v ? dup_string(*v) : nullptr;
}

VTRSIM_API int filereadline(int fd, char *buf, int size) {
    if (buf == nullptr || size <= 0) return -1;
    int stored = 0;
    bool any = false;
    for (;;) {
        char c;
        ssize_t n = base::retry_eintr([&] { return ::read(fd, &c, 1); });
        if (n < 0) {
            buf[stored] = '\0';
            return -1;
        }
        if (n == 0) break;
        any = true;
        if (c == '\n') break;
        if (stored < size - 1) buf[stored++] = c;
    }
    buf[stored] = '\0';
    return any ? stored : 0;
}

VTRSIM_API char *vtr_get_smb_nfs_network_url(const char *address, int /*mode*/) {
    if (address == nullptr) return nullptr;
    std::optional<std::string> local = vtrsim::map_share_url(address);
    return local ? dup_string(*local) : nullptr;
}

VTRSIM_API int vtr_network_error_handler(int client_exit_code) { return 1000 + client_exit_code; }

}  // extern "C"
