// Test support of the transfer tests: configuration variables through the
// simulated host's configuration file.
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

