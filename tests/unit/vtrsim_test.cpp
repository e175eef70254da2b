// The few simulator behaviours the plug-in's answers rely on: re-appending
// an element moves it last, binary text keeps every byte, filereadline's
// cut lines, and the mapping of network addresses onto configured shares.
#include "test_util.h"

namespace {

vtrsim::xml_node *node(const char *tag, const char *text = "") {
    VantorXmlNode n = nullptr;
    EXPECT_EQ(VANTOR_SIMPLE_XML_new_node(&n, tag, text), 0);
    return static_cast<vtrsim::xml_node *>(n);
}

TEST(Vtrsim, ReappendMovesLastAndBinaryKeepsBytes) {
    tu::answer a;
    vtrsim::xml_node *list = node("fileList");
    VANTOR_SIMPLE_XML_add_child_node(a.root, list);
    VANTOR_SIMPLE_XML_add_child_node(a.root, node("availableFolder"));
    VANTOR_SIMPLE_XML_add_child_node(a.root, list);
    const char bytes[] = {'a', '\0', '\xff'};
    VantorXmlNode bin = nullptr;
    ASSERT_EQ(VANTOR_SIMPLE_XML_new_node_binary(&bin, "content", bytes, sizeof bytes), 0);
    VANTOR_SIMPLE_XML_add_child_node(a.root, bin);
    EXPECT_EQ(vtrsim::child_tags(a.root), (std::vector<std::string>{"availableFolder", "fileList", "content"}));
    EXPECT_EQ(a.text("content"), std::string(bytes, sizeof bytes));
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(list, a.root), -1);  // no cycles
}

TEST(Vtrsim, FilereadlineCutsLongLines) {
    tu::drive_tree d("/tmp/vtrsim_test");
    d.file("f", "ab\n\nlonger line\nlast");
    int fd = ::open(d.at("f").c_str(), O_RDONLY);
    char buf[5];
    struct step { int result; const char *text; off_t offset; };
    for (const step &s : {step{2, "ab", 3}, {0, "", 4}, {4, "long", 16}, {4, "last", 20}, {0, "", 20}}) {
        EXPECT_EQ(filereadline(fd, buf, sizeof buf), s.result);
        EXPECT_STREQ(buf, s.text);
        EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), s.offset);
    }
    ::close(fd);
}

TEST(Vtrsim, NetworkAddressesMapOntoConfiguredShares) {
    tu::drive_tree d("/tmp/vtrsim_conf");
    ::setenv("VTR_CONFIG", d.at("vtr.conf").c_str(), 1);
    d.file("vtr.conf", "netfs_name0=Public\nnetfs_url0=smb://nas/public/\nnetfs_name20=M\nnetfs_url20=nfs://h/e\n");
    const std::string root = tu::drives_root + "/NETWORK_SHARE/";
    struct row { const char *address, *expected; };
    for (const row &r : {row{"smb://nas/public/a/b.mp4", "Public/a/b.mp4"}, {"smb://nas/public", "Public"},
                         {"nfs://h/e/x", "M/x"}, {"smb://nas/publicity/x", nullptr}, {"smb://NAS/public/x", nullptr},
                         {"smb://nas", nullptr}}) {
        char *got = vtr_get_smb_nfs_network_url(r.address, 5);
        EXPECT_EQ(got != nullptr ? std::string(got) : "<null>", r.expected ? root + r.expected : "<null>") << r.address;
        std::free(got);
    }
    ::unsetenv("VTR_CONFIG");
}

}  // namespace
