// Element trees: creation, DOM-style append, release and printing.
#include "host/sim/xml_tree.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include "host/sim/vtrsim_export.h"
#include "platform/host_api.h"

namespace vtrsim {
namespace {

// Every node alive, and which of them are roots handed out by new_root.
// One lock guards the registry and every parent/children link, so request
// threads and batch threads may build trees at the same time.
struct registry {
    std::mutex lock;
    std::unordered_set<xml_node *> nodes;
    std::unordered_set<xml_node *> roots;
};

// Never destroyed: a thread of the plug-in may still build a node while the
// host process exits.
registry &nodes() {
    static registry *r = new registry;
    return *r;
}

void detach_locked(xml_node *n) {
    if (n->parent == nullptr) return;
    auto &siblings = n->parent->children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), n));
    n->parent = nullptr;
}

std::size_t delete_subtree_locked(registry &r, xml_node *n) {
    std::size_t count = 1;
    for (xml_node *c : n->children) {
        c->parent = nullptr;
        count += delete_subtree_locked(r, c);
    }
    r.nodes.erase(n);
    r.roots.erase(n);
    delete n;
    return count;
}

xml_node *make_node(const char *tag, std::string text, bool binary) {
    auto *n = new (std::nothrow) xml_node;
    if (n == nullptr) return nullptr;
    n->tag = tag != nullptr ? tag : "";
    n->text = std::move(text);
    n->binary = binary;
    registry &r = nodes();
    std::lock_guard g(r.lock);
    r.nodes.insert(n);
    return n;
}

bool valid_utf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t extra = 0;
        if ((c & 0xe0) == 0xc0 && c >= 0xc2) extra = 1;
        else if ((c & 0xf0) == 0xe0) extra = 2;
        else if ((c & 0xf8) == 0xf0 && c <= 0xf4) extra = 3;
        else return false;
        if (i + extra >= s.size()) return false;
        for (std::size_t k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80) return false;
        i += extra + 1;
    }
    return true;
}

void append_xml(std::string &out, const xml_node *n) {
    std::string tag = n->tag.empty() ? std::string("_") : n->tag;
    out += '<';
    append_xml_text(out, tag, xml_text_rules::bytes_as_references);
    if (n->text.empty() && n->children.empty()) {
        out += "/>";
        return;
    }
    out += '>';
    append_xml_text(out, n->text, xml_text_rules::bytes_as_references);
    for (const xml_node *c : n->children) append_xml(out, c);
    out += "</";
    append_xml_text(out, tag, xml_text_rules::bytes_as_references);
    out += '>';
}

void append_json_string(std::string &out, std::string_view s) {
    char esc[8];
    out += '"';
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c >= 0x7f) {
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += ch;
        }
    }
    out += '"';
}

void append_json(std::string &out, const xml_node *n) {
    out += "{\"tag\":";
    append_json_string(out, n->tag);
    out += ",\"text\":";
    append_json_string(out, n->text);
    out += ",\"children\":[";
    bool first = true;
    for (const xml_node *c : n->children) {
        if (!first) out += ',';
        first = false;
        append_json(out, c);
    }
    out += "]}";
}

}  // namespace

xml_node *new_root(const char *tag) {
    xml_node *n = make_node(tag, {}, false);
    if (n == nullptr) return nullptr;
    registry &r = nodes();
    std::lock_guard g(r.lock);
    r.roots.insert(n);
    return n;
}

void free_tree(xml_node *root) {
    if (root == nullptr) return;
    registry &r = nodes();
    std::lock_guard g(r.lock);
    if (r.nodes.count(root) == 0) return;
    detach_locked(root);
    delete_subtree_locked(r, root);
}

std::size_t free_orphans() {
    registry &r = nodes();
    std::lock_guard g(r.lock);
    std::vector<xml_node *> orphans;
    for (xml_node *n : r.nodes)
        if (n->parent == nullptr && r.roots.count(n) == 0) orphans.push_back(n);
    std::size_t count = 0;
    for (xml_node *n : orphans) count += delete_subtree_locked(r, n);
    return count;
}

