// The search: deep classification, kinds and filters, paging and counters, the stale-handle result, the flat search.
#include <algorithm>
#include <cerrno>

#include "listing/search_walk.h"
#include "test_util.h"

namespace {

std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

tu::answer search(const std::string &path, const std::string &range, const std::string &folders,
                  const std::string &files, const std::string &filter, const std::string &keyword,
                  const std::string &subfolders, const std::string &offset = "0", const std::string &details = "true") {
    return tu::run({"search_user_storage_file", path, offset, range, folders, files, details, filter, keyword,
                    subfolders});
}

// movies/: a matching folder, hidden and system folders, a Blu-ray and a DVD structure, an unknown type, music.
struct DeepSearch : ::testing::Test {
    std::unique_ptr<tu::drive_tree> tree;
    void SetUp() override {
        REQUIRE_SANDBOX();
        tree = std::make_unique<tu::drive_tree>("SEARCH_DRIVE");
        for (const char *d : {"movies/$RECYCLE.BIN", "movies/movie_recycled", "movies/lost+found_movie"}) tree->dir(d);
        for (const char *f : {"movies/Movie Night/notes.txt", "movies/.hidden_movies/movie_h.avi",
                              "movies/$RECYCLE.BIN/movie_r.avi", "movies/recycled/movie_x.avi",
                              "movies/BD_movie/BDMV/index.bdmv", "movies/BD_movie/BDMV/MovieObject.bdmv",
                              "movies/BD_movie/movie_extra.m2ts", "movies/DVD/VIDEO_TS/VIDEO_TS.IFO",
                              "movies/DVD/movie_in_dvd.mkv", "movies/movie.unknownext", "movies/MOVIE_song.mp3"})
            tree->file(f);
        tree->file("movies/Movie Night/movie_a.avi", "12345");
    }
};

TEST_F(DeepSearch, ClassificationKindsAndFilters) {
    tu::answer a = search("SEARCH_DRIVE/movies/", "0", "true", "true", "", "movie", "true");
    ASSERT_EQ(a.result, 0) << a.xml();
    EXPECT_EQ(sorted(a.names()), sorted({"Movie Night", "movie_a.avi", "movie_r.avi", "movie_recycled", "movie_x.avi",
                                         "lost+found_movie", "BD_movie", "movie_extra.m2ts", "movie_in_dvd.mkv",
                                         "MOVIE_song.mp3"}));
    const vtrsim::xml_node *bd = a.file("BD_movie");
    ASSERT_NE(bd, nullptr);
    EXPECT_EQ(vtrsim::child_tags(bd),
              (std::vector<std::string>{"name", "path", "isFolder", "type", "size", "modifyDate", "lastAccessDate"}));
    EXPECT_EQ(vtrsim::child_text(bd, "type") + " " + vtrsim::child_text(bd, "path"),
              "bd_rip " + tu::drives_root + "/SEARCH_DRIVE/movies/BD_movie");
    EXPECT_EQ(vtrsim::child_text(a.file("Movie Night"), "isFolder") + vtrsim::child_text(a.file("movie_a.avi"), "size"), "yes5");
    EXPECT_EQ(vtrsim::child_text(a.file("movie_a.avi"), "modifyDate").size(), 24u);  // without its line feed
    EXPECT_EQ(a.text("totalFile") + " " + a.text("availableFolder") + " " + a.text("availableFile") + " " +
              a.text("convertPath"), "10 3 7 " + tu::drives_root + "/SEARCH_DRIVE/movies");
    struct row {
        const char *folders, *files, *filter, *keyword;
        std::vector<std::string> expected;
        bool has_folder_count, has_file_count;
    };
    const row rows[] = {
        {"true", "false", "", "movie", {"Movie Night", "movie_recycled", "lost+found_movie"}, true, false},
        {"false", "true", "music", "movie", {"MOVIE_song.mp3"}, false, true},  // disc structures are not music
        {"false", "true", "video", "movie",
         {"movie_a.avi", "movie_r.avi", "movie_x.avi", "BD_movie", "movie_in_dvd.mkv", "movie_extra.m2ts"}, false, true},
        // no keyword: system folders skipped with their contents; disc structures' contents searched
        {"true", "false", "", "", {"Movie Night", "movie_recycled", "lost+found_movie", "BDMV"}, true, false},
    };
    for (const row &r : rows) {
        tu::answer b = search("SEARCH_DRIVE/movies", "0", r.folders, r.files, r.filter, r.keyword, "TRUE", "0", "false");
        EXPECT_EQ(sorted(b.names()), sorted(r.expected)) << r.folders << r.files << r.filter << r.keyword << b.xml();
        EXPECT_EQ(std::pair(b.has("availableFolder"), b.has("availableFile")), std::pair(r.has_folder_count, r.has_file_count));
        EXPECT_EQ(b.xml().find("<size>"), std::string::npos);  // no details
    }
    tu::answer hidden = search("SEARCH_DRIVE/movies/.hidden_movies", "0", "true", "true", "", "", "true");
    EXPECT_EQ(hidden.text("totalFile") + hidden.text("availableFolder") + hidden.text("availableFile"), "000");
}

TEST_F(DeepSearch, PagingFlatSearchAndFailures) {
    for (const char *f : {"pages/clip1.avi", "pages/clip2.avi", "pages/clip3.avi", "pages/clip4.avi", "pages/other.avi",
                          "flat/b10 movie.avi", "flat/B2 Movie.avi", "flat/sub/movie_deep.avi", "flat/music.mp3"})
        tree->file(f);
    for (const char *d : {"pages/clipdir1", "pages/clipdir2", "pages/clipdir3", "flat/z movie dir"}) tree->dir(d);
    tu::answer all = search(tree->at("pages"), "0", "true", "true", "", "CLIP", "true");
    ASSERT_EQ(all.names().size(), 7u);
    tu::answer page = search(tree->at("pages"), "2", "true", "true", "", "CLIP", "true", "3");
    EXPECT_EQ(page.names(), (std::vector<std::string>{all.names()[3], all.names()[4]}));
    EXPECT_EQ(page.text("totalFile") + page.text("availableFolder") + page.text("availableFile"), "234");
    tu::answer beyond = search("SEARCH_DRIVE/pages", "2", "true", "true", "", "clip", "true", "10");
    EXPECT_EQ(beyond.text("totalFile") + beyond.text("availableFile"), "04");
    // The flat search goes through the share list: by name, whatever the sort.
    EXPECT_EQ(search("SEARCH_DRIVE/flat", "0", "true", "true", "", "MOVIE", "no").names(),
              (std::vector<std::string>{"z movie dir", "B2 Movie.avi", "b10 movie.avi"}));
    for (const char *path : {"", "/", "NO_SUCH_DRIVE/x"})
        for (const char *sub : {"true", "false"}) EXPECT_EQ(search(path, "0", "true", "true", "", "", sub).result, 4);
    EXPECT_EQ(tu::run({"search_user_storage_file", "a", "0", "0", "true", "true", "true", "", ""}).result, 1);
}

// A folder going stale mid-walk (through the walker's open seam): 19, another open failure 4.
thread_local int open_error;
int failing_open(int dir_fd, const char *name) noexcept {
    if (std::strcmp(name, "VIDEO_TS") == 0) return errno = open_error, -1;
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(DeepSearch, StaleHandleGives19) {
    listing::search_request ask;
    ask.range = 99999;
    listing::walk_hooks hooks;
    hooks.open_folder = failing_open;
    for (auto [error, expected] : {std::pair{ESTALE, 19}, {EIO, 4}}) {
        open_error = error;
        tu::answer a;
        EXPECT_EQ(listing::deep_search(a.root, tree->at("movies").c_str(), ask, &hooks), expected);
        EXPECT_EQ(vtrsim::child_tags(a.root), std::vector<std::string>{"fileList"});
    }
}

}  // namespace
