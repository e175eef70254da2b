// vtr-host: loads the file_operation plug-in the way the player's command
// server does and feeds it requests from the command line or from standard
// input.
//
//   vtr-host [--plugin PATH] [--config FILE] [--drives DIR] run SUBCOMMAND ARG...
//   vtr-host [options] serve-stdio
//   vtr-host [options] describe
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "host/drives_namespace.h"
#include "host/plugin_loader.h"
#include "host/sim/xml_tree.h"
#include "host/watch.h"
#include "platform/host_api.h"

namespace {

FILE *protocol = stdout;  // the host's own output; the plug-in's printf goes to stderr

void usage() {
    std::fprintf(stderr,
                 "usage: vtr-host [--plugin PATH] [--config FILE] [--drives DIR] COMMAND\n"
                 "commands:\n"
                 "  run SUBCOMMAND [ARG...]  one request; prints \"result: N\" and the answer XML\n"
                 "  serve-stdio              one request per input line (JSON array of strings),\n"
                 "                           one JSON answer line each\n"
                 "  describe                 the descriptor the plug-in's factory filled in\n"
                 "  watch [--until-end]      progress bars of the batch threads' events\n");
}

std::string absolute(const std::string &p) {
    if (p.empty() || p[0] == '/') return p;
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return p;
    return std::string(cwd) + "/" + p;
}

struct answer {
    int32_t result;
    vtrsim::xml_node *tree;
};

answer run_request(const host::loaded_plugin &p, const std::vector<std::string> &words) {
    vtrsim::xml_node *root = vtrsim::new_root("response");
    return {host::run_plugin(p, words, root), root};
}

void print_describe(const host::loaded_plugin &p) {
    const CommandDescriptor &d = p.descriptor;
    using host::host_marker;
    bool untouched = d.host_word0 == host_marker && d.host_word36 == host_marker &&
                     d.host_word44 == host_marker && d.host_word48 == host_marker;
    std::fprintf(protocol, "name: %.*s\n", static_cast<int>(sizeof d.name), d.name);
    std::fprintf(protocol, "value40: %d\nvalue52: %d\nvalue56: %d\nvalue60: %d\n", d.value40, d.value52,
                 d.value56, d.value60);
    std::fprintf(protocol, "run: %s\n", d.run == p.exported_run ? "exported run entry" : "other");
    std::fprintf(protocol, "host words: %s\n", untouched ? "untouched" : "changed");
}

// ---- the serve-stdio protocol: one JSON array of strings per line ----

struct json_reader {
    const std::string &s;
    std::size_t i = 0;
    std::string error;

    void skip_space() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n')) ++i;
    }
    bool fail(const char *what) {
        if (error.empty()) error = std::string(what) + " at offset " + std::to_string(i);
        return false;
    }
    bool hex4(unsigned &out) {
        if (i + 4 > s.size()) return fail("short \\u escape");
        out = 0;
        for (int k = 0; k < 4; ++k) {
            char c = s[i++];
            out <<= 4;
            if (c >= '0' && c <= '9') out |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f') out |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') out |= static_cast<unsigned>(c - 'A' + 10);
            else return fail("bad \\u escape");
        }
        return true;
    }
    // One raw UTF-8 character of the line as a code point.
    bool utf8(unsigned &cp) {
        auto c = static_cast<unsigned char>(s[i]);
        int extra = c < 0x80 ? 0 : (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : -1;
        if (extra < 0 || i + static_cast<std::size_t>(extra) >= s.size()) return fail("invalid UTF-8");
        cp = extra == 0 ? c : c & (0x3f >> extra);
        for (int k = 1; k <= extra; ++k) {
            auto d = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
            if ((d & 0xc0) != 0x80) return fail("invalid UTF-8");
            cp = (cp << 6) | (d & 0x3f);
        }
        i += static_cast<std::size_t>(extra) + 1;
        return true;
    }
    bool string(std::string &out) {
        if (i >= s.size() || s[i] != '"') return fail("expected a string");
        ++i;
        for (;;) {
            if (i >= s.size()) return fail("unterminated string");
            unsigned cp = 0;
            char c = s[i];
            if (c == '"') {
                ++i;
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) return fail("control character in string");
            if (c == '\\') {
                if (++i >= s.size()) return fail("unterminated escape");
                char e = s[i++];
                switch (e) {
                case '"': cp = '"'; break;
                case '\\': cp = '\\'; break;
                case '/': cp = '/'; break;
                case 'b': cp = '\b'; break;
                case 'f': cp = '\f'; break;
                case 'n': cp = '\n'; break;
                case 'r': cp = '\r'; break;
                case 't': cp = '\t'; break;
                case 'u':
                    if (!hex4(cp)) return false;
                    break;
                default: --i; return fail("unknown escape");
                }
            } else if (!utf8(cp)) {
                return false;
            }
            if (cp == 0) return fail("NUL cannot be sent");
            if (cp > 255) return fail("code point above 255");
            out += static_cast<char>(cp);
        }
    }
    bool array(std::vector<std::string> &out) {
        skip_space();
        if (i >= s.size() || s[i] != '[') return fail("expected [");
        ++i;
        skip_space();
        if (i < s.size() && s[i] == ']') {
            ++i;
        } else {
            for (;;) {
                skip_space();
                std::string item;
                if (!string(item)) return false;
                out.push_back(std::move(item));
                skip_space();
                if (i < s.size() && s[i] == ',') {
                    ++i;
                    continue;
                }
                if (i < s.size() && s[i] == ']') {
                    ++i;
                    break;
                }
                return fail("expected , or ]");
            }
        }
        skip_space();
        if (i != s.size()) return fail("text after the array");
        return true;
    }
};

