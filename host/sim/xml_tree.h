// The player's XML node library as the reference host provides it: element
// trees built by the plug-in through VANTOR_SIMPLE_XML_*, plus the helpers
// the host and the tests use to read and print them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vtrsim {

struct xml_node {
    std::string tag;
    std::string text;  // bytes; may hold NULs when binary
    bool binary = false;
    xml_node *parent = nullptr;
    std::vector<xml_node *> children;
};

// A root element owned by the caller (a VantorXmlNode is an xml_node*).
xml_node *new_root(const char *tag = "response");
// Frees root and everything below it. A node that still has a parent is
// first detached from it.
void free_tree(xml_node *root);
// Frees every node that was created through VANTOR_SIMPLE_XML_new_node* but
// never appended to a tree (with whatever was appended below it). Returns
// how many nodes were freed.
std::size_t free_orphans();
// Number of nodes currently alive (roots included): leak checks.
std::size_t live_nodes();
// Number of nodes alive that are in no tree (never appended, not roots),
// those below them included.
std::size_t orphan_nodes();

// How append_xml_text escapes. Both write the five markup characters as
// entities; they differ in what else becomes a character reference.
enum class xml_text_rules {
    // Also a carriage return, as "&#13;", so a parser does not turn it into
    // a line feed; every other byte as it is (the HTTP front end sends only
    // text that is already valid XML characters this way).
    keep_carriage_return,
    // Also control bytes other than tab, line feed and carriage return, DEL
    // and, in text that is not valid UTF-8, every byte above 0x7f, as
    // "&#xHH;" with the byte value (to_xml: any bytes stay well-formed).
    bytes_as_references,
};
void append_xml_text(std::string &out, std::string_view text, xml_text_rules rules);

// Well-formed XML of node and its subtree. Markup characters are escaped;
// control bytes and, in text that is not valid UTF-8, every byte above 0x7f
// become character references whose number is the byte value.
std::string to_xml(const xml_node *node);
// {"tag":..,"text":..,"children":[..]}: every byte of tag and text is one
// JSON code point (printable ASCII literally, anything else as \u00XX).
std::string to_json(const xml_node *node);
// A JSON string literal of the bytes, each byte outside printable ASCII as \u00XX.
std::string json_quote(std::string_view bytes);

// The nth child (0-based) with this tag, nullptr if absent.
const xml_node *child(const xml_node *node, std::string_view tag, int nth = 0);
std::vector<std::string> child_tags(const xml_node *node);
// Text of the first child with this tag, "" if absent.
std::string child_text(const xml_node *node, std::string_view tag);

}  // namespace vtrsim
