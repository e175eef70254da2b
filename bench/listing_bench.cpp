// Listing benchmark: the first page of a large folder through
// file_operation_share_list_file, in-process on the reference host's
// simulated libraries, against `ls` of the same folder in the same run.
//
//   listing_bench [--files N] [--rounds R] DIR     timed comparison (DIR is filled when empty)
//   listing_bench --once DIR                       one listing (for callgrind)
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "host/sim/xml_tree.h"
#include "listing/share_list.h"

namespace {

using clock_type = std::chrono::steady_clock;

void fill(const std::string &dir, int files) {
    std::filesystem::create_directories(dir);
    if (!std::filesystem::is_empty(dir)) return;
    const char *stems[] = {"Episode", "episode", "CLIP", "Track", "photo"};
    const char *exts[] = {".mkv", ".MKV", ".avi", ".mp3", ".JPG"};
    for (int i = 0; i < files; ++i) {
        char name[128];
        std::snprintf(name, sizeof name, "%s/%s %d - part%d%s", dir.c_str(), stems[i % 5], i / 5, i % 7,
                      exts[(i / 3) % 5]);
        int fd = ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            std::perror(name);
            std::exit(2);
        }
        if (::ftruncate(fd, static_cast<off_t>((i * 7919L) % 100000)) != 0) std::perror("ftruncate");
        ::close(fd);
    }
}

double list_once(const std::string &dir, int sort_order) {
    vtrsim::xml_node *root = vtrsim::new_root();
    VantorXmlNode slot = root;
    auto t0 = clock_type::now();
    int r = file_operation_share_list_file(&slot, dir.c_str(), 0, 100, 1, 1, 1, "", 0, sort_order, nullptr, 0,
                                           nullptr, 0);
    double ms = std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
    if (r != 0) std::fprintf(stderr, "listing failed: %d\n", r);
    vtrsim::free_tree(root);
    return ms;
}

double ls_once(const std::string &dir, const char *flag) {
    auto t0 = clock_type::now();
    pid_t pid = ::fork();
    if (pid == 0) {
        int null_fd = ::open("/dev/null", O_WRONLY);
        ::dup2(null_fd, 1);
        ::execlp("ls", "ls", flag, dir.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    int files = 100000;
    int rounds = 9;
    bool once = false;
    std::string dir;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--files") == 0 && i + 1 < argc) files = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) rounds = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--once") == 0) once = true;
        else dir = argv[i];
    }
    if (dir.empty()) {
        std::fprintf(stderr, "usage: listing_bench [--files N] [--rounds R] [--once] DIR\n");
        return 2;
    }
    fill(dir, files);
    if (once) {
        list_once(dir, 0);
        return 0;
    }
    struct pairing {
        const char *what;
        int sort_order;
        const char *ls_flag;
        double target;
    } pairs[] = {{"name ascending vs ls -1v", 0, "-1v", 1.2}, {"size descending vs ls -1S", 3, "-1S", 1.5}};
    std::printf("folder %s, %d entries, first page of 100, median of %d rounds\n", dir.c_str(), files, rounds);
    int failures = 0;
    for (const pairing &p : pairs) {
        std::vector<double> ours, theirs;
        list_once(dir, p.sort_order);  // warm the caches once
        ls_once(dir, p.ls_flag);
        for (int r = 0; r < rounds; ++r) {
            ours.push_back(list_once(dir, p.sort_order));
            theirs.push_back(ls_once(dir, p.ls_flag));
        }
        double ratio = median(ours) / median(theirs);
        std::printf("%-28s listing %8.2f ms   ls %8.2f ms   ratio %.2f (target %.1f)\n", p.what, median(ours),
                    median(theirs), ratio, p.target);
        if (ratio > p.target) ++failures;
    }
    return failures == 0 ? 0 : 1;
}
