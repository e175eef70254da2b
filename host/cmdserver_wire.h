// The wire format of the HTTP front end: request targets in, XML answer
// documents out. Pure text functions, no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace cmdserver {

// A request target "/<group>/<sub-command>?<p1>&<p2>..." taken apart.
struct call_target {
    std::string group;
    std::string command;
    std::vector<std::string> args;  // parameters in order, decoded
};

// Percent-decodes text: "%XX" gives the byte XX, "+" a blank when
// plus_is_space. Fails (false, reason in error) on a malformed escape and
// on "%00", which no parameter text can hold.
bool percent_decode(std::string_view in, bool plus_is_space, std::string &out,
                    std::string &error);

// Splits a form-encoded parameter list ("a=1&b=&c") into decoded values in
// order: every "&"-separated item is one parameter; in "label=value" the label
// is ignored, an item without "=" is its own value. An empty text gives none.
bool parse_parameters(std::string_view query, std::vector<std::string> &out, std::string &error);

enum class target_kind { call, group_only, other };

// Takes the raw request target (path and query, as received) apart.
// Returns the HTTP status for a malformed target (400), else 0; kind tells a
// plug-in call from a bare group path and from anything else (the path is
// then left decoded in target.group).
int parse_target(std::string_view raw, call_target &target, target_kind &kind, std::string &error);

// True when the bytes can stand in XML 1.0 character data as they are
// (after escaping markup): valid UTF-8 without NUL, control characters other
// than tab, line feed and carriage return, surrogates, U+FFFE or U+FFFF.
bool is_xml_text(std::string_view bytes) noexcept;

bool is_xml_name(std::string_view name) noexcept;

void append_base64(std::string &out, std::string_view bytes);

// Appends <tag>content</tag> (or <tag encoding="base64">...</tag> when the
// content is not XML text), indented by depth levels, with a line feed.
void append_leaf(std::string &out, std::string_view tag, std::string_view content, int depth);
// Opening and closing tags of an element with children.
void append_open(std::string &out, std::string_view tag, std::string_view content, int depth);
void append_close(std::string &out, std::string_view tag, int depth);

// An answer document kept as markup and references to element contents:
// a content is encoded (escaped or base64) only while the document is sent,
// a slice at a time, so a large file read is never held a second time. The
// referenced contents must outlive the document.
class document {
public:
    void markup(std::string_view text);
    // As append_leaf, append_open and append_close.
    void leaf(std::string_view tag, std::string_view content, int depth);
    void open(std::string_view tag, std::string_view content, int depth);
    void close(std::string_view tag, int depth);

    uint64_t size() const noexcept { return size_; }
    // Copies the next bytes of the document into buf; 0 once all were read.
    std::size_t read(char *buf, std::size_t max);

private:
    struct piece {
        std::string markup;        // sent first
        std::string_view content;  // then this, encoded
        bool base64 = false;
    };
    void content(std::string_view text);
    // The start tag at depth and the element's own text.
    void start(std::string_view tag, std::string_view text, int depth);
    bool stage();

    std::vector<piece> pieces_;
    uint64_t size_ = 0;
    std::size_t next_ = 0;          // piece being sent
    bool markup_staged_ = false;
    std::size_t content_staged_ = 0;  // bytes of its content encoded so far
    std::string staged_;
    std::size_t staged_sent_ = 0;
};

// The whole document for a failed request: <error><status>..</status><message>..</message></error>.
std::string error_document(int http_status, std::string_view message);

}  // namespace cmdserver
