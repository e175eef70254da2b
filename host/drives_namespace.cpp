#include "host/drives_namespace.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace host {
namespace {

// Covered by an empty tmpfs in the namespace: the machine's /tmp and the
// home folders.
constexpr const char *hidden_folders[] = {"/tmp", "/root", "/home", "/run/user"};
constexpr const char *work_dir = "/opt/vtrhttpd/work";

std::string self_exe() {
    char buf[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return {};
    buf[n] = '\0';
    return buf;
}

std::string parent_of(const std::string &p) {
    std::size_t slash = p.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : p.substr(0, slash);
}

bool is_dir(const char *p) {
    struct stat st {};
    return ::stat(p, &st) == 0 && S_ISDIR(st.st_mode);
}

bool below(std::string_view path, std::string_view top) {
    return path.substr(0, top.size()) == top && (path.size() == top.size() || path[top.size()] == '/');
}

bool set_read_only(const char *path, bool on, unsigned flags) {
    mount_attr attr{};
    (on ? attr.attr_set : attr.attr_clr) = MOUNT_ATTR_RDONLY;
    return ::mount_setattr(AT_FDCWD, path, flags | AT_SYMLINK_NOFOLLOW, &attr, sizeof attr) == 0;
}

// Every mount but /proc and those below /dev (shm, pts, mqueue) becomes
// read-only.
bool machine_read_only(const char *program) {
    FILE *f = std::fopen("/proc/self/mountinfo", "re");
    if (f == nullptr) return false;
    char *line = nullptr;
    std::size_t cap = 0;
    bool ok = true;
    while (ok && ::getline(&line, &cap, f) > 0) {
        char raw[PATH_MAX];
        if (std::sscanf(line, "%*s %*s %*s %*s %4095s", raw) != 1) continue;
        std::string point;  // mountinfo escapes blanks and backslashes as \ooo
        for (const char *c = raw; *c != '\0'; ++c) {
            if (c[0] == '\\' && c[1] >= '0' && c[1] <= '3' && c[2] != '\0' && c[3] != '\0') {
                point += static_cast<char>((c[1] - '0') * 64 + (c[2] - '0') * 8 + (c[3] - '0'));
                c += 3;
            } else {
                point += *c;
            }
        }
        if (below(point, "/proc") || point.rfind("/dev/", 0) == 0) continue;
        // Gone, out of this user's reach or covered by a later mount: fine.
        if (!set_read_only(point.c_str(), true, 0) && errno != ENOENT && errno != EACCES && errno != EINVAL) {
            std::fprintf(stderr, "%s: read-only %s: %s\n", program, point.c_str(), std::strerror(errno));
            ok = false;
        }
    }
    std::free(line);
    std::fclose(f);
    return ok;
}

bool mount_tmpfs(const char *where, const char *program) {
    if (::mount("tmpfs", where, "tmpfs", 0, "mode=0755") == 0) return true;
    std::fprintf(stderr, "%s: tmpfs on %s: %s\n", program, where, std::strerror(errno));
    return false;
}

// mkdir -p inside the tmpfs areas, every level 0755.
void make_folders(const std::string &path) {
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
        if (slash == std::string::npos) break;
    }
}

bool bind_fd(int fd, const std::string &to, const char *program) {
    std::string from = "/proc/self/fd/" + std::to_string(fd);
    if (::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0) return true;
    std::fprintf(stderr, "%s: bind %s: %s\n", program, to.c_str(), std::strerror(errno));
    return false;
}

}  // namespace

int enter_drives_namespace(const std::string &dir, char **argv, const char *program,
                           const std::vector<std::string> &keep) {
    if (std::getenv("VTR_HOST_NAMESPACE") == nullptr) {
        std::string exe = self_exe();
        ::setenv("VTR_HOST_NAMESPACE", "1", 1);
        std::vector<const char *> args{"unshare", "--mount", "--propagation", "private"};
        if (::geteuid() != 0) args.push_back("--map-root-user");
        args.push_back("--");
        args.push_back(exe.c_str());
        for (int i = 1; argv[i] != nullptr; ++i) args.push_back(argv[i]);
        args.push_back(nullptr);
        ::execvp("unshare", const_cast<char *const *>(args.data()));
        std::fprintf(stderr, "%s: unshare: %s\n", program, std::strerror(errno));
        return -1;
    }
    int source = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (source < 0) {
        std::fprintf(stderr, "%s: --drives %s: %s\n", program, dir.c_str(), std::strerror(errno));
        return -1;
    }
    // What the host needs below a folder about to be hidden: opened now,
    // bound back at its path once the tmpfs is there.
    std::vector<std::string> wanted{parent_of(self_exe())};
    if (const char *config = std::getenv("VTR_CONFIG")) wanted.push_back(parent_of(config));
    for (const std::string &k : keep)
        if (!k.empty()) wanted.push_back(is_dir(k.c_str()) ? k : parent_of(k));
    std::vector<std::pair<int, std::string>> kept;
    for (const std::string &w : wanted) {
        for (const char *h : hidden_folders) {
            if (!below(w, h)) continue;
            int fd = ::open(w.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (fd >= 0) kept.emplace_back(fd, w);
            break;
        }
    }
    char names[4096];  // the drive names the user put in the machine's /tmp
    int names_fd = ::open("/tmp/usb_name.txt", O_RDONLY | O_CLOEXEC);
    ssize_t names_len = names_fd >= 0 ? ::read(names_fd, names, sizeof names) : -1;
    if (names_fd >= 0) ::close(names_fd);

    const char *top = is_dir("/opt/vtrhttpd") ? "/opt/vtrhttpd" : "/opt";
    bool ok = machine_read_only(program) && mount_tmpfs(top, program);
    for (const char *h : hidden_folders)
        if (ok && is_dir(h)) ok = mount_tmpfs(h, program);
    if (ok) ::chmod("/tmp", 01777);
    for (auto &[fd, path] : kept) {
        if (ok) make_folders(path);
        ok = ok && bind_fd(fd, path, program);
        ::close(fd);
    }
    if (ok) {
        for (const char *d : {"/opt/vtrhttpd", "/opt/vtrhttpd/localhost.drives", "/opt/vtrhttpd/default", work_dir})
            ::mkdir(d, 0755);
        ok = bind_fd(source, "/opt/vtrhttpd/localhost.drives", program);
    }
    ::close(source);
    if (!ok) return -1;
    // The bind took the read-only flag of DIR's mount: the drives are writable.
    if (!set_read_only("/opt/vtrhttpd/localhost.drives", false, AT_RECURSIVE))
        std::fprintf(stderr, "%s: --drives %s stays read-only: %s\n", program, dir.c_str(), std::strerror(errno));
    if (names_len > 0) {
        int fd = ::open("/tmp/usb_name.txt", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            (void)!::write(fd, names, static_cast<std::size_t>(names_len));
            ::close(fd);
        }
    }
    ::setenv("VTR_HOST_WORKDIR", work_dir, 1);
    std::string exe = self_exe();
    std::string client = parent_of(exe) + "/netfs_client";
    if (::access(client.c_str(), X_OK) == 0) (void)::symlink(client.c_str(), "/opt/vtrhttpd/default/netfs_client");
    return 0;
}

void enter_work_directory(const char *program) {
    const char *dir = std::getenv("VTR_HOST_WORKDIR");
    if (dir == nullptr || dir[0] == '\0') dir = "/";
    if (::chdir(dir) != 0) std::fprintf(stderr, "%s: chdir %s: %s\n", program, dir, std::strerror(errno));
}

}  // namespace host
