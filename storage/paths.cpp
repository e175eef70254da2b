#include "storage/paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host_api.h"

namespace storage {
namespace {

// The path as the player once copied it through the C library's formatter:
// a doubled percent sign becomes one, everything else is taken literally.
bool copy_collapsing_percent(base::path_buffer &out, const char *in) noexcept {
    std::size_t o = 0;
    for (std::size_t i = 0; in[i] != '\0'; ++i) {
        if (in[i] == '%' && in[i + 1] == '%') ++i;
        if (o + 1 >= base::path_max) return false;
        out[o++] = in[i];
    }
    out[o] = '\0';
    return true;
}

int64_t reserved_area_used_bytes() noexcept {
    // A fixed command line without client text.
    char command[64];
    if (!base::format_into(command, "du -sL 2> /dev/null %.*s", static_cast<int>(reserved_area.size()),
                           reserved_area.data()))
        return 0;
    FILE *pipe = ::popen(command, "r");
    if (pipe == nullptr) return 0;
    long long kib = 0;
    if (std::fscanf(pipe, "%lld", &kib) != 1) kib = 0;
    ::pclose(pipe);
    return static_cast<int64_t>(kib) * 1024;
}

bool is_under(std::string_view path, std::string_view root) noexcept {
    return path.substr(0, root.size()) == root && (path.size() == root.size() || path[root.size()] == '/');
}

// "." and ".." of an absolute path resolved as text ("/.." stays "/").
bool normalise_lexically(base::path_buffer &out, const char *path) noexcept {
    std::size_t o = 0;  // length of out so far; 0 stands for "/"
    for (const char *p = path; *p != '\0';) {
        while (*p == '/') ++p;
        const char *end = p;
        while (*end != '\0' && *end != '/') ++end;
        const std::string_view part(p, static_cast<std::size_t>(end - p));
        p = end;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            while (o > 0 && out[--o] != '/') {
            }
            continue;
        }
        if (o + 1 + part.size() >= base::path_max) return false;
        out[o++] = '/';
        std::memcpy(out + o, part.data(), part.size());
        o += part.size();
    }
    if (o == 0) out[o++] = '/';
    out[o] = '\0';
    return true;
}

// The drives root with its links resolved (the literal root when it does
// not exist).
void real_drives_root(base::path_buffer &out) noexcept {
    if (::realpath(drives_root.data(), out) == nullptr) base::copy_text(out, drives_root);
}

// The longest existing part of path, resolved through its links, lies
// inside the drives root.
bool resolves_inside(const char *path) noexcept {
    base::path_buffer root;
    real_drives_root(root);
    base::path_buffer part;
    if (!base::copy_text(part, path)) return false;
    for (;;) {
        base::path_buffer resolved;
        if (::realpath(part, resolved) != nullptr) return is_under(resolved, root);
        if (errno != ENOENT && errno != ENOTDIR) return false;
        char *slash = std::strrchr(part, '/');
        if (slash == nullptr) return false;
        if (slash == part) {
            if (part[1] == '\0') return false;
            part[1] = '\0';
        } else {
            *slash = '\0';
        }
    }
}

}  // namespace

bool confinement_enabled() noexcept {
    base::unique_malloc<char> value(get_var_mem(confine_variable));
    if (value == nullptr) return false;
    const char *v = value.get();
    return base::iequals(v, "1") || base::iequals(v, "true") || base::iequals(v, "yes") ||
           base::iequals(v, "on");
}

bool path_inside_drives(const char *path) noexcept {
    if (path == nullptr || path[0] != '/') return false;
    base::path_buffer lexical;
    if (!normalise_lexically(lexical, path) || !is_under(lexical, drives_root)) return false;
    return resolves_inside(path);
}

bool path_allowed(const char *path) noexcept { return !confinement_enabled() || path_inside_drives(path); }

bool link_leads_out(const char *path) noexcept {
    struct stat st;
    if (path == nullptr || ::lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) return false;
    base::path_buffer root;
    real_drives_root(root);
    base::path_buffer resolved;
    return ::realpath(path, resolved) == nullptr || !is_under(resolved, root);
}

int32_t translate_storage_path(base::path_buffer &path) noexcept {
    base::path_buffer scratch{};
    if (base::is_network_address(path)) {
        char *local = vtr_get_smb_nfs_network_url(path, 5);
        if (local == nullptr) return untranslatable;
        bool fits = std::strlen(local) < base::path_max && path_allowed(local);
        if (fits) std::memcpy(path, local, std::strlen(local) + 1);
        std::free(local);
        return fits ? network_path : untranslatable;
    }
    if (std::strncmp(path, drives_root.data(), drives_root.size()) == 0) {
        if (!copy_collapsing_percent(scratch, path)) return untranslatable;
    } else {
        const char *separator = path[0] == '/' ? "" : "/";
        if (!base::format_into(scratch, "%.*s%s%s", static_cast<int>(drives_root.size()), drives_root.data(),
                               separator, path))
            return untranslatable;
    }
    if (!path_allowed(scratch)) return untranslatable;
    std::memcpy(path, scratch, std::strlen(scratch) + 1);
    return local_path;
}

bool load_path(base::path_buffer &buffer, const char *argument) noexcept {
    if (argument == nullptr) {
        buffer[0] = '\0';
        return false;
    }
    return base::copy_text(buffer, argument);
}

int32_t load_and_translate(base::path_buffer &buffer, const char *argument) noexcept {
    if (!load_path(buffer, argument)) return untranslatable;
    return translate_storage_path(buffer);
}

const char *resolve_network_address(const char *argument, base::unique_malloc<char> &holder) noexcept {
    if (!base::is_network_address(argument)) return path_allowed(argument) ? argument : nullptr;
    holder.reset(vtr_get_smb_nfs_network_url(argument, 5));
    if (holder != nullptr && !path_allowed(holder.get())) holder.reset();
    return holder.get();
}

const char *resolve_first_argument(const CommandRequest *request, base::unique_malloc<char> &holder) noexcept {
    if (request == nullptr || request->args == nullptr || request->args->argc < 2) return nullptr;
    const char *argument = request->args->argv[1];
    return argument != nullptr ? resolve_network_address(argument, holder) : nullptr;
}

int64_t partition_free_bytes(const char *path) noexcept {
    long long space[3] = {0, 0, 0};
    // A drive whose figures cannot be read has no room.
    if (get_partition_free_space(path, space) != 1) return 0;
    return space[0];
}

int32_t check_free_space(uint32_t needed, const char *path) noexcept {
    if (path == nullptr) return 1;
    int64_t free_bytes = 0;
    if (std::strncmp(path, reserved_area.data(), reserved_area.size()) == 0) {
        int64_t used = reserved_area_used_bytes();
        free_bytes = used >= reserved_quota ? 0 : reserved_quota - used;
    } else {
        free_bytes = partition_free_bytes(path);
    }
    return free_bytes < static_cast<int64_t>(needed) ? 1 : 0;
}

}  // namespace storage