std::size_t live_nodes() {
    registry &r = nodes();
    std::lock_guard g(r.lock);
    return r.nodes.size();
}

std::size_t orphan_nodes() {
    registry &r = nodes();
    std::lock_guard g(r.lock);
    std::size_t count = 0;
    for (xml_node *n : r.nodes) {
        xml_node *top = n;
        while (top->parent != nullptr) top = top->parent;
        if (r.roots.count(top) == 0) ++count;
    }
    return count;
}

void append_xml_text(std::string &out, std::string_view text, xml_text_rules rules) {
    const bool references = rules == xml_text_rules::bytes_as_references;
    const bool utf8 = references && valid_utf8(text);
    char ref[16];
    for (char ch : text) {
        auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '&': out += "&amp;"; continue;
        case '<': out += "&lt;"; continue;
        case '>': out += "&gt;"; continue;
        case '"': out += "&quot;"; continue;
        case '\'': out += "&apos;"; continue;
        default: break;
        }
        if (!references) {
            if (c == '\r') out += "&#13;";
            else out += ch;
        } else if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f || (c >= 0x80 && !utf8)) {
            std::snprintf(ref, sizeof ref, "&#x%02X;", c);
            out += ref;
        } else {
            out += ch;
        }
    }
}

std::string to_xml(const xml_node *node) {
    std::string out;
    if (node != nullptr) append_xml(out, node);
    return out;
}

std::string json_quote(std::string_view bytes) {
    std::string out;
    append_json_string(out, bytes);
    return out;
}

std::string to_json(const xml_node *node) {
    std::string out;
    if (node == nullptr) return "null";
    append_json(out, node);
    return out;
}

const xml_node *child(const xml_node *node, std::string_view tag, int nth) {
    if (node == nullptr) return nullptr;
    for (const xml_node *c : node->children)
        if (c->tag == tag && nth-- == 0) return c;
    return nullptr;
}

std::vector<std::string> child_tags(const xml_node *node) {
    std::vector<std::string> tags;
    if (node != nullptr)
        for (const xml_node *c : node->children) tags.push_back(c->tag);
    return tags;
}

std::string child_text(const xml_node *node, std::string_view tag) {
    const xml_node *c = child(node, tag);
    return c != nullptr ? c->text : std::string();
}

}  // namespace vtrsim

using vtrsim::xml_node;

extern "C" {

VTRSIM_API int VANTOR_SIMPLE_XML_new_node(VantorXmlNode *out, const char *tag, const char *text) {
    if (out == nullptr || tag == nullptr) return -1;
    xml_node *n = vtrsim::make_node(tag, text != nullptr ? std::string(text) : std::string(), false);
    if (n == nullptr) return -1;
    *out = n;
    return 0;
}

VTRSIM_API int VANTOR_SIMPLE_XML_new_node_binary(VantorXmlNode *out, const char *tag, const void *data,
                                                 unsigned int length) {
    if (out == nullptr || tag == nullptr || (data == nullptr && length != 0)) return -1;
    std::string bytes;
    if (length != 0) bytes.assign(static_cast<const char *>(data), length);
    xml_node *n = vtrsim::make_node(tag, std::move(bytes), true);
    if (n == nullptr) return -1;
    *out = n;
    return 0;
}

VTRSIM_API int VANTOR_SIMPLE_XML_add_child_node(VantorXmlNode parent_handle, VantorXmlNode child_handle) {
    auto *parent = static_cast<xml_node *>(parent_handle);
    auto *c = static_cast<xml_node *>(child_handle);
    if (parent == nullptr || c == nullptr || parent == c) return -1;
    vtrsim::registry &r = vtrsim::nodes();
    std::lock_guard g(r.lock);
    if (r.nodes.count(parent) == 0 || r.nodes.count(c) == 0) return -1;
    // A node never becomes its own ancestor.
    for (xml_node *a = parent; a != nullptr; a = a->parent)
        if (a == c) return -1;
    vtrsim::detach_locked(c);
    c->parent = parent;
    parent->children.push_back(c);
    return 0;
}

}  // extern "C"
