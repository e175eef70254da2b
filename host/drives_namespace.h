// --drives DIR for the hosts: a private mount namespace (and, when not root,
// a user namespace mapping the caller to root) in which the machine is
// read-only, home folders are hidden, /tmp and /opt/vtrhttpd are tmpfs and
// DIR is bound (writable) at /opt/vtrhttpd/localhost.drives.
#pragma once

#include <string>
#include <vector>

namespace host {

// The first pass re-executes the program (argv as given) through unshare(1)
// and does not return on success; the second pass (VTR_HOST_NAMESPACE set)
// does the mounts and returns 0. -1 on failure, reason printed with program.
// keep: files or folders the host still needs (the program's own folder and
// the configuration file are kept anyway): bound back, read-only, when
// a hidden folder or the private /tmp covers them.
int enter_drives_namespace(const std::string &dir, char **argv, const char *program,
                           const std::vector<std::string> &keep = {});

// Changes to the hosts' working directory: VTR_HOST_WORKDIR (the private
// folder the sandbox and --drives make) when set, else "/".
void enter_work_directory(const char *program);

}  // namespace host
