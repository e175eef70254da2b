// Shared pieces of the fuzz targets: the sandbox guard, file writing and the response element with its node-leak
// check.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"

namespace fuzz {

inline void require_sandbox() noexcept {
    if (const char *inside = std::getenv("VTR_SANDBOX"); inside == nullptr || std::strcmp(inside, "1") != 0)
        std::fputs("fuzz targets write below /opt/vtrhttpd and /tmp: run them inside tests/sandbox.sh\n", stderr), std::_Exit(2);
}

inline bool write_file(const char *path, const void *data, std::size_t size) noexcept {
    int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && ::write(fd, data, size) == static_cast<ssize_t>(size);
    if (fd >= 0) ::close(fd);
    return ok;
}

// One response element per input; on destruction the tree is freed and the node registry must be back where it was
// (an orphan node is a leak).
class response {
public:
    response() noexcept : root_(vtrsim::new_root()), live_before_(vtrsim::live_nodes() - 1) {}
    ~response() {
        vtrsim::free_tree(static_cast<vtrsim::xml_node *>(root_));
        std::size_t orphans = vtrsim::free_orphans(), live = vtrsim::live_nodes();
        if (orphans != 0 || live != live_before_)
            std::fprintf(stderr, "XML node leak: %zu orphan(s), %zu live, %zu before\n", orphans, live, live_before_), std::abort();
    }
    response(const response &) = delete;
    VantorXmlNode node() const noexcept { return root_; }
    VantorXmlNode *slot() noexcept { return &root_; }

private:
    VantorXmlNode root_;
    std::size_t live_before_;
};

}  // namespace fuzz
