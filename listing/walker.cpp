#include "listing/walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/folders.h"

namespace listing {
namespace {

int default_open_folder(int dir_fd, const char *name) noexcept {
    return ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

int default_stat_at(int dir_fd, const char *name, struct stat *out, int flags) noexcept {
    return ::fstatat(dir_fd, name, out, flags);
}

// The folders already walked, by device and inode: a link back into the tree
// (or to a folder walked before) is passed over, as nftw does. Open
// addressing over a malloc'd table; it only grows.
struct known_folders {
    struct slot {
        dev_t dev;
        ino_t ino;
        bool used;
    };
    slot *slots = nullptr;
    std::size_t capacity = 0;  // a power of two
    std::size_t count = 0;

    ~known_folders() { std::free(slots); }

    static std::size_t hash(dev_t dev, ino_t ino) noexcept {
        uint64_t h = static_cast<uint64_t>(ino) * 0x9E3779B97F4A7C15ull;
        h ^= static_cast<uint64_t>(dev) + 0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
        return static_cast<std::size_t>(h ^ (h >> 29));
    }

    bool contains(const struct stat &st) const noexcept {
        if (count == 0) return false;
        for (std::size_t i = hash(st.st_dev, st.st_ino) & (capacity - 1);; i = (i + 1) & (capacity - 1)) {
            if (!slots[i].used) return false;
            if (slots[i].dev == st.st_dev && slots[i].ino == st.st_ino) return true;
        }
    }

    bool grow() noexcept {
        std::size_t new_capacity = capacity == 0 ? 256 : capacity * 2;
        auto *fresh = static_cast<slot *>(std::calloc(new_capacity, sizeof(slot)));
        if (fresh == nullptr) return false;
        for (std::size_t i = 0; i < capacity; ++i) {
            if (!slots[i].used) continue;
            std::size_t j = hash(slots[i].dev, slots[i].ino) & (new_capacity - 1);
            while (fresh[j].used) j = (j + 1) & (new_capacity - 1);
            fresh[j] = slots[i];
        }
        std::free(slots);
        slots = fresh;
        capacity = new_capacity;
        return true;
    }

    bool add(const struct stat &st) noexcept {
        if ((count + 1) * 2 > capacity && !grow()) {
            errno = ENOMEM;
            return false;
        }
        std::size_t i = hash(st.st_dev, st.st_ino) & (capacity - 1);
        while (slots[i].used) i = (i + 1) & (capacity - 1);
        slots[i] = {st.st_dev, st.st_ino, true};
        ++count;
        return true;
    }
};

// One folder being read. Once read ahead (its stream closed to free a
// descriptor), its remaining entries come from `ahead`: a type byte and a
// NUL-terminated name each, ended by an empty name.
struct folder {
    DIR *stream = nullptr;
    int fd = -1;
    char *ahead = nullptr;
    std::size_t ahead_pos = 0;
    folder *shallower = nullptr;  // the next deeper-to-shallower link of open folders
    folder *deeper = nullptr;
};

struct walker {
    walk_callback callback;
    void *context;
    int (*open_folder)(int, const char *) noexcept;
    int (*stat_at)(int, const char *, struct stat *, int) noexcept;
    int max_open;
    int open_count = 0;
    folder *oldest_open = nullptr;  // shallowest folder whose stream is open
    folder *newest_open = nullptr;
    known_folders known;
    char *path = nullptr;
    std::size_t capacity = 0;
    int base = 0;
    int level = 0;

    ~walker() { std::free(path); }

    bool reserve(std::size_t needed) noexcept {
        if (needed <= capacity) return true;
        std::size_t fresh_capacity = needed * 2;
        char *fresh = static_cast<char *>(std::realloc(path, fresh_capacity));
        if (fresh == nullptr) {
            errno = ENOMEM;
            return false;
        }
        path = fresh;
        capacity = fresh_capacity;
        return true;
    }
};

void unlink_open(walker &w, folder &f) noexcept {
    if (f.shallower != nullptr) f.shallower->deeper = f.deeper;
    else w.oldest_open = f.deeper;
    if (f.deeper != nullptr) f.deeper->shallower = f.shallower;
    else w.newest_open = f.shallower;
    f.shallower = f.deeper = nullptr;
    --w.open_count;
}

// Reads the rest of the shallowest open folder into memory and closes its
// stream, so that a deeper folder can be opened within the limit.
bool read_ahead_oldest(walker &w) noexcept {
    folder &f = *w.oldest_open;
    std::size_t size = 1024, used = 0;
    char *buffer = static_cast<char *>(std::malloc(size));
    if (buffer == nullptr) {
        errno = ENOMEM;
        return false;
    }
    bool failed = false;
    while (const dirent *d = base::next_entry(f.stream, &failed)) {
        std::size_t length = std::strlen(d->d_name);
        if (used + length + 3 > size) {
            size = (size + length + 3) * 2;
            char *fresh = static_cast<char *>(std::realloc(buffer, size));
            if (fresh == nullptr) {
                std::free(buffer);
                errno = ENOMEM;
                return false;
            }
            buffer = fresh;
        }
        buffer[used++] = static_cast<char>(d->d_type);
        std::memcpy(buffer + used, d->d_name, length + 1);
        used += length + 1;
    }
    if (failed) {
        std::free(buffer);
        return false;
    }
    buffer[used++] = DT_UNKNOWN;
    buffer[used] = '\0';
    ::closedir(f.stream);
    f.stream = nullptr;
    f.fd = -1;
    f.ahead = buffer;
    f.ahead_pos = 0;
    unlink_open(w, f);
    return true;
}

// Opens the folder now named by w.path (its name at w.base) below `parent`.
bool open_folder(walker &w, const folder *parent, folder &f) noexcept {
    if (w.open_count >= w.max_open && w.oldest_open != nullptr && !read_ahead_oldest(w)) return false;
    int fd = parent != nullptr && parent->fd >= 0 ? w.open_folder(parent->fd, w.path + w.base)
                                                  : w.open_folder(AT_FDCWD, w.path);
    if (fd < 0) return false;
    f.stream = ::fdopendir(fd);
    if (f.stream == nullptr) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return false;
    }
    f.fd = fd;
    f.shallower = w.newest_open;
    if (w.newest_open != nullptr) w.newest_open->deeper = &f;
    else w.oldest_open = &f;
    w.newest_open = &f;
    ++w.open_count;
    return true;
}

void close_folder(walker &w, folder &f) noexcept {
    int saved = errno;
    if (f.stream != nullptr) {
        ::closedir(f.stream);
        f.stream = nullptr;
        f.fd = -1;
        unlink_open(w, f);
    }
    std::free(f.ahead);
    f.ahead = nullptr;
    errno = saved;
}

int stat_entry(walker &w, int dir_fd, walk_entry &e, int flags) noexcept {
    return dir_fd >= 0 ? w.stat_at(dir_fd, e.path + e.base, &e.status, flags)
                       : w.stat_at(AT_FDCWD, e.path, &e.status, flags);
}

int read_folder(walker &w, folder *parent, walk_entry &self);

// One entry of a folder, its name already placed at w.base.
int process_entry(walker &w, folder &dir, unsigned char type) noexcept {
    walk_entry e{};
    e.path = w.path;
    e.base = w.base;
    e.level = w.level;
    e.parent_fd = dir.fd;
    e.entry_type = type;
    e.kind = walk_file;
    if (type == DT_DIR || type == DT_LNK || type == DT_UNKNOWN) {
        if (stat_entry(w, dir.fd, e, 0) < 0) {
            if (errno != EACCES && errno != ENOENT) return -1;
            e.kind = stat_entry(w, dir.fd, e, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(e.status.st_mode)
                         ? walk_dangling_link
                         : walk_no_status;
            e.have_status = true;
            e.status_failed = e.kind == walk_no_status;  // a dangling link keeps the link's own status
        } else {
            e.have_status = true;
            if (S_ISDIR(e.status.st_mode)) e.kind = walk_folder;
        }
    }
    int result = 0;
    if (e.kind == walk_folder) {
        if (!w.known.contains(e.status)) {
            if (!w.known.add(e.status)) return -1;
            result = read_folder(w, &dir, e);
        }
    } else {
        result = w.callback(e, w.context);
    }
    return result == walk_skip_subtree ? 0 : result;
}

// Reads one folder: reported first (or as unreadable), then each entry.
int read_folder(walker &w, folder *parent, walk_entry &self) {
    folder f;
    if (!open_folder(w, parent, f)) {
        if (errno != EACCES) return -1;
        self.kind = walk_unreadable;
        return w.callback(self, w.context);
    }
    self.kind = walk_folder;
    int result = w.callback(self, w.context);
    if (result != 0) {
        close_folder(w, f);
        return result;
    }
    int previous_base = w.base;
    std::size_t length = std::strlen(w.path);
    if (w.path[length - 1] != '/') w.path[length++] = '/';
    w.path[length] = '\0';
    w.base = static_cast<int>(length);
    ++w.level;

    for (;;) {
        const char *name;
        unsigned char type;
        if (f.stream != nullptr) {
            bool failed = false;
            const dirent *d = base::next_entry(f.stream, &failed);
            if (d == nullptr) {
                if (failed) result = -1;  // a folder cut short is not walked as if whole
                break;
            }
            name = d->d_name;
            type = d->d_type;
        } else {
            type = static_cast<unsigned char>(f.ahead[f.ahead_pos]);
            name = f.ahead + f.ahead_pos + 1;
            if (*name == '\0') break;
            f.ahead_pos += std::strlen(name) + 2;
        }
        std::size_t name_length = std::strlen(name);
        if (!w.reserve(static_cast<std::size_t>(w.base) + name_length + 2)) {
            result = -1;
            break;
        }
        std::memcpy(w.path + w.base, name, name_length + 1);
        result = process_entry(w, f, type);
        if (result != 0) break;
    }
    close_folder(w, f);
    w.path[w.base - 1] = '\0';
    if (w.base - 1 == 0) w.path[0] = '/';  // the start was "/"
    --w.level;
    w.base = previous_base;
    return result;
}

}  // namespace

const struct stat *walk_status(walk_entry &entry) noexcept {
    if (entry.have_status) return entry.status_failed ? nullptr : &entry.status;
    int r = entry.parent_fd >= 0 ? ::fstatat(entry.parent_fd, entry.path + entry.base, &entry.status, 0)
                                 : ::stat(entry.path, &entry.status);
    entry.have_status = true;
    entry.status_failed = r != 0;
    return entry.status_failed ? nullptr : &entry.status;
}

bool walk_is_regular(walk_entry &entry) noexcept {
    if (!entry.have_status && entry.entry_type != DT_UNKNOWN && entry.entry_type != DT_LNK)
        return entry.entry_type == DT_REG;
    const struct stat *st = walk_status(entry);
    return st != nullptr && S_ISREG(st->st_mode);
}

int walk_tree(const char *start, int max_open, walk_callback callback, void *context,
              const walk_hooks *hooks) noexcept {
    if (start == nullptr || start[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    walker w;
    w.callback = callback;
    w.context = context;
    w.open_folder = hooks != nullptr && hooks->open_folder != nullptr ? hooks->open_folder : default_open_folder;
    w.stat_at = hooks != nullptr && hooks->stat_at != nullptr ? hooks->stat_at : default_stat_at;
    w.max_open = max_open < 1 ? 1 : max_open;
    std::size_t length = std::strlen(start);
    if (!w.reserve(length + 4096)) return -1;
    std::memcpy(w.path, start, length + 1);
    while (length > 1 && w.path[length - 1] == '/') --length;  // trailing "/" removed
    w.path[length] = '\0';
    std::size_t base = length;
    while (base > 0 && w.path[base - 1] != '/') --base;
    w.base = static_cast<int>(base);

    walk_entry root{};
    root.path = w.path;
    root.base = w.base;
    root.level = 0;
    root.parent_fd = -1;
    root.entry_type = DT_UNKNOWN;
    root.have_status = true;
    int result;
    if (w.stat_at(AT_FDCWD, w.path, &root.status, 0) < 0) {
        if (errno == ENOENT && w.stat_at(AT_FDCWD, w.path, &root.status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(root.status.st_mode)) {
            root.kind = walk_dangling_link;
            result = callback(root, context);
        } else {
            return -1;
        }
    } else if (S_ISDIR(root.status.st_mode)) {
        if (!w.known.add(root.status)) return -1;
        result = read_folder(w, nullptr, root);
    } else {
        root.kind = walk_file;
        result = callback(root, context);
    }
    return result == walk_skip_subtree ? 0 : result;
}

}  // namespace listing
