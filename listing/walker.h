// The folder tree walker of the deep search. It visits a tree exactly as
// nftw() without FTW_PHYS, FTW_DEPTH, FTW_MOUNT and FTW_CHDIR but with
// FTW_ACTIONRETVAL does: pre-order, each folder's entries in the order the
// folder gives them, symbolic links followed, a folder reached a second time
// (through a link) passed over silently, at most `max_open` folder streams
// open (beyond that the shallowest open folder is read ahead and closed, and
// its later sub-folders are opened by path). It differs in cost only: entry
// types come from the folder itself, and an entry's status is fetched only
// when the entry is a folder, a link or of unknown type, or when the
// callback asks for it. Folders are opened relative to their parent's
// descriptor; the process's working directory is never changed.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace listing {

// What an entry is, with nftw's codes.
enum walk_kind : int {
    walk_file = 0,            // FTW_F: anything that is not a folder
    walk_folder = 1,          // FTW_D: a folder, reported before its contents
    walk_unreadable = 2,      // FTW_DNR: a folder that may not be read
    walk_no_status = 3,       // FTW_NS: status refused (EACCES) or gone (ENOENT)
    walk_dangling_link = 6,   // FTW_SLN: a link to nothing
};

// What the callback answers, with FTW_ACTIONRETVAL's codes.
enum walk_action : int { walk_continue = 0, walk_stop = 1, walk_skip_subtree = 2 };

struct walk_entry {
    const char *path;  // start path without trailing "/", then "/" and the names below it
    int base;          // offset of the entry's own name in path
    int level;         // 0 for the start
    int kind;          // walk_kind
    // Filled by the walker; read through walk_status / walk_is_regular.
    int parent_fd;              // descriptor of the folder holding the entry, or -1
    unsigned char entry_type;   // DT_* of the folder entry (DT_UNKNOWN when not read)
    bool have_status;
    bool status_failed;
    struct stat status;
};

// Status of the entry (links followed), fetched on first use; null when it
// cannot be had.
const struct stat *walk_status(walk_entry &entry) noexcept;

// True for a regular file (after following a link); asks for the status only
// when the folder did not tell the type.
bool walk_is_regular(walk_entry &entry) noexcept;

using walk_callback = int (*)(walk_entry &entry, void *context) noexcept;

// Seams for tests: how folders are opened and entries stat'ed. Null members
// use openat(…, O_RDONLY|O_DIRECTORY|O_NONBLOCK|O_CLOEXEC) and fstatat(…, 0).
// `dir_fd` is AT_FDCWD when `name` is a whole path.
struct walk_hooks {
    int (*open_folder)(int dir_fd, const char *name) noexcept = nullptr;
    int (*stat_at)(int dir_fd, const char *name, struct stat *out, int flags) noexcept = nullptr;
};

// Walks the tree at `start`. Returns 0 when the walk ended, the callback's
// walk_stop (1) when it stopped it, or -1 with errno set when it failed: the
// start cannot be stat'ed, a folder cannot be opened for another reason than
// EACCES, an entry cannot be stat'ed for another reason than EACCES or
// ENOENT (ELOOP, ESTALE...), or memory ran out.
int walk_tree(const char *start, int max_open, walk_callback callback, void *context,
              const walk_hooks *hooks = nullptr) noexcept;

}  // namespace listing
