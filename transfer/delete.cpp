#include "transfer/delete.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "media/disc.h"
#include "platform/host_api.h"
#include "storage/mime.h"
#include "storage/paths.h"
#include "transfer/batch.h"
#include "transfer/engine.h"
#include "base/folders.h"
#include "transfer/progress.h"
#include "transfer/selection.h"


namespace transfer {
namespace {

using base::rc;

constexpr std::array<const char *, 9> companion_suffixes{
    ".fanart.jpg", ".jpg", ".nfo", ".ass", ".idx", ".ssa", ".smi", ".srt", ".sub",
};

struct delete_job {
    base::unique_fd lock;   // the batch lock, held until the thread ends
    bool companions = false;  // the request's switch was exactly "true"
};

// Errors that mark the entry failed and let the walk go on, with the status
// of their event.
struct delete_error {
    int error;
    base::rc status;
};
constexpr std::array<delete_error, 6> listed_errors{{
    {ENOENT, rc::missing_source},
    {EACCES, rc::no_permission},
    {ETXTBSY, rc::busy},
    {EBUSY, rc::busy},
    {EROFS, rc::read_only},
    {EEXIST, rc::read_only},
}};

// base + each companion suffix, removed one after the other; results
// ignored.
void remove_companions(std::string_view base) noexcept {
    for (const char *suffix : companion_suffixes) {
        base::path_buffer companion;
        if (base::format_into(companion, "%.*s%s", static_cast<int>(base.size()), base.data(), suffix))
            (void)::unlink(companion);
    }
}

// Folder levels the delete goes down; a deeper folder stays, and with it
// every folder above it.
constexpr int folder_depth_max = 64;

// Removes the entries of the open folder `dir` with all they hold, the
// way "rm -rf" does (links are removed, never followed): at the top level
// (depth 0) only those whose names do not begin with ".". False when the
// folder could not be read to its end.
bool remove_contents(DIR *dir, int depth) noexcept {
    const int dfd = ::dirfd(dir);
    bool whole = true;
    bool failed = false;
    while (const dirent *e = base::next_entry(dir, &failed)) {
        const char *name = e->d_name;
        if (depth == 0 && name[0] == '.') continue;
        struct stat st{};
        if (::fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(st.st_mode) && depth < folder_depth_max) {
            const base::unique_dir sub = base::open_folder_at(dfd, name, O_NOFOLLOW);
            if (sub != nullptr && !remove_contents(sub.get(), depth + 1)) whole = false;
        }
        (void)::unlinkat(dfd, name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0);
    }
    return whole && !failed;
}

// Empties a folder the way "rm -rf folder/*" does: hidden entries at the
// top stay. False when some folder of it could not be read to its end.
bool remove_visible_contents(const char *folder) noexcept {
    const base::unique_dir dir = base::open_folder_at(AT_FDCWD, folder);
    return dir == nullptr || remove_contents(dir.get(), 0);  // unopened: the folder's removal tells
}

// Removes one entry; 0 or the error number.
int remove_entry(const char *path, bool companions) noexcept {
    // A link leading out of the drives root goes itself; its target's
    // contents are never emptied.
    if (isdir(path) == 0 || storage::link_leads_out(path)) {
        if (::unlink(path) != 0) return errno;
        if (companions && std::strncmp(storage::mime_type_for_path(path), "video", 5) == 0) {
            const char *dot = std::strrchr(path, '.');
            if (dot != nullptr) remove_companions(std::string_view(path, static_cast<std::size_t>(dot - path)));
        }
        return 0;
    }
    const unsigned disc = companions ? vantor_command_server_cdtypedetection(path) : 0;
    // A folder that could not be read whole is not gone.
    if (!remove_visible_contents(path)) return EIO;
    if (::rmdir(path) != 0) return errno;
    if (companions && disc != 0) {
        std::string_view base(path);
        if (base.size() > 1 && base.back() == '/') base.remove_suffix(1);
        remove_companions(base);
    }
    return 0;
}

void run_delete(delete_job &job) noexcept {
    base::unique_fd list(::open(batch_selection_file, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!list.valid()) {
        job.lock.reset();
        post_transfer_event(op_delete, "", "", "", 0, 0, 0, 101, 0, rc::ok);
        return;
    }
    const int fd = list.get();
    storage::sort_mime_table();
    const int32_t total = count_selected_records(fd);
    ::lseek(fd, 0, SEEK_SET);

    base::path_buffer path{};
    char label[4096] = {};
    int32_t item = 0;
    int last_error = 0;
    bool going_on = true;
    bool failed = false;
    bool stopped = false;
    int32_t taken = 0;  // records read: never more than were counted
    auto whole = [&]() noexcept { return total == 0 ? 0 : item * 100 / total; };
    while (going_on) {
        if (taken >= total || get_filename(fd, path, sizeof path, label) == 0) {
            // The last pass removes the (private) selection file itself.
            going_on = false;
            base::copy_text(path, batch_selection_file);
        }
        if (going_on) {
            ++taken;
            if (!batch_may_use(path)) {
                // A forged record (or, confined, a path outside the drives
                // root): reported and skipped.
                failed = true;
                post_transfer_event(op_delete, base_name(path), label, "", item, total, 0, whole(), 0, rc::bad_path);
                continue;
            }
            ++item;
            if (item == 1) post_transfer_event(op_delete, base_name(path), label, "", 1, total, 0, 0, 0, rc::ok);
        }
        last_error = remove_entry(path, job.companions && going_on);
        if (last_error == 0) {
            if (!going_on) break;
            mark_record_done(fd, path, label);
            post_transfer_event(op_delete, base_name(path), label, "", item, total, 0, whole(), 0, rc::ok);
            continue;
        }
        const rc status = delete_status_for(last_error);
        if (status == rc::ok) {
            stopped = going_on;  // the walk stops here, the selection stays
            going_on = false;
            break;
        }
        failed = true;
        if (going_on) post_transfer_event(op_delete, base_name(path), label, "", item, total, 0, whole(), 0, status);
    }
    list.reset();
    // A walk stopped early keeps its remaining records for another try.
    return_selection(stopped);
    job.lock.reset();  // a client may start the next batch once it reads the end
    ::sync();
    if (last_error != 0) post_transfer_event(op_delete, base_name(path), label, "", item, total, 0, whole(), 0, rc::io);
    post_transfer_event(op_delete, "", "", "", item, total, 0, 101, 0, last_error != 0 || failed ? rc::io : rc::ok);
}

void *delete_thread(void *argument) noexcept {
    std::unique_ptr<delete_job> job(static_cast<delete_job *>(argument));
    run_delete(*job);
    return nullptr;
}

}  // namespace

base::rc delete_status_for(int error) noexcept {
    for (const delete_error &row : listed_errors)
        if (row.error == error) return row.status;
    return rc::ok;
}

base::rc delete_user_storage_file_from_list(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    std::unique_ptr<delete_job> job(new (std::nothrow) delete_job);
    if (job == nullptr) return rc::io;
    // The request's text dies with the request: decide now.
    job->companions = request->args->argc >= 2 && request->args->argv[1] != nullptr &&
                      std::strcmp(request->args->argv[1], "true") == 0;
    if (rc r = start_batch(job->lock, delete_thread, job.get()); r != rc::ok) return r;
    (void)job.release();  // the thread owns it now
    return rc::ok;
}

}  // namespace transfer
