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
#include <vector>

namespace host {
namespace {

std::string self_exe() {
    char buf[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return {};
    buf[n] = '\0';
    return buf;
}

bool exists(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0;
}

}  // namespace

int enter_drives_namespace(const std::string &dir, char **argv, const char *program) {
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
    const char *top = exists("/opt/vtrhttpd") ? "/opt/vtrhttpd" : "/opt";
    if (::mount("tmpfs", top, "tmpfs", 0, "mode=0755") != 0) {
        std::fprintf(stderr, "%s: tmpfs on %s: %s\n", program, top, std::strerror(errno));
        ::close(source);
        return -1;
    }
    ::mkdir("/opt/vtrhttpd", 0755);
    ::mkdir("/opt/vtrhttpd/localhost.drives", 0755);
    ::mkdir("/opt/vtrhttpd/default", 0755);
    std::string from = "/proc/self/fd/" + std::to_string(source);
    if (::mount(from.c_str(), "/opt/vtrhttpd/localhost.drives", nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        std::fprintf(stderr, "%s: bind %s: %s\n", program, dir.c_str(), std::strerror(errno));
        ::close(source);
        return -1;
    }
    ::close(source);
    std::string exe = self_exe();
    std::string client = exe.substr(0, exe.rfind('/')) + "/netfs_client";
    if (exists(client)) (void)::symlink(client.c_str(), "/opt/vtrhttpd/default/netfs_client");
    return 0;
}

}  // namespace host
