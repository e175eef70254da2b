// The few simulator behaviours the plug-in's answers rely on: re-appending
// an element moves it last, binary text keeps every byte, filereadline's cut
// lines. (Network addresses onto shares: every end-to-end share test.)
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

}  // namespace
