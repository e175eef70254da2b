#include "storage/paths.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host_api.h"

namespace storage {
namespace {

// The path as the player once copied it through the C library's formatter:
// a doubled percent sign becomes one, everything else is taken literally.
bool copy_collapsing_percent(plugin::path_buffer &out, const char *in) noexcept {
    std::size_t o = 0;
    for (std::size_t i = 0; in[i] != '\0'; ++i) {
        if (in[i] == '%' && in[i + 1] == '%') ++i;
        if (o + 1 >= plugin::path_max) return false;
        out[o++] = in[i];
    }
    out[o] = '\0';
    return true;
}

int64_t reserved_area_used_bytes() noexcept {
    // A fixed command line without client text.
    FILE *pipe = ::popen("du -sL 2> /dev/null /opt/vtrhttpd/localhost.drives/.reserved", "r");
    if (pipe == nullptr) return 0;
    long long kib = 0;
    if (std::fscanf(pipe, "%lld", &kib) != 1) kib = 0;
    ::pclose(pipe);
    return static_cast<int64_t>(kib) * 1024;
}

}  // namespace

int32_t translate_storage_path(plugin::path_buffer &path) noexcept {
    plugin::path_buffer scratch{};
    if (plugin::is_network_address(path)) {
        char *local = vtr_get_smb_nfs_network_url(path, 5);
        if (local == nullptr) return untranslatable;
        bool fits = std::strlen(local) < plugin::path_max;
        if (fits) std::memcpy(path, local, std::strlen(local) + 1);
        std::free(local);
        return fits ? network_path : untranslatable;
    }
    if (std::strncmp(path, drives_root.data(), drives_root.size()) == 0) {
        if (!copy_collapsing_percent(scratch, path)) return untranslatable;
    } else {
        const char *separator = path[0] == '/' ? "" : "/";
        if (!plugin::format_into(scratch, "/opt/vtrhttpd/localhost.drives%s%s", separator, path))
            return untranslatable;
    }
    std::memcpy(path, scratch, std::strlen(scratch) + 1);
    return local_path;
}

bool load_path(plugin::path_buffer &buffer, const char *argument) noexcept {
    if (argument == nullptr) {
        buffer[0] = '\0';
        return false;
    }
    return plugin::copy_text(buffer, argument);
}

int32_t load_and_translate(plugin::path_buffer &buffer, const char *argument) noexcept {
    if (!load_path(buffer, argument)) return untranslatable;
    return translate_storage_path(buffer);
}

const char *resolve_network_address(const char *argument, plugin::unique_malloc<char> &holder) noexcept {
    if (!plugin::is_network_address(argument)) return argument;
    holder.reset(vtr_get_smb_nfs_network_url(argument, 5));
    return holder.get();
}

int32_t check_free_space(uint32_t needed, const char *path) noexcept {
    if (path == nullptr) return 1;
    int64_t free_bytes = 0;
    if (std::strncmp(path, reserved_area.data(), reserved_area.size()) == 0) {
        int64_t used = reserved_area_used_bytes();
        free_bytes = used >= reserved_quota ? 0 : reserved_quota - used;
    } else {
        long long space[3] = {0, 0, 0};
        get_partition_free_space(path, space);
        free_bytes = space[0];
    }
    return free_bytes < static_cast<int64_t>(needed) ? 1 : 0;
}

}  // namespace storage
