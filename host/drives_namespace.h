// --drives DIR for the hosts: a private mount namespace (and, when not root,
// a user namespace mapping the caller to root) with a tmpfs on /opt/vtrhttpd
// and DIR bound at /opt/vtrhttpd/localhost.drives.
#pragma once

#include <string>

namespace host {

// The first pass re-executes the program (argv as given) through unshare(1)
// and does not return on success; the second pass (VTR_HOST_NAMESPACE set)
// does the mounts and returns 0. -1 on failure, reason printed with program.
int enter_drives_namespace(const std::string &dir, char **argv, const char *program);

}  // namespace host
