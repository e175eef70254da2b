#include "host/sim/config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vtrsim {
namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

bool path_under(std::string_view path, std::string_view prefix) {
    while (prefix.size() > 1 && prefix.back() == '/') prefix.remove_suffix(1);
    if (prefix.empty() || path.substr(0, prefix.size()) != prefix) return false;
    return path.size() == prefix.size() || path[prefix.size()] == '/' || prefix == "/";
}

// Appends the share-relative part of an address to the share's folder with
// "." and ".." resolved; nothing when ".." climbs out of the share.
std::optional<std::string> append_inside(std::string local, std::string_view rest) {
    const std::size_t base = local.size();
    while (!rest.empty()) {
        std::size_t slash = rest.find('/', 1);
        std::string_view part = rest.substr(0, slash);  // with its leading '/'
        rest.remove_prefix(part.size());
        if (part == "/..") {
            if (local.size() == base) return std::nullopt;
            local.erase(local.rfind('/'));
        } else if (part != "/." && (part != "/" || rest.empty())) {
            local += part;
        }
    }
    return local;
}

}  // namespace

std::string config_path() {
    const char *env = std::getenv("VTR_CONFIG");
    return env != nullptr && env[0] != '\0' ? env : default_config_path;
}

std::optional<std::string> config_value(std::string_view name) {
    std::string path = config_path();
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr) return std::nullopt;
    std::optional<std::string> value;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t len;
    while ((len = ::getline(&line, &cap, f)) >= 0) {
        std::string_view l(line, static_cast<std::size_t>(len));
        while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.remove_suffix(1);
        std::string_view t = trim(l);
        if (t.empty() || t.front() == '#') continue;
        std::size_t eq = l.find('=');
        if (eq == std::string_view::npos) continue;
        if (trim(l.substr(0, eq)) == name) value = std::string(l.substr(eq + 1));
    }
    std::free(line);
    std::fclose(f);
    return value;
}

std::vector<std::string> fat_paths() {
    std::vector<std::string> out;
    std::optional<std::string> v = config_value("vtrsim_fat_paths");
    if (!v) return out;
    std::string_view s = *v;
    while (!s.empty()) {
        std::size_t colon = s.find(':');
        std::string_view item = trim(s.substr(0, colon));
        if (!item.empty()) out.emplace_back(item);
        if (colon == std::string_view::npos) break;
        s.remove_prefix(colon + 1);
    }
    return out;
}

bool under_fat_path(std::string_view path) {
    for (const std::string &p : fat_paths())
        if (path_under(path, p)) return true;
    return false;
}

std::optional<std::string> map_share_url(std::string_view address) {
    std::size_t scheme = address.find("://");
    if (scheme == std::string_view::npos) return std::nullopt;
    std::size_t host_end = address.find('/', scheme + 3);
    if (host_end == std::string_view::npos || host_end == scheme + 3) return std::nullopt;
    std::size_t share_end = address.find('/', host_end + 1);
    if (share_end == std::string_view::npos) share_end = address.size();
    if (share_end == host_end + 1) return std::nullopt;  // no share name
    std::string_view share = address.substr(0, share_end);
    std::string_view rest = address.substr(share_end);
    char key[32];
    for (int n = 0; n < share_slots; ++n) {
        std::snprintf(key, sizeof key, "netfs_url%d", n);
        std::optional<std::string> url = config_value(key);
        if (!url) continue;
        std::string_view u = *url;
        while (u.size() > 1 && u.back() == '/') u.remove_suffix(1);
        if (u != share) continue;
        std::snprintf(key, sizeof key, "netfs_name%d", n);
        std::optional<std::string> name = config_value(key);
        if (!name || name->empty()) continue;
        std::string local = network_share_root;
        local += '/';
        local += *name;
        return append_inside(local, rest);
    }
    return std::nullopt;
}

}  // namespace vtrsim
