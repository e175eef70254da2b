#include "transfer/selection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/export.h"
#include "base/io.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "storage/display_names.h"
#include "storage/paths.h"

namespace transfer {
namespace {

using base::rc;

constexpr std::size_t label_size = 4096;

// Every run of "/" becomes one "/", in place.
void collapse_slashes(char *path) noexcept {
    char *out = path;
    for (const char *in = path; *in != '\0'; ++in) {
        if (*in == '/' && out != path && out[-1] == '/') continue;
        *out++ = *in;
    }
    *out = '\0';
}

// One record in one write, so that a reader never sees half of it.
void write_record(int fd, const char *label, const char *path) noexcept {
    char line[3 + label_size + base::path_max + 2];
    if (base::format_into(line, "1|%s|%s\n", label, path)) (void)base::write_all(fd, line, std::strlen(line));
}

// Overwrites one flag byte at offset; the descriptor's own offset stays.
void rewrite_flag(int fd, off_t offset, char flag) noexcept { (void)base::pwrite_all(fd, &flag, 1, offset); }

bool names_file(int fd, const char *name) noexcept {
    struct stat held, named;
    return ::fstat(fd, &held) == 0 && ::lstat(name, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

// The selection file open for reading and writing with an exclusive flock
// held on it: selection requests and a batch taking the file never
// interleave. Invalid when there is none (or it is a link).
base::unique_fd open_locked_selection() noexcept {
    for (int attempt = 0; attempt < 16; ++attempt) {
        base::unique_fd fd(::open(selection_file, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.valid()) return fd;
        const int locked = base::lock_file(fd.get(), LOCK_EX);
        // Taken by a batch or removed while we waited: open the new one.
        if (locked != 0 || names_file(fd.get(), selection_file)) return fd;
    }
    return base::unique_fd();
}

// A new selection file holding one record. It is written under a name of
// its own and then linked into place, so it never shows up empty and no
// planted link is followed. Sets *raced when a selection file appeared
// meanwhile.
void create_selection(const char *label, const char *path, bool *raced) noexcept {
    char own[96];
    *raced = false;
    if (!base::format_into(own, "%s.%ld.%lx", selection_file, static_cast<long>(::getpid()),
                             static_cast<unsigned long>(::pthread_self())))
        return;
    ::unlink(own);
    base::unique_fd fd(::open(own, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) return;
    write_record(fd.get(), label, path);
    fd.reset();
    *raced = ::link(own, selection_file) != 0 && errno == EEXIST;
    ::unlink(own);
}

// True when a path would forge or split records.
bool holds_line_break(const char *text) noexcept { return std::strpbrk(text, "\r\n") != nullptr; }

// A record must stay readable by the readers' 4098-byte line limit.
bool record_fits(const char *label, const char *path) noexcept {
    return 3 + std::strlen(label) + std::strlen(path) < static_cast<std::size_t>(count_line_limit);
}

enum class action { select, deselect, deselect_all, unknown };

action parse_action(const char *word) noexcept {
    if (word == nullptr) return action::unknown;
    if (std::strcmp(word, "select") == 0) return action::select;
    if (std::strcmp(word, "deselect") == 0) return action::deselect;
    if (std::strcmp(word, "deselect_all") == 0) return action::deselect_all;
    return action::unknown;
}

}  // namespace

int find_selection_record(int fd, const char *path) noexcept {
    if (fd < 0 || path == nullptr) return -1;
    const std::size_t path_length = std::strlen(path);
    char line[search_line_limit];
    for (;;) {
        int n = filereadline(fd, line, sizeof line);
        if (n <= 0) return -1;
        if (n < 2) continue;  // no text after the flag and the first "|"
        const char *first = std::strstr(line + 2, path);
        if (first == nullptr) continue;
        if (std::strlen(first) != path_length) continue;
        ::lseek(fd, -static_cast<off_t>(n + 1), SEEK_CUR);
        return line[0] == '1' ? 1 : 0;
    }
}

int count_selected_records(int fd) noexcept {
    if (fd < 0) return 0;
    int count = 0;
    char line[count_line_limit];
    while (filereadline(fd, line, sizeof line) >= 1)
        if (line[0] == '1') ++count;
    return count;
}

int64_t sum_selected_sizes(int fd) noexcept {
    int64_t sum = 0;
    base::path_buffer path;
    char label[label_size] = {};
    while (get_filename(fd, path, sizeof path, label) == 1) sum += filesize64(path);
    return sum;
}

void mark_record_done(int fd, std::string_view path, std::string_view label) noexcept {
    off_t here = ::lseek(fd, 0, SEEK_CUR);
    if (here < 0) return;
    off_t start = here - static_cast<off_t>(path.size() + label.size() + 3 + 1);
    if (start < 0) return;
    rewrite_flag(fd, start, '0');
}

base::unique_fd lock_batch(bool *busy) noexcept {
    *busy = false;
    base::unique_fd fd(::open(batch_lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) return fd;
    if (base::lock_file(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        *busy = errno == EWOULDBLOCK;
        fd.reset();
    }
    return fd;
}

void return_selection(bool keep) noexcept {
    if (!keep) {
        ::unlink(batch_selection_file);
        return;
    }
    constexpr const char *merged = "/tmp/fslist.merge";  // only ever made under the batch lock
    for (int attempt = 0; attempt < 16; ++attempt) {
        if (::link(batch_selection_file, selection_file) == 0) {
            ::unlink(batch_selection_file);
            return;
        }
        if (errno != EEXIST) return;  // nothing to put back, or kept for the next batch
        // A selection made while the batch ran follows the batch's records.
        base::unique_fd newer = open_locked_selection();
        if (!newer.valid()) continue;
        ::unlink(merged);
        base::unique_fd out(::open(merged, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        base::unique_fd old(::open(batch_selection_file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (out.valid() && old.valid() && base::copy_rest(old.get(), out.get()) &&
            base::copy_rest(newer.get(), out.get()) &&
            out.close_checked() && ::rename(merged, selection_file) == 0) {
            ::unlink(batch_selection_file);
        } else {
            ::unlink(merged);
        }
        return;
    }
}

bool take_selection() noexcept {
    // An earlier batch that never ended (the process died) left its records.
    return_selection(true);
    base::unique_fd held = open_locked_selection();
    if (!held.valid()) return false;
    return ::rename(selection_file, batch_selection_file) == 0;
}

bool batch_may_use(const char *path) noexcept {
    return path != nullptr && path[0] == '/' && storage::path_allowed(path);
}

base::rc select_user_storage_file_to_list(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    char label[label_size];
    std::memset(label, 0, sizeof label);
    const char *argument = request->args->argv[1];
    const action what = parse_action(request->args->argv[2]);
    if (what == action::unknown) return rc::bad_argument;
    if (what == action::deselect_all) {
        if (::unlink(selection_file) == 0 || errno == ENOENT) return rc::ok;
        return rc::io;
    }
    const int wanted = what == action::select ? 1 : 0;
    if (argument == nullptr || argument[0] == '\0') return rc::bad_argument;
    if (holds_line_break(argument)) return rc::bad_argument;

    base::unique_malloc<char> translated;
    const char *path = storage::resolve_network_address(argument, translated);
    if (path == nullptr || holds_line_break(path)) return rc::bad_argument;
    if (translated != nullptr) {
        collapse_slashes(translated.get());
        if (wanted == 1) storage::share_display_name(argument, label);
    } else if (wanted == 1) {
        storage::drive_display_name(argument, label);
    }
    // A record longer than the readers' line limit would be read as two.
    if (!record_fits(label, path)) return rc::bad_argument;

    // What an interrupted batch left goes back first (when none runs).
    if (::access(batch_selection_file, F_OK) == 0) {
        bool busy = false;
        base::unique_fd batch_lock = lock_batch(&busy);
        if (batch_lock.valid()) return_selection(true);
    }
    for (int attempt = 0; attempt < 4; ++attempt) {
        base::unique_fd fd = open_locked_selection();
        if (!fd.valid()) {
            if (wanted == 0) return rc::ok;
            bool raced = false;
            create_selection(label, path, &raced);
            if (raced) continue;
            return rc::ok;
        }
        const int found = find_selection_record(fd.get(), path);
        if (wanted == 1 && found == -1) {
            if (::lseek(fd.get(), 0, SEEK_END) >= 0) write_record(fd.get(), label, path);
        } else if (found != wanted) {
            // Also for a deselect of an absent path: the lone "0" lands at the
            // end of the file, where the search stopped, and the next record
            // appended after it reads as deselected.
            char flag[4];
            std::snprintf(flag, sizeof flag, "%d", wanted);
            off_t offset = ::lseek(fd.get(), 0, SEEK_CUR);
            if (offset >= 0) rewrite_flag(fd.get(), offset, flag[0]);
        }
        if (wanted == 0) {
            ::lseek(fd.get(), 0, SEEK_SET);
            // Removed while still locked, so a waiting request starts anew.
            if (count_selected_records(fd.get()) == 0) ::unlink(selection_file);
        }
        break;
    }
    return rc::ok;
}

}  // namespace transfer

extern "C" FILEOP_EXPORT int get_filename(int fd, char *path, int size, char *label) noexcept {
    if (fd < 0 || path == nullptr || size < 1) return 0;
    std::memset(path, 0, static_cast<std::size_t>(size));
    char line[transfer::count_line_limit];
    for (;;) {
        int n = filereadline(fd, line, sizeof line);
        if (n < 1) return 0;
        if (line[0] == '1') break;
    }
    const char *text = line[1] == '\0' ? line + 1 : line + 2;
    const std::span<char> out(path, static_cast<std::size_t>(size));
    const char *bar = std::strchr(text, '|');
    if (bar == nullptr) {
        base::copy_text(out, text);
        return 1;
    }
    // The label part is shorter than the line, which fits a 4096-byte
    // label buffer.
    std::size_t label_length = static_cast<std::size_t>(bar - text);
    if (label != nullptr) {
        std::memcpy(label, text, label_length);
        label[label_length] = '\0';
    }
    base::copy_text(out, bar + 1);
    return 1;
}
