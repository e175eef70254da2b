// Unit test helpers: requests, answers as trees, files, folder trees, a framework-pipe reader. Tests on the fixed
// paths skip outside tests/sandbox.sh.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"
#include "plugin/commands.h"

extern "C" int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(CommandRequest *, void *, void *,
                                                                       VantorXmlNode);

// Results compared with the integers the host would report.
namespace base {
inline bool operator==(rc r, int v) { return to_host(r) == v; }
inline void PrintTo(rc r, std::ostream *out) { *out << to_host(r); }
}  // namespace base

namespace tu {

namespace fs = std::filesystem;
inline const std::string drives_root = "/opt/vtrhttpd/localhost.drives";

#define REQUIRE_SANDBOX() \
    if (const char *v = std::getenv("VTR_SANDBOX"); v == nullptr || std::strcmp(v, "1") != 0) GTEST_SKIP()

inline std::string read_file(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}
inline void write_file(const std::string &path, const std::string &content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}
inline bool exists(const std::string &path) { return fs::exists(fs::symlink_status(path)); }
inline void make_sparse(const std::string &path, long long size) {
    std::ofstream(path, std::ios::binary).flush();
    fs::resize_file(path, static_cast<std::uintmax_t>(size));
}

// A request holding the words: CommandArgs is a 32-bit count, then the pointers (aligned as pointers).
struct request {
    std::vector<std::string> words;
    std::vector<char *> block;
    CommandRequest value{};
    explicit request(std::vector<std::string> w) : words(std::move(w)), block(words.size() + 2) {
        auto *args = reinterpret_cast<CommandArgs *>(block.data());
        args->argc = static_cast<int32_t>(words.size());
        for (std::size_t i = 0; i < words.size(); ++i) args->argv[i] = words[i].data();
        value.args = args;
    }
};

struct answer {
    int32_t result = -1;
    vtrsim::xml_node *root = vtrsim::new_root("response");
    answer() = default;
    answer(answer &&o) noexcept : result(o.result), root(std::exchange(o.root, nullptr)) {}
    ~answer() { if (root != nullptr) vtrsim::free_tree(root); }
    std::string xml() const { return vtrsim::to_xml(root); }
    std::string text(const char *tag) const { return vtrsim::child_text(root, tag); }
    bool has(const char *tag) const { return vtrsim::child(root, tag) != nullptr; }
    std::vector<vtrsim::xml_node *> files() const {
        const vtrsim::xml_node *l = vtrsim::child(root, "fileList");
        return l != nullptr ? l->children : std::vector<vtrsim::xml_node *>{};
    }
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const vtrsim::xml_node *f : files()) out.push_back(vtrsim::child_text(f, "name"));
        return out;
    }
    const vtrsim::xml_node *file(const std::string &name) const {
        for (const vtrsim::xml_node *f : files())
            if (vtrsim::child_text(f, "name") == name) return f;
        return nullptr;
    }
};

// Runs a sub-command through the plug-in's dispatch table.
inline answer run(std::vector<std::string> words) {
    request r(std::move(words));
    answer a;
    VantorXmlNode slot = a.root;
    a.result = plugin::dispatch(plugin::file_operation_commands(), &slot, &r.value);
    return a;
}

// A folder under the drives root (or any absolute path), removed at both ends.
struct drive_tree {
    std::string root;
    explicit drive_tree(const std::string &name) : root(name[0] == '/' ? name : drives_root + "/" + name) {
        fs::remove_all(root);
        fs::create_directories(root);
    }
    ~drive_tree() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::string at(const std::string &rel) const { return root + "/" + rel; }
    void dir(const std::string &rel) const { fs::create_directories(at(rel)); }
    void file(const std::string &rel, const std::string &text = "x") const { write_file(at(rel), text); }
};

// The framework pipe with a reader. wait_for(marker): every line so far, waiting up to 30 s for one holding marker.
struct event_pipe {
    static constexpr const char *path = "/tmp/vtr_framework_pipe";
    int fd = (::unlink(path), ::mkfifo(path, 0600), ::open(path, O_RDONLY | O_NONBLOCK));
    std::string text;
    ~event_pipe() { ::close(fd), ::unlink(path); }
    std::vector<std::string> wait_for(const std::string &marker) {
        char buffer[65536];
        for (int i = 0; i < 3000 && text.find(marker) == std::string::npos; ++i)
            if (ssize_t n = ::read(fd, buffer, sizeof buffer); n > 0) text.append(buffer, static_cast<std::size_t>(n));
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::vector<std::string> lines;
        for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            lines.push_back(text.substr(at, end + 1 - at));
        return lines;
    }
};

}  // namespace tu
