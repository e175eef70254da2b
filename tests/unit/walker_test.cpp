// The tree walker against the C library's nftw() on the same trees: the same
// entries, in the same order, with the same kinds, levels and name offsets,
// and the same answers to the callback's steering (stop, skip subtree).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "listing/walker.h"

namespace {

struct visit {
    std::string path;
    int kind;
    int level;
    int base;
    ino_t ino;
    bool regular;
    bool operator==(const visit &) const = default;
};

std::string describe(const std::vector<visit> &v) {
    std::string s;
    for (const visit &e : v)
        s += std::to_string(e.kind) + " " + std::to_string(e.level) + " " + e.path + "\n";
    return s;
}

// Steering shared by both walkers: skip the subtree of folders named
// "skipme", stop at an entry named "stophere".
int steer(const char *path, int base) {
    if (std::strcmp(path + base, "skipme") == 0) return FTW_SKIP_SUBTREE;
    if (std::strcmp(path + base, "stophere") == 0) return FTW_STOP;
    return FTW_CONTINUE;
}

thread_local std::vector<visit> *nftw_out;
int nftw_record(const char *path, const struct stat *st, int kind, struct FTW *f) {
    bool has_status = kind != FTW_NS;
    nftw_out->push_back({path, kind, f->level, f->base, has_status ? st->st_ino : 0,
                         has_status && S_ISREG(st->st_mode)});
    return steer(path, f->base);
}

int ours_record(listing::walk_entry &e, void *context) noexcept {
    auto *out = static_cast<std::vector<visit> *>(context);
    const struct stat *st = e.kind == listing::walk_no_status ? nullptr : listing::walk_status(e);
    out->push_back({e.path, e.kind, e.level, e.base, st ? st->st_ino : 0, listing::walk_is_regular(e)});
    return steer(e.path, e.base);
}

struct walk_result {
    int rc;
    int err;
    std::vector<visit> visits;
};

walk_result run_nftw(const std::string &start, int max_open) {
    walk_result r;
    nftw_out = &r.visits;
    errno = 0;
    r.rc = ::nftw(start.c_str(), nftw_record, max_open, FTW_ACTIONRETVAL);
    r.err = r.rc == -1 ? errno : 0;
    return r;
}

walk_result run_ours(const std::string &start, int max_open) {
    walk_result r;
    errno = 0;
    r.rc = listing::walk_tree(start.c_str(), max_open, ours_record, &r.visits);
    r.err = r.rc == -1 ? errno : 0;
    return r;
}

// Walks `start` both ways and expects the same result, errno and visits.
walk_result expect_same_as_nftw(const std::string &start, int max_open = 20) {
    walk_result expected = run_nftw(start, max_open);
    walk_result got = run_ours(start, max_open);
    EXPECT_EQ(got.rc, expected.rc) << start << " limit " << max_open;
    EXPECT_EQ(got.err, expected.err) << start << " limit " << max_open;
    EXPECT_EQ(got.visits, expected.visits) << start << " limit " << max_open << "\nnftw:\n"
                                           << describe(expected.visits) << "ours:\n" << describe(got.visits);
    return expected;
}

class WalkerTree : public ::testing::Test {
protected:
    std::string root;
    void SetUp() override {
        char tmpl[] = "/tmp/walker_test_XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        root = tmpl;
    }
    void TearDown() override {
        std::string cmd = "chmod -R u+rwx '" + root + "' 2>/dev/null; rm -rf '" + root + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
    void dir(const std::string &rel) { ASSERT_EQ(::mkdir((root + "/" + rel).c_str(), 0755), 0) << rel; }
    void file(const std::string &rel, const char *text = "x") {
        int fd = ::open((root + "/" + rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << rel;
        ASSERT_EQ(::write(fd, text, std::strlen(text)), static_cast<ssize_t>(std::strlen(text)));
        ::close(fd);
    }
    void link(const std::string &target, const std::string &rel) {
        ASSERT_EQ(::symlink(target.c_str(), (root + "/" + rel).c_str()), 0) << rel;
    }
    // Folders, files, hidden folders, empty folders, links to files, to
    // folders inside and outside the tree, back to an ancestor, dangling,
    // a FIFO, and a chain deeper than the open-folder limit.
    void build_mixed() {
        dir("a");
        dir("a/b");
        file("a/b/movie1.avi");
        file("a/b/Song.MP3");
        dir("a/.hidden");
        file("a/.hidden/secret.avi");
        dir("a/empty");
        dir("a/skipme");
        file("a/skipme/inside.txt");
        dir("c");
        for (int i = 0; i < 30; ++i) file("c/f" + std::to_string(i) + ".jpg");
        link("../a/b", "c/link_to_b");           // a folder walked elsewhere
        link("../c", "c/loop_to_c");  // back to its own folder
        link("movie_missing.avi", "c/dangling");  // to nothing
        link("f1.jpg", "c/link_to_file");
        link(root + "/a", "c/abs_link_to_a");
        ASSERT_EQ(::mkfifo((root + "/c/pipe").c_str(), 0644), 0);
        std::string deep = "d";
        dir(deep);
        for (int i = 0; i < 26; ++i) {
            file(deep + "/leaf" + std::to_string(i) + ".mkv");
            deep += "/n" + std::to_string(i);
            dir(deep);
        }
        file(deep + "/bottom.avi");
        file("top.txt");
    }
};

TEST_F(WalkerTree, SameVisitsAsNftwForEveryOpenLimit) {
    build_mixed();
    for (int max_open : {20, 1, 2, 5}) EXPECT_GT(expect_same_as_nftw(root, max_open).visits.size(), 60u);
}

TEST_F(WalkerTree, StartFormsAndStop) {
    build_mixed();
    file("a/b/stophere");
    const std::string starts[] = {root, root + "/", root + "///", root + "/a/b", root + "/top.txt",
                                  root + "/c/dangling", root + "/missing", root + "/c/link_to_b"};
    EXPECT_EQ(run_nftw(root, 20).rc, FTW_STOP);
    for (const std::string &start : starts) expect_same_as_nftw(start);
}

TEST_F(WalkerTree, LinkLoopFailsTheWalkLikeNftw) {
    dir("x");
    file("x/a.avi");
    link("loop2", "x/loop1");
    link("loop1", "x/loop2");
    EXPECT_EQ(expect_same_as_nftw(root).rc, -1);
}

TEST_F(WalkerTree, UnreadableFolderReportedAlike) {
    build_mixed();
    dir("locked");
    file("locked/x.avi");
    ASSERT_EQ(::chmod((root + "/locked").c_str(), 0), 0);
    walk_result got = expect_same_as_nftw(root);
    if (::geteuid() != 0) {
        // Only an unprivileged user is refused; root reads the folder anyway.
        bool reported = false;
        for (const visit &v : got.visits)
            if (v.kind == listing::walk_unreadable) reported = true;
        EXPECT_TRUE(reported);
    }
}

// A folder whose opening fails with a stale handle ends the walk with that
// error, as nftw ends it; the search turns it into its own result.
int stale_open(int dir_fd, const char *name) noexcept {
    if (std::strstr(name, "n3") != nullptr && std::strstr(name, "n3/") == nullptr) {
        errno = ESTALE;
        return -1;
    }
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(WalkerTree, OpenFailureOtherThanAccessEndsTheWalk) {
    build_mixed();
    listing::walk_hooks hooks;
    hooks.open_folder = stale_open;
    std::vector<visit> visits;
    errno = 0;
    int rc = listing::walk_tree(root.c_str(), 20, ours_record, &visits, &hooks);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, ESTALE);
    for (const visit &v : visits) EXPECT_EQ(v.path.find("/n3"), std::string::npos) << v.path;
}

// Root reads every folder, so a refused folder is made through the seam: it
// is reported as unreadable, nothing below it is visited, and the walk goes on.
int refusing_open(int dir_fd, const char *name) noexcept {
    const char *tail = std::strrchr(name, '/');
    if (std::strcmp(tail != nullptr ? tail + 1 : name, "skipme") == 0) {
        errno = EACCES;
        return -1;
    }
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(WalkerTree, RefusedFolderIsReportedUnreadable) {
    build_mixed();
    listing::walk_hooks hooks;
    hooks.open_folder = refusing_open;
    std::vector<visit> visits;
    int rc = listing::walk_tree(root.c_str(), 20, ours_record, &visits, &hooks);
    EXPECT_EQ(rc, 0);
    int refused = 0;
    for (const visit &v : visits) {
        // "a" may be reached through c/abs_link_to_a first: match by name
        EXPECT_EQ(v.path.find("/skipme/"), std::string::npos) << v.path;
        if (v.path.size() > 7 && v.path.compare(v.path.size() - 7, 7, "/skipme") == 0) {
            EXPECT_EQ(v.kind, listing::walk_unreadable);
            ++refused;
        }
    }
    EXPECT_EQ(refused, 1);
    // nftw skips the same subtree because the callback asks it to
    EXPECT_EQ(visits.size(), run_nftw(root, 20).visits.size());
}

}  // namespace
