// Test support of the transfer tests: configuration variables through the
// simulated host's configuration file, and a stand-in for the disc
// detection of the media module (weak: the real one wins when linked).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "transfer_test_support.h"

namespace test_support {

void set_var(const std::string &name, const std::string &value) {
    const char *env = std::getenv("VTR_CONFIG");
    const std::string file = env != nullptr ? env : "/opt/vtrhttpd/default/vtr.conf";
    std::vector<std::string> kept;
    {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line))
            if (line.compare(0, name.size() + 1, name + "=") != 0) kept.push_back(line);
    }
    if (!value.empty()) kept.push_back(name + "=" + value);
    ::mkdir("/opt/vtrhttpd/default", 0755);
    std::ofstream out(file, std::ios::trunc);
    for (const auto &l : kept) out << l << "\n";
}

}  // namespace test_support

// The disc detection belongs to the media module; this stand-in knows the
// Blu-ray movie marker only.
extern "C" __attribute__((weak)) unsigned vantor_command_server_cdtypedetection(const char *folder) {
    std::string marker = std::string(folder) + "/BDMV/index.bdmv";
    return ::access(marker.c_str(), R_OK) == 0 ? 1 : 0;
}
