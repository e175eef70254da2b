#include "transfer/batch.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/owners.h"
#include "base/result.h"
#include "base/spawn.h"
#include "base/text.h"
#include "storage/display_names.h"
#include "storage/paths.h"
#include "transfer/engine.h"
#include "transfer/progress.h"
#include "transfer/selection.h"

namespace transfer {
namespace {

using base::rc;

constexpr std::size_t label_size = 4096;

struct BatchJob {
    base::unique_fd lock;  // the batch lock, held until the thread ends
    uint32_t operation = 0;  // 0 copy, 1 move
    base::path_buffer destination{};
    char destination_label[label_size]{};
};

// The end of a batch: empty filename and from, percent 100, whole 101. The
// batch lock goes first, so a client may start the next batch as soon as it
// reads this line.
void send_batch_end(BatchJob &job, int32_t count, base::rc status) noexcept {
    job.lock.reset();
    post_transfer_event(job.operation, "", "", job.destination_label, count, count, 100, 101, 0, status);
}

// True when copying source into destination would copy a folder into
// itself (the same folder, or a destination inside it).
bool copies_into_itself(const char *source, const char *destination) noexcept {
    std::string_view s(source), d(destination);
    while (s.size() > 1 && s.back() == '/') s.remove_suffix(1);
    while (d.size() > 1 && d.back() == '/') d.remove_suffix(1);
    if (s == d) return true;
    return d.size() > s.size() && d.substr(0, s.size()) == s && d[s.size()] == '/';
}

// A batch's walk over its records: the entry at hand and what carries from
// one entry to the next.
struct batch_walk {
    BatchJob &job;
    TransferProgress progress{};
    int64_t free_bytes = 0;
    base::path_buffer source{};
    base::path_buffer target{};
    char label[label_size] = {};
    copy_ring ring{};  // buffers and readers shared by the batch's files
    rc last = rc::ok;
    bool failed = false;
};

// An event of the current entry with its figures as they stand.
void send_entry_event(const batch_walk &w, rc status) noexcept {
    const TransferProgress &p = w.progress;
    post_transfer_event(w.job.operation, base_name(w.source), w.label, w.job.destination_label, p.item, p.total,
                        percent_of(p.item_done, p.item_total), percent_of(p.whole_done, p.whole_total),
                        compute_time_left(p.whole_done, p.whole_total), status);
}

// Refuses the current entry: its event with `status`, also the batch's
// last result.
rc refuse(batch_walk &w, rc status) noexcept {
    send_entry_event(w, status);
    return w.last = status;
}

// The start event and the batch's figures; false when the batch ends here.
bool open_batch(batch_walk &w, base::unique_fd &list) noexcept {
    const char *to = w.job.destination_label;
    post_transfer_event(w.job.operation, "", "", to, 0, 0, 0, 0, 0, rc::ok);
    w.progress.permission_kind = write_permission(w.job.destination);
    if (w.progress.permission_kind == 0) {
        post_transfer_event(w.job.operation, "", "", to, 0, 0, 0, 0, 0, rc::read_only);
        send_batch_end(w.job, 0, rc::io);
        return false;
    }
    list.reset(::open(batch_selection_file, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!list.valid()) {
        send_batch_end(w.job, 0, rc::ok);
        return false;
    }
    w.free_bytes = storage::partition_free_bytes(w.job.destination);
    w.progress.total = count_selected_records(list.get());
    ::lseek(list.get(), 0, SEEK_SET);
    w.progress.whole_total = sum_selected_sizes(list.get());
    ::lseek(list.get(), 0, SEEK_SET);
    ::gettimeofday(&start_copy_time, nullptr);
    return true;
}

// A forged record, a path outside the confined drives root, a link leading
// out of it or a vanished entry: reported (with the figures of the
// previous entry) and skipped.
bool entry_usable(batch_walk &w) noexcept {
    if (!batch_may_use(w.source) || storage::link_leads_out(w.source)) {
        (void)refuse(w, rc::bad_path);
    } else if (isfileexist(w.source) == 0) {
        (void)refuse(w, rc::missing_source);
    } else {
        return true;
    }
    w.failed = true;
    return false;
}

// The entry's name with its leading "/" (a trailing "/" of a folder does
// not count as the last one); null when it has none.
const char *entry_name(const char *source) noexcept {
    for (std::size_t i = std::strlen(source); i-- > 1;)
        if (source[i - 1] == '/') return source + i - 1;
    return nullptr;
}

// Copies or moves the current entry to its target; the entry's result.
rc transfer_entry(batch_walk &w, const char *name) noexcept {
    BatchJob &job = w.job;
    const bool move = job.operation == op_move;
    if (!make_target_path(w.target, job.destination, name, !move) || copies_into_itself(w.source, job.destination) ||
        (move && (std::strcmp(w.target, w.source) == 0 || isfileexist(w.target) != 0)))
        return refuse(w, rc::bad_path);
    if (move && samerootdrive(w.source, w.target, 0) != 0)
        return move_by_rename(w.source, w.target, w.progress, w.label, job.destination_label);
    const std::size_t source_length = std::strlen(w.source);
    const rc r = isdir(w.source) != 0
                     ? copy_folder_with_progress(w.source, w.target, w.progress, job.operation, w.label,
                                                 job.destination_label, &w.ring)
                     : copy_file_with_progress(w.source, w.target, w.progress, job.operation, w.label,
                                               job.destination_label, &w.ring);
    w.source[source_length] = '\0';
    if (move && r == rc::ok) {
        // The copy reaches the disk before its source goes.
        ::sync();
        (void)base::remove_tree(w.source);
    }
    return r;
}

void run_batch(BatchJob &job) noexcept {
    batch_walk w{.job = job};
    base::unique_fd list;
    if (!open_batch(w, list)) return;
    TransferProgress &progress = w.progress;
    // The private file changes only here; the count bounds the walk all the
    // same, so no figure ever passes what the batch took.
    for (int32_t taken = 0; taken < progress.total; ++taken) {
        if (get_filename(list.get(), w.source, sizeof w.source, w.label) != 1) break;
        if (!entry_usable(w)) continue;
        ++progress.item;
        progress.step = 0;
        progress.item_done = 0;
        progress.item_total = filesize64(w.source);
        if (w.free_bytes < progress.item_total) {
            (void)refuse(w, rc::no_space);
            break;
        }
        progress.step = report_step(progress.item_total);
        if (const char *name = entry_name(w.source)) {
            w.last = transfer_entry(w, name);
            if (w.last == rc::ok) {
                mark_record_done(list.get(), w.source, w.label);
                (void)::lchown(w.target, batch_owner, batch_owner);
                w.free_bytes -= progress.item_total;
            }
        }
        if (w.last == rc::io) break;
        if (w.last == rc::bad_path || w.last == rc::open_failed || w.last == rc::write_failed ||
            w.last == rc::reopen_failed)
            w.failed = true;
        ::sync();
    }
    finish_copy_ring(w.ring);
    list.reset();
    // As designed, a batch whose last entry failed keeps its records (the
    // finished ones flagged "0") so that the same command can resume.
    return_selection(w.last != rc::ok);
    send_batch_end(job, progress.total, w.last == rc::ok && !w.failed ? rc::ok : rc::io);
}

void *batch_thread(void *argument) noexcept {
    std::unique_ptr<BatchJob> job(static_cast<BatchJob *>(argument));
    run_batch(*job);
    return nullptr;
}

}  // namespace

base::rc start_batch(base::unique_fd &lock, void *(*body)(void *), void *job) noexcept {
    bool busy = false;
    lock = lock_batch(&busy);
    if (!lock.valid()) return busy ? rc::busy : rc::io;
    // Taken before the answer: later selections start a new list.
    (void)take_selection();
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, body, job) != 0) {
        return_selection(true);
        return rc::io;
    }
    ::pthread_detach(thread);
    return rc::ok;
}

