#include "storage/display_names.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/io.h"
#include "base/owners.h"
#include "base/text.h"
#include "platform/host_api.h"
#include "storage/paths.h"

namespace storage {
namespace {

constexpr std::size_t label_answer_max = 256;  // what the lookup ever returned

void write_unknown(std::span<char> out) noexcept { base::copy_text(out, "Unknown"); }

// The first line of the drive name list that holds `key`, searched literally.
// Reads the whole file once (it is a few lines long).
bool find_label(std::string_view key, std::span<char> out) noexcept {
    base::unique_fd fd(::open("/tmp/usb_name.txt", O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    char chunk[4096];
    char line[4096];
    std::size_t used = 0;
    for (;;) {
        ssize_t n = base::retry_eintr([&] { return ::read(fd.get(), chunk, sizeof chunk); });
        if (n < 0) return false;
        bool at_end = n == 0;
        for (ssize_t i = 0; i <= n; ++i) {
            bool line_end = (i < n && chunk[i] == '\n') || (i == n && at_end && used > 0);
            if (i == n && !line_end) break;
            if (!line_end) {
                if (used + 1 < sizeof line)
                    line[used++] = chunk[i];
                // the rest of a very long line is ignored
                continue;
            }
            std::string_view text(line, used);
            used = 0;
            if (text.find(key) == std::string_view::npos) continue;
            // cut -d"|" -f2: the text between the first and the second "|"
            std::size_t first = text.find('|');
            std::string_view field = text.substr(first + 1);
            field = field.substr(0, field.find('|'));
            if (field.size() > label_answer_max) field = field.substr(0, label_answer_max);
            base::copy_text(out, field);
            return true;
        }
        if (at_end) return false;
    }
}

}  // namespace

base::unique_malloc<char> netfs_variable(const char *stem, int n) noexcept {
    char name[32];
    if (!base::format_into(name, "%s%d", stem, n)) return nullptr;
    return base::unique_malloc<char>(get_var_mem(name));
}

void share_display_name(const char *url, std::span<char> out) noexcept {
    if (url == nullptr || std::strlen(url) < 6) {
        write_unknown(out);
        return;
    }
    const char *share_start = std::strchr(url + 6, '/');
    if (share_start == nullptr) {
        write_unknown(out);
        return;
    }
    const char *share_end = std::strchr(share_start + 1, '/');
    std::string_view share = share_end == nullptr ? std::string_view(url)
                                                  : std::string_view(url, static_cast<std::size_t>(share_end - url));
    for (int n = 0; n < netfs_pairs; ++n) {
        base::unique_malloc<char> configured = netfs_variable("netfs_url", n);
        if (configured == nullptr || share != configured.get()) continue;
        base::unique_malloc<char> label = netfs_variable("netfs_name", n);
        if (label == nullptr) {
            // the variable vanished between the two reads: nothing to copy
            write_unknown(out);
        } else {
            base::copy_text(out, label.get());
        }
        return;
    }
    write_unknown(out);
}

void drive_display_name(const char *path, std::span<char> out) noexcept {
    if (path == nullptr) {
        write_unknown(out);
        return;
    }
    std::string_view rest(path);
    if (rest.starts_with(drives_root) && rest.substr(drives_root.size(), 1) == "/")
        rest.remove_prefix(drives_root.size() + 1);
    std::string_view drive = rest.substr(0, rest.find('/'));
    char key[4096 + 2];
    if (!base::format_into(key, "%.*s|", static_cast<int>(drive.size()), drive.data()) ||
        !find_label(key, out))
        write_unknown(out);
}

}  // namespace storage
