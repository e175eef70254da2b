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
#include "listing/names.h"
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

void run_batch(BatchJob &job) noexcept {
    const char *to = job.destination_label;
    post_transfer_event(job.operation, "", "", to, 0, 0, 0, 0, 0, rc::ok);
    TransferProgress progress;
    progress.permission_kind = write_permission(job.destination);
    if (progress.permission_kind == 0) {
        post_transfer_event(job.operation, "", "", to, 0, 0, 0, 0, 0, rc::read_only);
        send_batch_end(job, 0, rc::io);
        return;
    }
    base::unique_fd list(::open(batch_selection_file, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!list.valid()) {
        send_batch_end(job, 0, rc::ok);
        return;
    }
    const int fd = list.get();
    int64_t free_bytes = storage::partition_free_bytes(job.destination);
    progress.total = count_selected_records(fd);
    ::lseek(fd, 0, SEEK_SET);
    progress.whole_done = 0;
    progress.whole_total = sum_selected_sizes(fd);
    ::lseek(fd, 0, SEEK_SET);
    ::gettimeofday(&start_copy_time, nullptr);

    const bool move = job.operation == op_move;
    bool failed = false;
    rc last = rc::ok;
    base::path_buffer source{};
    base::path_buffer target{};
    char label[label_size] = {};
    copy_ring ring;  // buffers and readers shared by the batch's files
    // The private file changes only here; the count bounds the walk all the
    // same, so no figure ever passes what the batch took.
    int32_t taken = 0;
    while (taken < progress.total && get_filename(fd, source, sizeof source, label) == 1) {
        ++taken;
        auto send = [&](int32_t percent, rc status) noexcept {
            post_transfer_event(job.operation, base_name(source), label, to, progress.item, progress.total, percent,
                                percent_of(progress.whole_done, progress.whole_total),
                                compute_time_left(progress.whole_done, progress.whole_total), status);
        };
        if (!batch_may_use(source) || storage::link_leads_out(source)) {
            // A forged record, a path outside the confined drives root or a
            // link leading out of it: reported and skipped.
            failed = true;
            send(percent_of(progress.item_done, progress.item_total), rc::bad_path);
            last = rc::bad_path;
            continue;
        }
        if (isfileexist(source) == 0) {
            // The figures are still those of the previous entry.
            failed = true;
            send(percent_of(progress.item_done, progress.item_total), rc::missing_source);
            last = rc::missing_source;
            continue;
        }
        ++progress.item;
        progress.step = 0;
        progress.item_done = 0;
        progress.item_total = filesize64(source);
        if (free_bytes < progress.item_total) {
            send(percent_of(progress.item_done, progress.item_total), rc::no_space);
            last = rc::no_space;
            break;
        }
        progress.step = report_step(progress.item_total);

        // The entry's name with its leading "/"; a trailing "/" of a folder
        // does not count as the last one.
        const std::size_t source_length = std::strlen(source);
        const char *name = nullptr;
        for (std::size_t i = source_length >= 1 ? source_length - 1 : 0; i-- > 0;) {
            if (source[i] == '/') {
                name = source + i;
                break;
            }
        }
        if (name != nullptr) {
            if (!make_target_path(target, job.destination, name, !move)) {
                send(percent_of(progress.item_done, progress.item_total), rc::bad_path);
                last = rc::bad_path;
            } else if (copies_into_itself(source, job.destination) ||
                       (move && (std::strcmp(target, source) == 0 || isfileexist(target) != 0))) {
                send(percent_of(progress.item_done, progress.item_total), rc::bad_path);
                last = rc::bad_path;
            } else if (move && samerootdrive(source, target, 0) != 0) {
                last = move_by_rename(source, target, progress, label, to);
            } else {
                if (isdir(source) != 0) {
                    last = copy_folder_with_progress(source, target, progress, job.operation, label, to, &ring);
                    source[source_length] = '\0';
                } else {
                    last = copy_file_with_progress(source, target, progress, job.operation, label, to, &ring);
                }
                if (move && last == rc::ok) {
                    // The copy reaches the disk before its source goes.
                    ::sync();
                    (void)base::remove_tree(source);
                }
            }
            if (last == rc::ok) {
                mark_record_done(fd, source, label);
                (void)::lchown(target, batch_owner, batch_owner);
                free_bytes -= progress.item_total;
            }
        }
        if (last == rc::io) break;
        if (last == rc::bad_path || last == rc::open_failed || last == rc::write_failed ||
            last == rc::reopen_failed)
            failed = true;
        ::sync();
    }
    finish_copy_ring(ring);
    list.reset();
    // As designed, a batch whose last entry failed keeps its records (the
    // finished ones flagged "0") so that the same command can resume.
    return_selection(last != rc::ok);
    send_batch_end(job, progress.total, last == rc::ok && !failed ? rc::ok : rc::io);
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
        listing::share_display_name(argument, label);
    } else {
        listing::drive_display_name(argument, label);
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
