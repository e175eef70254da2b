// The tree walker against the C library's nftw(): the same visits, kinds, levels, offsets and steering; seam failures.
#include <ftw.h>

#include <cerrno>

#include "listing/walker.h"
#include "test_util.h"

namespace {

struct visit {
    std::string path;
    int kind, level, base;
    ino_t ino;
    bool regular;
    bool operator==(const visit &) const = default;
};

std::string describe(const std::vector<visit> &v) {
    std::string s;
    for (const visit &e : v) s += std::to_string(e.kind) + " " + std::to_string(e.level) + " " + e.path + "\n";
    return s;
}

// Steering shared by both walkers.
int steer(const char *path, int base) {
    if (std::strcmp(path + base, "skipme") == 0) return FTW_SKIP_SUBTREE;
    return std::strcmp(path + base, "stophere") == 0 ? FTW_STOP : FTW_CONTINUE;
}

thread_local std::vector<visit> *nftw_out;
int nftw_record(const char *path, const struct stat *st, int kind, struct FTW *f) {
    bool ok = kind != FTW_NS;
    nftw_out->push_back({path, kind, f->level, f->base, ok ? st->st_ino : 0, ok && S_ISREG(st->st_mode)});
    return steer(path, f->base);
}

int ours_record(listing::walk_entry &e, void *context) noexcept {
    const struct stat *st = e.kind == listing::walk_no_status ? nullptr : listing::walk_status(e);
    static_cast<std::vector<visit> *>(context)->push_back(
        {e.path, e.kind, e.level, e.base, st ? st->st_ino : 0, listing::walk_is_regular(e)});
    return steer(e.path, e.base);
}

struct walk_result { int rc, err; std::vector<visit> visits; };

walk_result walk(const std::string &start, int max_open, bool ours, listing::walk_hooks *hooks = nullptr) {
    walk_result r;
    errno = 0;
    nftw_out = &r.visits;
    r.rc = ours ? listing::walk_tree(start.c_str(), max_open, ours_record, &r.visits, hooks)
                : ::nftw(start.c_str(), nftw_record, max_open, FTW_ACTIONRETVAL);
    r.err = r.rc == -1 ? errno : 0;
    return r;
}

walk_result expect_same_as_nftw(const std::string &start, int max_open = 20) {
    walk_result expected = walk(start, max_open, false), got = walk(start, max_open, true);
    EXPECT_EQ(std::pair(got.rc, got.err), std::pair(expected.rc, expected.err)) << start << " limit " << max_open;
    EXPECT_EQ(got.visits, expected.visits) << start << " limit " << max_open << "\nnftw:\n"
                                           << describe(expected.visits) << "ours:\n" << describe(got.visits);
    return expected;
}

// Folders, hidden and empty folders, links to files, to folders inside and outside the tree, back to an ancestor,
// dangling, a FIFO, and a chain deeper than the open-folder limit; a link loop in a tree of its own.
struct WalkerTree : ::testing::Test {
    tu::drive_tree t{"/tmp/walker_test"};
    std::string root = t.at("m");
    void SetUp() override {
        for (const char *f : {"m/a/b/movie1.avi", "m/a/b/Song.MP3", "m/a/.hidden/secret.avi", "m/a/skipme/in.txt",
                              "m/top.txt", "L/x/a.avi"})
            t.file(f);
        t.dir("m/a/empty");
        for (int i = 0; i < 130; ++i) t.dir("m/many/d" + std::to_string(i));  // the visited-folder table grows
        for (int i = 0; i < 30; ++i) t.file("m/c/f" + std::to_string(i) + ".jpg");
        struct link { const char *target, *name; };
        for (link l : {link{"../a/b", "m/c/link_to_b"}, {"../c", "m/c/loop_to_c"}, {"missing.avi", "m/c/dangling"},
                       {"f1.jpg", "m/c/link_to_file"}, {"../many/d5", "m/c/link_to_many"}, {"loop2", "L/x/loop1"}, {"loop1", "L/x/loop2"}})
            ASSERT_EQ(::symlink(l.target, t.at(l.name).c_str()), 0);
        ASSERT_EQ(::symlink((root + "/a").c_str(), (root + "/c/abs_link_to_a").c_str()), 0);
        ASSERT_EQ(::mkfifo((root + "/c/pipe").c_str(), 0644), 0);
        std::string deep = "m/d";
        for (int i = 0; i < 26; ++i, deep += "/n" + std::to_string(i)) t.file(deep + "/leaf" + std::to_string(i) + ".mkv");
        t.file(deep + "/bottom.avi");
    }
};

TEST_F(WalkerTree, SameVisitsAsNftw) {
    for (int max_open : {20, 1, 2, 5}) EXPECT_GT(expect_same_as_nftw(root, max_open).visits.size(), 60u);
    for (const std::string &start : {root + "/", root + "///", root + "/a/b", root + "/top.txt", root + "/c/dangling",
                                     root + "/missing", root + "/c/link_to_b"})
        expect_same_as_nftw(start);
    EXPECT_EQ(expect_same_as_nftw(t.at("L")).rc, -1);  // the link loop fails the walk
    t.file("m/a/b/stophere");
    EXPECT_EQ(expect_same_as_nftw(root).rc, FTW_STOP);
}

// A stale handle or a reading failing midway ends the walk; a refused folder is unreadable and the walk goes on.
int failing_open(int dir_fd, const char *name) noexcept {
    const char *tail = std::strrchr(name, '/');
    tail = tail != nullptr ? tail + 1 : name;
    if (std::strcmp(tail, "n3") == 0) return errno = ESTALE, -1;
    if (std::strcmp(tail, "skipme") == 0) return errno = EACCES, -1;
    if (std::strcmp(tail, "c") == 0) return ::openat(dir_fd, name, O_PATH | O_DIRECTORY | O_CLOEXEC);
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(WalkerTree, OpenFailures) {
    listing::walk_hooks hooks;
    hooks.open_folder = failing_open;
    walk_result r = walk(root + "/a", 20, true, &hooks);
    EXPECT_EQ(r.rc, 0);
    int refused = 0;
    for (const visit &v : r.visits) {
        EXPECT_EQ(v.path.find("/skipme/"), std::string::npos) << v.path;
        if (v.path.ends_with("/skipme")) refused += v.kind == listing::walk_unreadable;
    }
    EXPECT_EQ(refused, 1);
    r = walk(root + "/d", 20, true, &hooks);
    EXPECT_EQ(std::pair(r.rc, r.err), std::pair(-1, ESTALE));
    for (const visit &v : r.visits) EXPECT_EQ(v.path.find("/n3/"), std::string::npos) << v.path;
    EXPECT_EQ(walk(root + "/c", 20, true, &hooks).rc, -1);
}

}  // namespace
