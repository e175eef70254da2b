// The search command: the deep search's classification over a tree with
// hidden and system folders and disc structures, paging with counters that
// run to the end of the tree, the stale-handle result through the walker's
// seam, and the flat search through the share list.
#include <algorithm>
#include <cerrno>

#include "listing/search.h"
#include "test_util.h"

namespace {

using tu::answer;
using tu::drive_tree;
using tu::run;

std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

answer search(const std::string &path, const std::string &offset, const std::string &range,
              const std::string &folders, const std::string &files, const std::string &filter,
              const std::string &keyword, const std::string &subfolders, const std::string &details = "true") {
    return run({"search_user_storage_file", path, offset, range, folders, files, details, filter, keyword,
                subfolders});
}

// movies/                       keyword "movie" matches folder names too
//   Movie Night/                 folder whose name holds the keyword
//     movie_a.avi  notes.txt
//   .hidden_movies/movie_h.avi    hidden: neither listed nor searched
//   $RECYCLE.BIN/movie_r.avi      system folder: the keyword is not in its name,
//                                 so it is searched all the same
//   movie_recycled/               holds the keyword: listed as a folder
//   recycled/movie_x.avi          system folder without the keyword: searched
//   lost+found_movie/             not a system name: listed
//   BD_movie/BDMV/{index.bdmv,MovieObject.bdmv}  Blu-ray structure: a file "bd_rip"
//   DVD/VIDEO_TS/VIDEO_TS.IFO, DVD/movie_in_dvd.mkv  DVD structure without the
//                                 keyword: not listed, but searched
//   movie.unknownext              no MIME type: never listed without a filter
//   MOVIE_song.mp3                music
class DeepSearch : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_SANDBOX();
        tree = std::make_unique<drive_tree>("SEARCH_DRIVE");
        for (const char *d : {"movies/$RECYCLE.BIN", "movies/movie_recycled", "movies/lost+found_movie"})
            tree->dir(d);
        for (const char *f : {"movies/Movie Night/notes.txt", "movies/.hidden_movies/movie_h.avi",
                              "movies/$RECYCLE.BIN/movie_r.avi", "movies/recycled/movie_x.avi",
                              "movies/BD_movie/BDMV/index.bdmv", "movies/BD_movie/BDMV/MovieObject.bdmv",
                              "movies/BD_movie/movie_extra.m2ts", "movies/DVD/VIDEO_TS/VIDEO_TS.IFO",
                              "movies/DVD/movie_in_dvd.mkv", "movies/movie.unknownext", "movies/MOVIE_song.mp3"})
            tree->file(f);
        tree->file("movies/Movie Night/movie_a.avi", "12345");
    }
    std::unique_ptr<drive_tree> tree;
};

