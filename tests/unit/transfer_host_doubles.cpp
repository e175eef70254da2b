// Stand-ins for the player's utility functions while the unit tests run
// without the simulated host library. Weak, so a real simulator linked into
// the test binary takes over. Only what the transfer tests need behaves.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/host_api.h"
#include "transfer_test_support.h"

namespace test_support {
namespace {
std::mutex vars_mutex;
std::map<std::string, std::string> &vars() {
    static std::map<std::string, std::string> v;
    return v;
}
}  // namespace
void set_var(const std::string &name, const std::string &value) {
    std::lock_guard lock(vars_mutex);
    if (value.empty())
        vars().erase(name);
    else
        vars()[name] = value;
}
}  // namespace test_support

#define WEAK __attribute__((weak))

extern "C" {

WEAK char *get_var_mem(const char *name) {
    std::lock_guard lock(test_support::vars_mutex);
    auto it = test_support::vars().find(name);
    return it == test_support::vars().end() ? nullptr : ::strdup(it->second.c_str());
}

WEAK char *vtr_get_smb_nfs_network_url(const char *address, int) {
    // smb://host/share/rest -> the share named by the matching netfs_url.
    for (int n = 0; n <= 20; ++n) {
        char *url = get_var_mem(("netfs_url" + std::to_string(n)).c_str());
        if (url == nullptr) continue;
        std::size_t length = std::strlen(url);
        bool match = std::strncmp(address, url, length) == 0 && (address[length] == '/' || address[length] == '\0');
        std::free(url);
        if (!match) continue;
        char *name = get_var_mem(("netfs_name" + std::to_string(n)).c_str());
        std::string local = std::string("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/") + (name ? name : "") +
                            (address + length);
        std::free(name);
        return ::strdup(local.c_str());
    }
    return nullptr;
}

WEAK int vtr_network_error_handler(int code) { return 1000 + code; }

WEAK int isfileexist(const char *path) {
    struct stat st;
    return ::stat(path, &st) == 0 ? 1 : 0;
}

WEAK int isdir(const char *path) {
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

WEAK long filesize(const char *path) {
    struct stat st;
    return ::stat(path, &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

namespace {
thread_local long long tree_sum;
int add_entry(const char *, const struct stat *st, int type, struct FTW *) {
    if (type == FTW_F && S_ISREG(st->st_mode)) tree_sum += st->st_size;
    if (type == FTW_D) tree_sum += 4096;
    return 0;
}
}  // namespace

WEAK long long filesize64(const char *path) {
    struct stat st;
    if (::stat(path, &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return st.st_size;
    tree_sum = 0;
    if (::nftw(path, add_entry, 16, FTW_PHYS) != 0) return -1;
    return tree_sum;
}

WEAK unsigned int statfilesize(const char *path) {
    struct stat st;
    return ::stat(path, &st) == 0 ? static_cast<unsigned>(st.st_size) : 0;
}

WEAK int write_permission(const char *path) {
    if (::access(path, W_OK) != 0) return 0;
    char *fat = get_var_mem("vtrsim_fat_paths");
    int kind = fat != nullptr && std::strncmp(path, fat, std::strlen(fat)) == 0 ? 2 : 1;
    std::free(fat);
    return kind;
}

WEAK int samerootdrive(const char *a, const char *b, int) {
    auto device = [](std::string p) -> long long {
        for (;;) {
            struct stat st;
            if (::stat(p.c_str(), &st) == 0) return static_cast<long long>(st.st_dev);
            std::size_t slash = p.find_last_of('/');
            if (slash == std::string::npos || p == "/") return -1;
            p = slash == 0 ? "/" : p.substr(0, slash);
        }
    };
    return device(a) == device(b) ? 1 : 0;
}

WEAK int get_partition_free_space(const char *path, long long space[3]) {
    struct statvfs s;
    if (::statvfs(path, &s) != 0) return 0;
    space[0] = static_cast<long long>(s.f_bavail) * static_cast<long long>(s.f_frsize);
    space[2] = static_cast<long long>(s.f_blocks) * static_cast<long long>(s.f_frsize);
    space[1] = space[2] - static_cast<long long>(s.f_bfree) * static_cast<long long>(s.f_frsize);
    return 1;
}

WEAK char *get_mounted_filesystem_type(const char *) { return nullptr; }
WEAK int get_disc_type(int) { return 0; }
WEAK int get_image_dimension(const char *, int *w, int *h) {
    *w = *h = 0;
    return -1;
}
WEAK int jpeg_exif_orient_database_read_only(const char *) { return 0; }
WEAK char *get_cmd_output(const char *, int) { return nullptr; }

WEAK int filereadline(int fd, char *buf, int size) {
    int stored = 0;
    bool any = false;
    for (;;) {
        char c;
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        any = true;
        if (c == '\n') break;
        if (stored < size - 1) buf[stored++] = c;
    }
    if (size > 0) buf[stored] = '\0';
    return any ? stored : 0;
}

WEAK int VANTOR_SIMPLE_XML_new_node(VantorXmlNode *out, const char *, const char *) {
    *out = nullptr;
    return 0;
}
WEAK int VANTOR_SIMPLE_XML_new_node_binary(VantorXmlNode *out, const char *, const void *, unsigned int) {
    *out = nullptr;
    return 0;
}
WEAK int VANTOR_SIMPLE_XML_add_child_node(VantorXmlNode, VantorXmlNode) { return 0; }

// The disc detection lives in the media module; this stand-in knows the
// Blu-ray movie marker only.
WEAK unsigned vantor_command_server_cdtypedetection(const char *folder) {
    std::string marker = std::string(folder) + "/BDMV/index.bdmv";
    return ::access(marker.c_str(), R_OK) == 0 ? 1 : 0;
}

}  // extern "C"
