// Disc detection, the cache records byte by byte, the cache lookup, and a local share list's paging, filters, sort.
#include "listing/cache_records.h"
#include "listing/list_command.h"
#include "listing/share_list.h"
#include "media/disc.h"
#include "test_util.h"

#include <functional>

namespace {

const std::string scratch = "/tmp/listing_test";

// Runs a producer on a fresh response element and returns its XML.
std::string answer_of(const std::function<void(VantorXmlNode *)> &produce) {
    tu::answer a;
    VantorXmlNode slot = a.root;
    produce(&slot);
    return a.xml();
}

TEST(DiscDetection, RulesInOrder) {
    struct row { std::vector<std::string> files; unsigned kind; };
    const row rows[] = {
        {{"BDMV/index.bdmv", "BDMV/MovieObject.bdmv"}, 1}, {{"BDMV/INDEX.BDM", "BDMV/MOVIEOBJ.BDM"}, 1},
        {{"BDMV/index.bdmv"}, 0}, {{"BDMV/index.bdmv", "VIDEO_TS/VIDEO_TS.IFO"}, 2},  // no movie object: falls through
        {{"VIDEO_TS.IFO", "BDAV/info.bdav"}, 2}, {{"video_ts.ifo"}, 2}, {{"BDAV/info.bdav"}, 3},  // rule 2 before 3
        {{"video_ts/video_ts.ifo"}, 2}, {{"Video_TS/Video_TS.ifo"}, 0},  // mixed case is not tried
        {{"DVD_RTAV/VR_MANGR.IFO"}, 4}, {{"readme.txt"}, 0},
    };
    for (const row &r : rows) {
        tu::drive_tree s(scratch);
        for (const std::string &f : r.files) s.file(f);
        EXPECT_EQ(vantor_command_server_cdtypedetection(s.root.c_str()), r.kind) << r.files[0];
    }
    EXPECT_EQ(vantor_command_server_cdtypedetection(nullptr) + vantor_command_server_cdtypedetection(std::string(4096, 'a').c_str()), 0u);
    tu::drive_tree s(scratch);
    s.file("a/x");
    char buffer[4096];
    int n = static_cast<int>(s.root.copy(buffer, sizeof buffer));
    EXPECT_EQ(vantor_command_server_existfile(buffer, n, "/a/x") * 2 + vantor_command_server_existfile(buffer, n, "/a/y"), 2);
    EXPECT_EQ(std::string(buffer, n), s.root);  // the folder part is kept
    EXPECT_EQ(vantor_command_server_existfile(buffer, 4095, "/a"), 0);
    for (int code : {2, -1, 10}) EXPECT_STREQ(media::disc_code_text(code), "UNSUPPORTED DISC");
}

TEST(CacheRecords, KeyAndEntryBytes) {
    std::string long_path(300, 'p');
    listing::listing_key key = listing::make_listing_key(0x100000005LL, -1, true, false, 3, "video", long_path.c_str());
    auto *b = reinterpret_cast<const unsigned char *>(&key);
    auto text_length = [](const void *at) { return std::strlen(static_cast<const char *>(at)); };
    EXPECT_EQ(std::vector<int>({b[0], b[4], b[8], b[9], b[10]}), std::vector<int>({5, 0xff, 1, 0, 3}));
    EXPECT_STREQ(reinterpret_cast<const char *>(b + 11), "video");
    EXPECT_EQ(text_length(b + 43), 256u);
    listing::cache_entry e = listing::make_cache_entry(std::string(200, 'n').c_str(), std::string(600, 'e').c_str(),
                                                       "a-very-long-type-word", true, 1ULL << 40, -2);
    auto *eb = reinterpret_cast<const unsigned char *>(&e);
    EXPECT_EQ(std::vector<std::size_t>({text_length(eb + 33), text_length(eb + 160), text_length(eb + 16)}),
              std::vector<std::size_t>({126, 511, 15}));
    EXPECT_EQ(std::vector<int>({eb[32], eb[13], eb[0]}), std::vector<int>({1, 1, 0xfe}));  // 1 << 40, little-endian
}

struct cache_fixture : ::testing::Test {
    tu::drive_tree s{scratch};
    std::string file = s.at("usr_file_list");
    void add(const char *path, int entries) {
        listing::listing_key key = listing::make_listing_key(0, 99999, true, true, 0, "", path);
        std::vector<listing::cache_entry> page;
        for (int i = 0; i < entries; ++i) {
            std::string name = "n" + std::to_string(i);
            page.push_back(listing::make_cache_entry(name.c_str(), (std::string(path) + "/" + name).c_str(),
                                                     i == 0 ? "" : "video", i == 0, 10u + i, 0));
        }
        listing::append_cache_record(key, 7, 3, "conv", page, file.c_str());
    }
    int lookup(const char *path, std::string *xml, bool details = false, int32_t offset = 0) {
        listing::listing_key key = listing::make_listing_key(offset, 99999, true, true, 0, "", path);
        int state = -1;
        *xml = answer_of([&](VantorXmlNode *slot) { state = listing::cache_lookup(slot, key, path, details, file.c_str()); });
        return state;
    }
};
TEST_F(cache_fixture, LookupRules) {
    std::string xml;
    EXPECT_EQ(lookup("USB/A", &xml), 2);  // no cache file yet
    add("USB/A/B", 2);
    add("USB/A", 2);
    EXPECT_EQ(tu::fs::file_size(file), 2 * (568 + 2 * 672u));
    EXPECT_EQ(lookup("USB/A", &xml), 0);  // a cached subfolder does not stop its parent
    EXPECT_EQ(xml,
              "<response><fileList><file><name>n0</name><path>USB/A/n0</path><isFolder>yes</isFolder></file>"
              "<file><name>n1</name><path>USB/A/n1</path><type>video</type><isFolder>no</isFolder></file>"
              "</fileList><totalFile>2</totalFile><availableFolder>3</availableFolder>"
              "<availableFile>7</availableFile><convertPath>conv</convertPath></response>");
    EXPECT_EQ(lookup("USB/A", &xml, true), 0);
    EXPECT_NE(xml.find("1970\n</modifyDate><lastAccessDate/><size>11</size>"), std::string::npos) << xml;
    EXPECT_EQ(lookup("USB/A/B/C", &xml), 1);  // an enclosing folder is cached
    EXPECT_EQ(xml, "<response/>");
    EXPECT_EQ(lookup("USB/A", &xml, false, 5) + lookup("USB/Z", &xml), 4);  // another page; another folder
}

TEST_F(cache_fixture, EmptyAndTruncatedRecords) {
    std::string xml;
    add("E", 0);
    EXPECT_EQ(lookup("E", &xml), 0);
    EXPECT_EQ(xml, "<response/>");
    add("T", 3);
    tu::fs::resize_file(file, tu::fs::file_size(file) - 10);  // last entry cut short
    EXPECT_EQ(lookup("T", &xml), 0);
    EXPECT_NE(xml.find("<name>n1</name><path>T/n1</path><type>video</type><isFolder>no</isFolder></file></fileList>"
                       "<totalFile>3</totalFile>"), std::string::npos);
}

TEST_F(cache_fixture, MissDeletesALargeCache) {
    std::string xml;
    for (int i = 0; i < 19; ++i) add(("F" + std::to_string(i)).c_str(), 3);  // 19 * 2584 bytes
    add("E", 0);
    std::ofstream(file, std::ios::app) << std::string(337, '\0');  // 50001 bytes: the limit
    EXPECT_EQ(lookup("F3", &xml), 0);
    EXPECT_NE(xml.find("F3/n2</path><type>video</type><isFolder>no</isFolder></file></fileList>"), std::string::npos);
    EXPECT_TRUE(tu::fs::exists(file));
    EXPECT_TRUE(lookup("G", &xml) == 2 && !tu::fs::exists(file));
}

// Names, totalFile, availableFolder, availableFile ("-" when left out), then the result.
std::string share_list(const char *dir, uint64_t start, uint64_t count, bool folders, bool files, const char *filter,
                       int sort) {
    int result = -1;
    std::string xml = answer_of([&](VantorXmlNode *slot) {
        result = file_operation_share_list_file(slot, dir, start, count, folders, files, false, filter, 0, sort, nullptr, 0,
                                                nullptr, 0);
    });
    std::string out;
    for (std::size_t at = 0, end; (at = xml.find("<name>", at)) != std::string::npos; at = end)
        out += xml.substr(at + 6, (end = xml.find("</name>", at)) - at - 6) + " ";
    for (std::string tag : {"totalFile", "availableFolder", "availableFile", "convertPath"}) {
        std::size_t at = xml.find("<" + tag + ">") + tag.size() + 2;
        out += at < tag.size() + 2 ? "- " : tag == "convertPath" ? "" : xml.substr(at, xml.find('<', at) - at) + " ";
    }
    return out + std::to_string(result);
}

TEST(ShareList, PagingCountersAndFilters) {
    tu::drive_tree s(scratch);
    for (auto [f, text] : {std::pair{"noext", ""}, {".hidden.avi", ""}, {"Rip/VIDEO_TS/VIDEO_TS.IFO", ""}, {"Alpha/x", ""},
                           {"beta/x", ""}, {"lost+found/x", ""}, {"f10.avi", "1234567890"}, {"f9.avi", "1"}, {"song.mp3", "12345"}})
        s.file(f, text);
    struct row { uint64_t start, count; bool folders, files; const char *filter; int sort; const char *want; };
    const row rows[] = {
        {0, 99999, true, true, "", 0, "Alpha beta Rip f9.avi f10.avi song.mp3 6 2 4 "},
        {0, 99999, true, true, "", 3, "Rip beta Alpha f10.avi song.mp3 f9.avi 6 2 4 "},  // size descending
        {0, 99999, true, true, "music", 0, "Alpha beta song.mp3 3 3 1 "},
        {0, 99999, false, true, "", 0, "Rip f9.avi f10.avi song.mp3 4 - 4 "},  // a disc folder is still a file
        {2, 2, false, true, "", 0, "Rip f9.avi 2 - 4 "},  // folders before the page keep their count
        {0, 99999, true, false, "", 0, "Alpha beta 2 3 - "},  // the disc folder stays a counted folder
        {50, 10, true, true, "", 0, "0 3 3 "},  // start beyond the end
    };
    for (const row &r : rows)
        EXPECT_EQ(share_list(s.root.c_str(), r.start, r.count, r.folders, r.files, r.filter, r.sort), std::string(r.want) + "0");
    EXPECT_EQ(share_list("/nonexistent/folder", 0, 10, true, true, "", 0), "- - - - 1");
}

}  // namespace