TEST_F(DeepSearch, ClassificationOrder) {
    answer a = search("SEARCH_DRIVE/movies/", "0", "0", "true", "true", "", "movie", "true");
    ASSERT_EQ(a.result, 0) << a.xml();
    EXPECT_EQ(sorted(a.names()),
              sorted({"Movie Night", "movie_a.avi", "movie_r.avi", "movie_recycled", "movie_x.avi",
                      "lost+found_movie", "BD_movie", "movie_extra.m2ts", "movie_in_dvd.mkv",
                      "MOVIE_song.mp3"}))
        << a.xml();
    // MovieObject.bdmv holds the keyword but ".bdmv" has no MIME type.
    const vtrsim::xml_node *bd = a.file("BD_movie");
    ASSERT_NE(bd, nullptr);
    EXPECT_EQ(vtrsim::child_tags(bd),
              (std::vector<std::string>{"name", "path", "isFolder", "type", "size", "modifyDate", "lastAccessDate"}));
    EXPECT_EQ(vtrsim::child_text(bd, "isFolder"), "no");
    EXPECT_EQ(vtrsim::child_text(bd, "type"), "bd_rip");
    EXPECT_EQ(vtrsim::child_text(bd, "path"), "/opt/vtrhttpd/localhost.drives/SEARCH_DRIVE/movies/BD_movie");
    const vtrsim::xml_node *folder = a.file("Movie Night");
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(vtrsim::child_tags(folder),
              (std::vector<std::string>{"name", "path", "isFolder", "size", "modifyDate", "lastAccessDate"}));
    EXPECT_EQ(vtrsim::child_text(folder, "isFolder"), "yes");
    const vtrsim::xml_node *avi = a.file("movie_a.avi");
    ASSERT_NE(avi, nullptr);
    EXPECT_EQ(vtrsim::child_text(avi, "type"), "video");
    EXPECT_EQ(vtrsim::child_text(avi, "size"), "5");
    std::string date = vtrsim::child_text(avi, "modifyDate");
    EXPECT_EQ(date.size(), 24u) << date;  // asctime without its line feed
    EXPECT_EQ(vtrsim::child_text(a.file("MOVIE_song.mp3"), "type"), "music");

    int listed = static_cast<int>(a.names().size());
    EXPECT_EQ(a.text("totalFile"), std::to_string(listed));
    EXPECT_EQ(std::stoi(a.text("availableFolder")) + std::stoi(a.text("availableFile")), listed);
    EXPECT_EQ(a.text("availableFolder"), "3");
    EXPECT_EQ(a.text("convertPath"), "/opt/vtrhttpd/localhost.drives/SEARCH_DRIVE/movies");
    EXPECT_EQ(vtrsim::child_tags(a.root),
              (std::vector<std::string>{"fileList", "totalFile", "availableFolder", "availableFile", "convertPath"}));
}

TEST_F(DeepSearch, KindsAndFilters) {
    struct row {
        const char *folders, *files, *filter, *keyword;
        std::vector<std::string> expected;
        bool has_folder_count, has_file_count;
    };
    const row rows[] = {
        // folders only: disc structures are files, so they are not listed
        {"true", "false", "", "movie", {"Movie Night", "movie_recycled", "lost+found_movie"}, true, false},
        // music: disc structures are not video-friendly
        {"false", "true", "music", "movie", {"MOVIE_song.mp3"}, false, true},
        // video: disc structures pass, and so do the video files
        {"false", "true", "video", "movie",
         {"movie_a.avi", "movie_r.avi", "movie_x.avi", "BD_movie", "movie_in_dvd.mkv", "movie_extra.m2ts"},
         false, true},
        // no keyword: system folders are skipped with their contents; disc
        // structures (DVD, and VIDEO_TS which holds VIDEO_TS.IFO itself) are
        // files, but their contents are searched (BDMV is a plain folder)
        {"true", "false", "", "", {"Movie Night", "movie_recycled", "lost+found_movie", "BDMV"}, true, false},
    };
    for (const row &r : rows) {
        answer a = search("SEARCH_DRIVE/movies", "0", "0", r.folders, r.files, r.filter, r.keyword, "TRUE", "false");
        ASSERT_EQ(a.result, 0);
        EXPECT_EQ(sorted(a.names()), sorted(r.expected)) << r.folders << r.files << r.filter << r.keyword << a.xml();
        EXPECT_EQ(a.has("availableFolder"), r.has_folder_count);
        EXPECT_EQ(a.has("availableFile"), r.has_file_count);
        if (const vtrsim::xml_node *l = a.list()) {
            for (const vtrsim::xml_node *f : l->children) {
                EXPECT_FALSE(vtrsim::child(f, "size")) << "no details";
            }
        }
    }
}

TEST_F(DeepSearch, HiddenStartFindsNothing) {
    answer a = search("SEARCH_DRIVE/movies/.hidden_movies", "0", "0", "true", "true", "", "", "true");
    ASSERT_EQ(a.result, 0);
    EXPECT_TRUE(a.names().empty());
    EXPECT_EQ(a.text("totalFile"), "0");
    EXPECT_EQ(a.text("availableFolder"), "0");
    EXPECT_EQ(a.text("availableFile"), "0");
}

