// Deep search against find(1) on the same generated tree, warm cache.
//
//   bench_deep_search [TREE [KEYWORD [RUNS]]]
//
// Generates TREE (default ./bench-tree) once: 20 top folders, each with a
// hidden ".cache" folder of 50 files, 10 sub-folders of 10 leaf folders of
// 99 files; about 200,000 entries, one name in a hundred holding "holiday".
// Then times, RUNS times each (default 7) after one warm-up run, and prints
// the medians: the deep search (the plug-in's walker and classification,
// answer tree included), a plain nftw() walk testing only the keyword, and
// `find TREE -iname '*KEYWORD*'` with its output thrown away.
#include <fcntl.h>
#include <ftw.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "host/sim/xml_tree.h"
#include "listing/search_walk.h"

namespace {

double seconds(const std::function<void()> &work) {
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void touch(const std::string &path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
}

long generate(const std::string &root) {
    long entries = 0;
    ::mkdir(root.c_str(), 0755);
    int serial = 0;
    auto name = [&](const char *ext) {
        ++serial;
        char buf[64];
        if (serial % 100 == 0) std::snprintf(buf, sizeof buf, "Holiday_%06d%s", serial, ext);
        else std::snprintf(buf, sizeof buf, "clip_%06d%s", serial, ext);
        return std::string(buf);
    };
    for (int t = 0; t < 20; ++t) {
        std::string top = root + "/" + name("");
        ::mkdir(top.c_str(), 0755);
        ++entries;
        std::string hidden = top + "/.cache";
        ::mkdir(hidden.c_str(), 0755);
        ++entries;
        for (int h = 0; h < 50; ++h, ++entries) touch(hidden + "/" + name(".avi"));
        for (int s = 0; s < 10; ++s) {
            std::string sub = top + "/" + name("");
            ::mkdir(sub.c_str(), 0755);
            ++entries;
            for (int l = 0; l < 10; ++l) {
                std::string leaf = sub + "/" + name("");
                ::mkdir(leaf.c_str(), 0755);
                ++entries;
                static const char *const exts[] = {".mkv", ".avi", ".mp3", ".jpg", ".txt"};
                for (int f = 0; f < 99; ++f, ++entries) touch(leaf + "/" + name(exts[f % 5]));
            }
        }
    }
    return entries;
}

thread_local const char *nftw_keyword;
thread_local long nftw_matches;
int nftw_visit(const char *path, const struct stat *, int, struct FTW *f) {
    const char *name = path + f->base;
    if (name[0] == '.' && f->level > 0) return FTW_SKIP_SUBTREE;
    if (::strcasestr(name, nftw_keyword) != nullptr) ++nftw_matches;
    return FTW_CONTINUE;
}

int run_find(const std::string &root, const std::string &keyword) {
    std::string pattern = "*" + keyword + "*";
    pid_t pid = ::fork();
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::execlp("find", "find", root.c_str(), "-iname", pattern.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    std::string root = argc > 1 ? argv[1] : "bench-tree";
    std::string keyword = argc > 2 ? argv[2] : "holiday";
    int runs = argc > 3 ? std::atoi(argv[3]) : 7;
    if (root[0] != '/') {
        char cwd[4096];
        if (::getcwd(cwd, sizeof cwd) != nullptr) root = std::string(cwd) + "/" + root;
    }
    struct stat st;
    if (::stat(root.c_str(), &st) != 0) {
        std::printf("generating %s ...\n", root.c_str());
        long n = generate(root);
        std::printf("%ld entries\n", n);
    }

    listing::search_request ask;
    ask.range = 99999;
    ask.keyword = keyword.c_str();
    std::string matches;
    auto deep = [&] {
        vtrsim::xml_node *response = vtrsim::new_root("response");
        int32_t r = listing::deep_search(response, root.c_str(), ask);
        matches = vtrsim::child_text(response, "totalFile");
        if (r != 0) std::printf("deep search failed: %d\n", r);
        vtrsim::free_tree(response);
    };
    auto plain_nftw = [&] {
        nftw_keyword = keyword.c_str();
        nftw_matches = 0;
        ::nftw(root.c_str(), nftw_visit, 20, FTW_ACTIONRETVAL);
    };
    auto find = [&] { run_find(root, keyword); };

    deep();  // warm the cache and the answer path
    plain_nftw();
    find();
    std::vector<double> t_deep, t_nftw, t_find;
    for (int i = 0; i < runs; ++i) {  // interleaved, so that drift hits all three
        t_find.push_back(seconds(find));
        t_deep.push_back(seconds(deep));
        t_nftw.push_back(seconds(plain_nftw));
    }
    double d = median(t_deep), n = median(t_nftw), f = median(t_find);
    std::printf("tree %s, keyword \"%s\", %d runs, medians:\n", root.c_str(), keyword.c_str(), runs);
    std::printf("  deep search      %8.1f ms  (%s matches listed)\n", d * 1000, matches.c_str());
    std::printf("  nftw (keyword)   %8.1f ms  (%ld names hold the keyword)\n", n * 1000, nftw_matches);
    std::printf("  find -iname      %8.1f ms\n", f * 1000);
    std::printf("  deep search / find = %.2f\n", d / f);
    return 0;
}
