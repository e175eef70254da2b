// The simulated XML library: DOM append semantics, ownership and printing.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"

namespace {

using vtrsim::xml_node;

xml_node *node(const char *tag, const char *text = "") {
    VantorXmlNode n = nullptr;
    EXPECT_EQ(VANTOR_SIMPLE_XML_new_node(&n, tag, text), 0);
    return static_cast<xml_node *>(n);
}

struct tree {
    xml_node *root = vtrsim::new_root();
    ~tree() { vtrsim::free_tree(root); }
};

TEST(VtrsimXml, ReappendingMovesTheNodeLastAndNeverDuplicates) {
    tree t;
    xml_node *list = node("fileList");
    ASSERT_EQ(VANTOR_SIMPLE_XML_add_child_node(t.root, list), 0);
    for (const char *tag : {"availableFolder", "availableFile"}) {
        VANTOR_SIMPLE_XML_add_child_node(t.root, node(tag));
        xml_node *file = node("file");
        VANTOR_SIMPLE_XML_add_child_node(list, file);
        EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(t.root, list), 0);
    }
    VANTOR_SIMPLE_XML_add_child_node(t.root, node("totalFile", "2"));
    EXPECT_EQ(vtrsim::child_tags(t.root),
              (std::vector<std::string>{"availableFolder", "availableFile", "fileList", "totalFile"}));
    EXPECT_EQ(vtrsim::child_tags(list).size(), 2u);
    EXPECT_EQ(list->parent, t.root);

    // Appending under another parent detaches it from the first one.
    xml_node *other = node("other");
    VANTOR_SIMPLE_XML_add_child_node(t.root, other);
    VANTOR_SIMPLE_XML_add_child_node(other, list);
    EXPECT_EQ(vtrsim::child(t.root, "fileList"), nullptr);
    EXPECT_EQ(vtrsim::child(other, "fileList"), list);
}

TEST(VtrsimXml, RefusesCyclesAndBadHandles) {
    tree t;
    xml_node *a = node("a");
    xml_node *b = node("b");
    VANTOR_SIMPLE_XML_add_child_node(t.root, a);
    VANTOR_SIMPLE_XML_add_child_node(a, b);
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(b, a), -1);
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(a, a), -1);
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(b, t.root), -1);
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(nullptr, a), -1);
    int not_a_node = 0;
    EXPECT_EQ(VANTOR_SIMPLE_XML_add_child_node(a, &not_a_node), -1);
    EXPECT_EQ(VANTOR_SIMPLE_XML_new_node(nullptr, "x", ""), -1);
    EXPECT_EQ(vtrsim::to_xml(t.root), "<response><a><b/></a></response>");
}

TEST(VtrsimXml, TextIsCopiedAndBinaryKeepsEveryByte) {
    tree t;
    char buffer[8] = "first";
    VANTOR_SIMPLE_XML_add_child_node(t.root, node("name", buffer));
    std::snprintf(buffer, sizeof buffer, "second");
    const char bytes[] = {'a', '\0', 'b', '\xff', '"'};
    VantorXmlNode bin = nullptr;
    ASSERT_EQ(VANTOR_SIMPLE_XML_new_node_binary(&bin, "content", bytes, sizeof bytes), 0);
    VANTOR_SIMPLE_XML_add_child_node(t.root, bin);
    VantorXmlNode empty = nullptr;
    ASSERT_EQ(VANTOR_SIMPLE_XML_new_node_binary(&empty, "empty", nullptr, 0), 0);
    VANTOR_SIMPLE_XML_add_child_node(t.root, empty);

    EXPECT_EQ(vtrsim::child_text(t.root, "name"), "first");
    EXPECT_EQ(vtrsim::child_text(t.root, "content"), std::string(bytes, sizeof bytes));
    EXPECT_EQ(vtrsim::child_text(t.root, "absent"), "");
    EXPECT_TRUE(vtrsim::child(t.root, "content")->binary);
    EXPECT_EQ(vtrsim::to_json(t.root),
              "{\"tag\":\"response\",\"text\":\"\",\"children\":["
              "{\"tag\":\"name\",\"text\":\"first\",\"children\":[]},"
              "{\"tag\":\"content\",\"text\":\"a\\u0000b\\u00ff\\\"\",\"children\":[]},"
              "{\"tag\":\"empty\",\"text\":\"\",\"children\":[]}]}");
}

TEST(VtrsimXml, SerializerEscapesMarkupAndBytes) {
    struct row {
        const char *text;
        const char *xml;
    };
    const row rows[] = {
        {"a<b>&'\"", "<t>a&lt;b&gt;&amp;&apos;&quot;</t>"},
        {"caf\xc3\xa9", "<t>caf\xc3\xa9</t>"},       // valid UTF-8 stays as it is
        {"caf\xe9", "<t>caf&#xE9;</t>"},             // other bytes become references
        {"tab\tnl\n", "<t>tab\tnl\n</t>"},
        {"bell\x07", "<t>bell&#x07;</t>"},
        {"", "<t/>"},
    };
    for (const row &r : rows) {
        tree t;
        xml_node *n = node("t", r.text);
        EXPECT_EQ(vtrsim::to_xml(n), r.xml) << r.text;
        VANTOR_SIMPLE_XML_add_child_node(t.root, n);
    }
    tree t;
    xml_node *n = node("t", "x");
    VANTOR_SIMPLE_XML_add_child_node(t.root, n);
    VANTOR_SIMPLE_XML_add_child_node(n, node("u", "1"));
    EXPECT_EQ(vtrsim::to_xml(t.root), "<response><t>x<u>1</u></t></response>");
}

TEST(VtrsimXml, FreeTreeAndFreeOrphansReleaseEverything) {
    vtrsim::free_orphans();
    std::size_t before = vtrsim::live_nodes();
    {
        tree t;
        xml_node *a = node("a");
        VANTOR_SIMPLE_XML_add_child_node(t.root, a);
        VANTOR_SIMPLE_XML_add_child_node(a, node("b"));
        xml_node *orphan = node("orphan");  // created, never appended
        VANTOR_SIMPLE_XML_add_child_node(orphan, node("below"));
        EXPECT_EQ(vtrsim::live_nodes(), before + 5);
    EXPECT_EQ(vtrsim::orphan_nodes(), 2u);
        EXPECT_EQ(vtrsim::free_orphans(), 2u);
        EXPECT_EQ(vtrsim::live_nodes(), before + 3);
        // Freeing a subtree detaches it from its parent.
        vtrsim::free_tree(a);
        EXPECT_TRUE(t.root->children.empty());
    }
    EXPECT_EQ(vtrsim::live_nodes(), before);
}

TEST(VtrsimXml, ThreadsBuildTreesAtTheSameTime) {
    tree t;
    xml_node *shared = node("shared");
    VANTOR_SIMPLE_XML_add_child_node(t.root, shared);
    std::vector<std::thread> threads;
    for (int k = 0; k < 4; ++k)
        threads.emplace_back([shared] {
            for (int i = 0; i < 2000; ++i) {
                VantorXmlNode n = nullptr;
                VANTOR_SIMPLE_XML_new_node(&n, "n", "v");
                VANTOR_SIMPLE_XML_add_child_node(shared, n);
                VANTOR_SIMPLE_XML_add_child_node(shared, n);  // re-append: still once
            }
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(shared->children.size(), 8000u);
}

}  // namespace