base::rc copy_user_storage_file_from_list(VantorXmlNode * /*response_slot*/, CommandRequest *request,
                                         int move) noexcept {
    const char *argument = request->args->argv[1];
    if (argument == nullptr || argument[0] == '\0') return rc::bad_argument;
    char label[label_size] = {};
    base::unique_malloc<char> translated;
    const char *destination = storage::resolve_network_address(argument, translated);
    if (destination == nullptr) return rc::bad_argument;
    if (translated != nullptr) {
        storage::share_display_name(argument, label);
    } else {
        storage::drive_display_name(argument, label);
    }
    if (isdir(destination) == 0) return rc::bad_argument;
    if (write_permission(destination) == 0) return rc::read_only;

    std::unique_ptr<BatchJob> job(new (std::nothrow) BatchJob);
    if (job == nullptr) return rc::io;
    job->operation = move == 1 ? op_move : op_copy;
    // Entries' target paths are built from the destination in a 4096-byte
    // buffer; a longer one could name no entry.
    if (!base::copy_text(job->destination, destination)) return rc::bad_argument;
    base::copy_text(job->destination_label, label);
    if (rc r = start_batch(job->lock, batch_thread, job.get()); r != rc::ok) return r;
    (void)job.release();  // the thread owns it now
    return rc::ok;
}

}  // namespace transfer
