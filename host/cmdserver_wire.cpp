#include "host/cmdserver_wire.h"

#include <algorithm>
#include <cstdint>

#include "host/sim/xml_tree.h"

namespace cmdserver {
namespace {

void append_escaped_text(std::string &out, std::string_view text) {
    vtrsim::append_xml_text(out, text, vtrsim::xml_text_rules::keep_carriage_return);
}

int hex_value(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void indent(std::string &out, int depth) { out.append(static_cast<std::size_t>(depth) * 2, ' '); }

// Tag as written: names the plug-in uses are plain; anything else is kept
// readable as <element name="...">.
void append_start_tag(std::string &out, std::string_view tag, bool base64) {
    out += '<';
    if (is_xml_name(tag)) {
        out += tag;
    } else {
        out += "element name=\"";
        if (is_xml_text(tag)) append_escaped_text(out, tag);
        else append_base64(out, tag);
        out += '"';
    }
    if (base64) out += " encoding=\"base64\"";
    out += '>';
}

void append_end_tag(std::string &out, std::string_view tag) {
    out += "</";
    out += is_xml_name(tag) ? tag : std::string_view("element");
    out += '>';
}

// Length of text once escaped by append_escaped_text.
uint64_t escaped_size(std::string_view text) noexcept {
    uint64_t n = text.size();
    for (char c : text) {
        switch (c) {
        case '&': n += 4; break;
        case '<':
        case '>': n += 3; break;
        case '"':
        case '\'': n += 5; break;
        case '\r': n += 4; break;
        default: break;
        }
    }
    return n;
}

void append_content(std::string &out, std::string_view content) {
    if (is_xml_text(content)) append_escaped_text(out, content);
    else append_base64(out, content);
}

}  // namespace

bool percent_decode(std::string_view in, bool plus_is_space, std::string &out, std::string &error) {
    out.clear();
    out.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (c == '+' && plus_is_space) {
            out += ' ';
        } else if (c == '%') {
            int hi = i + 1 < in.size() ? hex_value(in[i + 1]) : -1;
            int lo = i + 2 < in.size() ? hex_value(in[i + 2]) : -1;
            if (hi < 0 || lo < 0) {
                error = "malformed percent escape at byte " + std::to_string(i);
                return false;
            }
            char byte = static_cast<char>(hi * 16 + lo);
            if (byte == '\0') {
                error = "%00 cannot be part of a parameter";
                return false;
            }
            out += byte;
            i += 2;
        } else if (c == '\0') {
            error = "NUL byte in the request target";
            return false;
        } else {
            out += c;
        }
    }
    return true;
}

bool parse_parameters(std::string_view query, std::vector<std::string> &out, std::string &error) {
    if (query.empty()) return true;
    std::size_t start = 0;
    for (;;) {
        std::size_t end = query.find('&', start);
        std::string_view item = query.substr(start, end == std::string_view::npos ? end : end - start);
        if (std::size_t eq = item.find('='); eq != std::string_view::npos) item.remove_prefix(eq + 1);
        std::string value;
        if (!percent_decode(item, true, value, error)) {
            error = "parameter " + std::to_string(out.size() + 1) + ": " + error;
            return false;
        }
        out.push_back(std::move(value));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return true;
}

int parse_target(std::string_view raw, call_target &target, target_kind &kind, std::string &error) {
    target = call_target{};
    kind = target_kind::other;
    std::string_view path = raw, query;
    if (std::size_t q = raw.find('?'); q != std::string_view::npos) {
        path = raw.substr(0, q);
        query = raw.substr(q + 1);
    }
    if (std::size_t h = query.find('#'); h != std::string_view::npos) query = query.substr(0, h);
    if (path.empty() || path.front() != '/') {
        error = "the request target must begin with \"/\"";
        return 400;
    }
    path.remove_prefix(1);
    std::string_view group_part = path, command_part;
    bool has_command = false;
    if (std::size_t slash = path.find('/'); slash != std::string_view::npos) {
        group_part = path.substr(0, slash);
        command_part = path.substr(slash + 1);
        has_command = true;
    }
    if (!percent_decode(group_part, false, target.group, error)) return 400;
    if (!has_command) {
        kind = target.group.empty() ? target_kind::other : target_kind::group_only;
        if (kind == target_kind::other && !percent_decode(path, false, target.group, error)) return 400;
        return 0;
    }
    if (!percent_decode(command_part, false, target.command, error)) return 400;
    kind = target_kind::call;
    if (!parse_parameters(query, target.args, error)) return 400;
    return 0;
}

bool is_xml_text(std::string_view s) noexcept {
    const auto *p = reinterpret_cast<const unsigned char *>(s.data());
    const std::size_t n = s.size();
    for (std::size_t i = 0; i < n;) {
        unsigned char c = p[i];
        if (c < 0x80) {
            if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
            ++i;
            continue;
        }
        std::size_t len;
        uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) { len = 2; cp = c & 0x1F; }
        else if (c >= 0xE0 && c <= 0xEF) { len = 3; cp = c & 0x0F; }
        else if (c >= 0xF0 && c <= 0xF4) { len = 4; cp = c & 0x07; }
        else return false;
        if (i + len > n) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))) return false;
        if (cp >= 0xD800 && cp <= 0xDFFF) return false;
        if (cp == 0xFFFE || cp == 0xFFFF) return false;
        i += len;
    }
    return true;
}

