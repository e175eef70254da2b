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
#include "base/spawn.h"
#include "base/text.h"
#include "media/disc.h"
#include "platform/host_api.h"
#include "storage/mime.h"
#include "storage/paths.h"
#include "transfer/batch.h"
#include "transfer/engine.h"
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

// Empties a folder the way "rm -rf folder/*" does: every entry whose name
// does not begin with "." goes, with all it holds; hidden entries at the
// top stay. Subfolders are handed to "rm -rf" (never through a shell), so
// depth costs no descriptors here.
void remove_visible_contents(const char *folder) noexcept {
    int fd = ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    base::unique_dir dir(::fdopendir(fd));
    if (dir == nullptr) {
        ::close(fd);
        return;
    }
    const int dfd = ::dirfd(dir.get());
    for (;;) {
        errno = 0;
        const dirent *e = ::readdir(dir.get());
        if (e == nullptr) break;
        if (e->d_name[0] == '.') continue;
        struct stat st{};
        if (::fstatat(dfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            (void)::unlinkat(dfd, e->d_name, 0);
            continue;
        }
        base::path_buffer child;
        const char *separator = folder[0] != '\0' && folder[std::strlen(folder) - 1] == '/' ? "" : "/";
        if (!base::format_into(child, "%s%s%s", folder, separator, e->d_name)) continue;
        const char *argv[] = {"rm", "-rf", "--", child, nullptr};
        base::spawn_options quiet;
        quiet.quiet_stdout = true;
        quiet.quiet_stderr = true;
        (void)base::run_program(argv, quiet);
    }
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
    remove_visible_contents(path);
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