int serve_stdio(const host::loaded_plugin &p) {
    char *line = nullptr;
    size_t cap = 0;
    ssize_t len;
    while ((len = ::getline(&line, &cap, stdin)) >= 0) {
        std::string text(line, static_cast<std::size_t>(len));
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        std::vector<std::string> words;
        json_reader reader{text, 0, {}};
        std::string out;
        if (!reader.array(words)) {
            out = "{\"error\": " + vtrsim::json_quote(reader.error) + "}";
        } else if (words.empty()) {
            out = "{\"error\": \"empty request\"}";
        } else if (words.size() == 1 && words[0] == "vtr-host:stats") {
            out = "{\"stats\": {\"live_nodes\": " + std::to_string(vtrsim::live_nodes()) +
                  ", \"orphan_nodes\": " + std::to_string(vtrsim::orphan_nodes()) + "}}";
        } else {
            answer a = run_request(p, words);
            out = "{\"result\": " + std::to_string(a.result) + ", \"answer\": " + vtrsim::to_json(a.tree) + "}";
            vtrsim::free_tree(a.tree);
        }
        out += '\n';
        std::fwrite(out.data(), 1, out.size(), protocol);
        std::fflush(protocol);
        std::fflush(stdout);
    }
    std::free(line);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string plugin_path, drives;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--plugin" || a == "--config" || a == "--drives") && i + 1 < argc) {
            std::string v = argv[++i];
            if (a == "--plugin") plugin_path = absolute(v);
            else if (a == "--config") ::setenv("VTR_CONFIG", absolute(v).c_str(), 1);
            else drives = absolute(v);
        } else if (a == "-h" || a == "--help") {
            usage();
            return 0;
        } else if (a.rfind("--", 0) == 0) {
            usage();
            return 2;
        } else {
            break;
        }
    }
    if (i >= argc) {
        usage();
        return 2;
    }
    std::string command = argv[i++];
    if (command == "watch") return host::run_watch(argc - i + 1, argv + i - 1);
    if (command != "run" && command != "serve-stdio" && command != "describe") {
        usage();
        return 2;
    }
    if (command == "run" && i >= argc) {
        usage();
        return 2;
    }
    if (!drives.empty() && host::enter_drives_namespace(drives, argv, "vtr-host", {plugin_path}) != 0) return 1;
    if (plugin_path.empty()) plugin_path = host::default_plugin_path();

    // The host's own output keeps the original standard output; whatever
    // the plug-in prints goes to standard error.
    int out_fd = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
    if (out_fd >= 0 && ::dup2(2, 1) >= 0) {
        protocol = ::fdopen(out_fd, "w");
        if (protocol == nullptr) return 1;
    }
    host::enter_work_directory("vtr-host");

    host::loaded_plugin p;
    std::string error;
    if (!host::load_plugin(plugin_path.c_str(), p, error)) {
        std::fprintf(stderr, "vtr-host: cannot load %s: %s\n", plugin_path.c_str(), error.c_str());
        return 1;
    }

    int status = 0;
    if (command == "describe") {
        print_describe(p);
    } else if (command == "run") {
        std::vector<std::string> words(argv + i, argv + argc);
        answer a = run_request(p, words);
        std::fprintf(protocol, "result: %d\n%s\n", a.result, vtrsim::to_xml(a.tree).c_str());
        vtrsim::free_tree(a.tree);
    } else {
        status = serve_stdio(p);
    }
    std::fflush(stdout);
    std::fflush(protocol);
    return status;
}
