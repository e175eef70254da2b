// Shared pieces of the fuzz targets: the sandbox guard, a small drive tree
// and the response element with its node-leak check.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"

namespace fuzz {

inline constexpr const char *drives = "/opt/vtrhttpd/localhost.drives";
// Every path a target hands to a destructive command lies below this drive.
inline constexpr const char *scratch_drive = "/opt/vtrhttpd/localhost.drives/FUZZ_DRIVE-1";

// The targets write below /opt/vtrhttpd and /tmp: refuse to run anywhere
// but inside tests/sandbox.sh.
void require_sandbox() noexcept;

// (Re)creates the scratch drive: a few folders, files of several types, a
// disc folder and an empty file. Anything the previous input created below
// it is removed first.
void reset_scratch_drive() noexcept;

// Writes bytes to a file (created or truncated); false on failure.
bool write_file(const char *path, const void *data, std::size_t size) noexcept;

// One response element per input; on destruction the tree is freed and the
// node registry must be back where it was (a node created but never
// appended, or appended under a freed tree, is a leak).
class response {
public:
    response() noexcept;
    ~response();
    response(const response &) = delete;
    response &operator=(const response &) = delete;
    VantorXmlNode node() const noexcept { return root_; }
    VantorXmlNode *slot() noexcept { return &root_; }

private:
    VantorXmlNode root_;
    std::size_t live_before_;
};

}  // namespace fuzz
