// Helpers of the search and file index tests: requests, answers as trees,
// and folder trees under the drives root (inside tests/sandbox.sh only).
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"
#include "plugin/commands.h"

namespace search_fixtures {

inline bool in_sandbox() {
    const char *v = std::getenv("VTR_SANDBOX");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

#define REQUIRE_SANDBOX()                                                       \
    do {                                                                        \
        if (!search_fixtures::in_sandbox()) {                                  \
            GTEST_SKIP() << "needs tests/sandbox.sh";                          \
        }                                                                       \
    } while (0)

struct answer {
    int32_t result = -1;
    vtrsim::xml_node *root = nullptr;
    answer() = default;
    answer(const answer &) = delete;
    answer &operator=(const answer &) = delete;
    answer(answer &&o) noexcept : result(o.result), root(o.root) { o.root = nullptr; }
    ~answer() {
        if (root != nullptr) vtrsim::free_tree(root);
    }
    std::string xml() const { return vtrsim::to_xml(root); }
    const vtrsim::xml_node *list() const { return vtrsim::child(root, "fileList"); }
    std::string text(const char *tag) const { return vtrsim::child_text(root, tag); }
    bool has(const char *tag) const { return vtrsim::child(root, tag) != nullptr; }
    // Names of the listed entries, in answer order.
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        if (const vtrsim::xml_node *l = list())
            for (const vtrsim::xml_node *f : l->children) out.push_back(vtrsim::child_text(f, "name"));
        return out;
    }
    const vtrsim::xml_node *file(const std::string &name) const {
        if (const vtrsim::xml_node *l = list())
            for (const vtrsim::xml_node *f : l->children)
                if (vtrsim::child_text(f, "name") == name) return f;
        return nullptr;
    }
};

// Runs a sub-command through the plug-in's dispatch table.
inline answer run(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    auto block = std::unique_ptr<char[]>(new char[sizeof(CommandArgs) + argv.size() * sizeof(char *)]);
    auto *ca = reinterpret_cast<CommandArgs *>(block.get());
    ca->argc = static_cast<int32_t>(argv.size());
    for (std::size_t i = 0; i < argv.size(); ++i) ca->argv[i] = argv[i];
    CommandRequest request{0, 0, ca};
    answer a;
    a.root = vtrsim::new_root("response");
    VantorXmlNode slot = a.root;
    a.result = plugin::dispatch(plugin::file_operation_commands(), &slot, &request);
    return a;
}

// A folder under the drives root, removed with everything in it at the end.
class drive_tree {
public:
    explicit drive_tree(const std::string &name) : root_("/opt/vtrhttpd/localhost.drives/" + name) {
        remove();
        ::mkdir(root_.c_str(), 0755);
    }
    ~drive_tree() { remove(); }
    const std::string &root() const { return root_; }
    std::string at(const std::string &rel) const { return root_ + "/" + rel; }
    void dir(const std::string &rel) const { ASSERT_EQ(::mkdir(at(rel).c_str(), 0755), 0) << rel; }
    void file(const std::string &rel, const std::string &text = "x") const {
        int fd = ::open(at(rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << rel;
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    }
    void remove() const {
        std::string cmd = "rm -rf '" + root_ + "'";
        if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << cmd;
    }

private:
    std::string root_;
};

}  // namespace search_fixtures