bool is_xml_name(std::string_view name) noexcept {
    if (name.empty()) return false;
    // ASCII names only; "xml..." is reserved.
    if (name.size() >= 3 && (name[0] | 0x20) == 'x' && (name[1] | 0x20) == 'm' && (name[2] | 0x20) == 'l')
        return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        char c = name[i];
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        bool other = (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!(letter || (i > 0 && other))) return false;
    }
    return true;
}

void append_base64(std::string &out, std::string_view bytes) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t v = (uint32_t{p[i]} << 16) | (uint32_t{p[i + 1]} << 8) | p[i + 2];
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    if (std::size_t rest = bytes.size() - i; rest > 0) {
        uint32_t v = uint32_t{p[i]} << 16;
        if (rest == 2) v |= uint32_t{p[i + 1]} << 8;
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += rest == 2 ? alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
}

void append_leaf(std::string &out, std::string_view tag, std::string_view content, int depth) {
    indent(out, depth);
    append_start_tag(out, tag, !is_xml_text(content));
    append_content(out, content);
    append_end_tag(out, tag);
    out += '\n';
}

void append_open(std::string &out, std::string_view tag, std::string_view content, int depth) {
    indent(out, depth);
    append_start_tag(out, tag, !is_xml_text(content));
    append_content(out, content);
    out += '\n';
}

void append_close(std::string &out, std::string_view tag, int depth) {
    indent(out, depth);
    append_end_tag(out, tag);
    out += '\n';
}

void document::markup(std::string_view text) {
    if (pieces_.empty() || !pieces_.back().content.empty()) pieces_.emplace_back();
    pieces_.back().markup += text;
    size_ += text.size();
}

void document::content(std::string_view text) {
    if (text.empty()) return;
    if (pieces_.empty() || !pieces_.back().content.empty()) pieces_.emplace_back();
    piece &p = pieces_.back();
    p.content = text;
    p.base64 = !is_xml_text(text);
    size_ += p.base64 ? (text.size() + 2) / 3 * 4 : escaped_size(text);
}

void document::start(std::string_view tag, std::string_view text, int depth) {
    std::string m;
    indent(m, depth);
    append_start_tag(m, tag, !is_xml_text(text));
    markup(m);
    content(text);
}

void document::leaf(std::string_view tag, std::string_view text, int depth) {
    start(tag, text, depth);
    std::string m;
    append_end_tag(m, tag);
    m += '\n';
    markup(m);
}

void document::open(std::string_view tag, std::string_view text, int depth) {
    start(tag, text, depth);
    markup("\n");
}

void document::close(std::string_view tag, int depth) {
    std::string m;
    append_close(m, tag, depth);
    markup(m);
}

// Puts the next slice of the document into staged_; false at the end.
bool document::stage() {
    // Slices of 48 KiB encode to at most 64 KiB of base64 or 288 KiB of
    // escaped text (every byte a quote).
    constexpr std::size_t slice = 49152;
    staged_.clear();
    staged_sent_ = 0;
    while (next_ < pieces_.size()) {
        piece &p = pieces_[next_];
        if (!markup_staged_) {
            markup_staged_ = true;
            staged_.swap(p.markup);
            std::string().swap(p.markup);
            if (!staged_.empty()) return true;
        }
        if (content_staged_ < p.content.size()) {
            std::string_view part = p.content.substr(content_staged_, slice);
            content_staged_ += part.size();
            if (p.base64) append_base64(staged_, part);
            else append_escaped_text(staged_, part);
            return true;
        }
        ++next_;
        markup_staged_ = false;
        content_staged_ = 0;
    }
    return false;
}

std::size_t document::read(char *buf, std::size_t max) {
    std::size_t n = 0;
    while (n < max) {
        if (staged_sent_ == staged_.size() && !stage()) break;
        std::size_t k = std::min(max - n, staged_.size() - staged_sent_);
        staged_.copy(buf + n, k, staged_sent_);
        staged_sent_ += k;
        n += k;
    }
    return n;
}

std::string error_document(int http_status, std::string_view message) {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<error>\n";
    append_leaf(out, "status", std::to_string(http_status), 1);
    append_leaf(out, "message", message, 1);
    out += "</error>\n";
    return out;
}

}  // namespace cmdserver