TEST_F(DeepSearch, PagingCountsToTheEnd) {
    tree->dir("pages");
    for (int i = 1; i <= 4; ++i) tree->file("pages/clip" + std::to_string(i) + ".avi");
    for (int i = 1; i <= 3; ++i) tree->dir("pages/clipdir" + std::to_string(i));
    tree->file("pages/other.avi");
    answer all = search("/opt/vtrhttpd/localhost.drives/SEARCH_DRIVE/pages", "0", "0", "true", "true", "", "CLIP",
                        "true");
    ASSERT_EQ(all.result, 0);
    ASSERT_EQ(all.names().size(), 7u);
    answer page = search("/opt/vtrhttpd/localhost.drives/SEARCH_DRIVE/pages", "3", "2", "true", "true", "", "CLIP",
                         "true");
    ASSERT_EQ(page.result, 0);
    EXPECT_EQ(page.names(), (std::vector<std::string>{all.names()[3], all.names()[4]}));
    EXPECT_EQ(page.text("totalFile"), "2");
    EXPECT_EQ(page.text("availableFolder"), "3");
    EXPECT_EQ(page.text("availableFile"), "4");
    answer beyond = search("SEARCH_DRIVE/pages", "10", "2", "true", "true", "", "clip", "true");
    EXPECT_EQ(beyond.text("totalFile"), "0");
    EXPECT_EQ(beyond.text("availableFile"), "4");
}

// A folder that goes stale on the share while the tree is walked: the open
// fails with ESTALE (an NFS server's answer; no NFS here, so the walker's
// open seam fails it). Result 19, and what was appended before stays.
int stale_below_dvd(int dir_fd, const char *name) noexcept {
    if (std::strcmp(name, "VIDEO_TS") == 0 || std::strstr(name, "/VIDEO_TS") != nullptr) {
        errno = ESTALE;
        return -1;
    }
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}
int broken_below_dvd(int dir_fd, const char *name) noexcept {
    if (std::strcmp(name, "VIDEO_TS") == 0) {
        errno = EIO;
        return -1;
    }
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(DeepSearch, StaleHandleGives19) {
    struct row {
        int (*open)(int, const char *) noexcept;
        int32_t expected;
    };
    for (const row &r : {row{stale_below_dvd, 19}, row{broken_below_dvd, 4}}) {
        vtrsim::xml_node *root = vtrsim::new_root("response");
        listing::search_request ask;
        ask.range = 99999;
        listing::walk_hooks hooks;
        hooks.open_folder = r.open;
        int32_t result = listing::deep_search(root, tree->at("movies").c_str(), ask, &hooks);
        EXPECT_EQ(result, r.expected);
        EXPECT_EQ(vtrsim::child_tags(root), std::vector<std::string>{"fileList"});
        vtrsim::free_tree(root);
    }
}

TEST_F(DeepSearch, FlatSearchIsByNameWhateverTheSort) {
    tree->dir("flat");
    tree->file("flat/b10 movie.avi");
    tree->file("flat/B2 Movie.avi");
    tree->dir("flat/z movie dir");
    tree->dir("flat/sub");
    tree->file("flat/sub/movie_deep.avi");
    tree->file("flat/music.mp3");
    answer a = search("SEARCH_DRIVE/flat", "0", "0", "true", "true", "", "MOVIE", "no");
    ASSERT_EQ(a.result, 0) << a.xml();
    EXPECT_EQ(a.names(), (std::vector<std::string>{"z movie dir", "B2 Movie.avi", "b10 movie.avi"}));
}

TEST(SearchCommand, Failures) {
    REQUIRE_SANDBOX();
    EXPECT_EQ(search("", "0", "0", "true", "true", "", "", "true").result, 4);
    EXPECT_EQ(search("/", "0", "0", "true", "true", "", "", "false").result, 4);
    EXPECT_EQ(search("NO_SUCH_DRIVE/x", "0", "0", "true", "true", "", "", "true").result, 4);
    EXPECT_EQ(search("NO_SUCH_DRIVE/x", "0", "0", "true", "true", "", "", "false").result, 4);
    // nine or eleven arguments are refused by the dispatcher
    EXPECT_EQ(run({"search_user_storage_file", "a", "0", "0", "true", "true", "true", "", ""}).result, 1);
    EXPECT_EQ(run({"search_user_storage_file", "a", "0", "0", "true", "true", "true", "", "", "true", "x"}).result,
              1);
}

}  // namespace
