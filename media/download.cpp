#include "media/download.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/answer.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/spawn.h"
#include "base/text.h"
#include "media/hash.h"
#include "storage/paths.h"

namespace media {
namespace {

using base::rc;

constexpr uint64_t minimum_free_kib = 1025;
// Text in a name that marks the media database's video folders: a name
// there is always a folder, whether or not it exists yet.
constexpr std::string_view media_video_folder = "/pvx_database/media/video/";

// The folder argument, or the local path of an "smb://" / "nfs://" folder,
// copied literally. False when it cannot be resolved or does not fit.
bool load_folder(base::path_buffer &folder, const char *argument) noexcept {
    base::unique_malloc<char> resolved;
    const char *local = storage::resolve_network_address(argument, resolved);
    return local != nullptr && base::copy_text(folder, local);
}

bool metadata_url(std::span<char> out, const char *path_and_query) noexcept {
    char host[256];
    metadata_host(host);
    return base::format_into(out, "http://%s%s", host, path_and_query);
}

// The metadata server's subtitle queries stay packed even when they end in
// ".gz": the player reads them as fetched.
bool is_subtitle_query(const char *address) noexcept {
    char prefix[512];
    if (!metadata_url(prefix, "/vtrdb/main.php?arg0=get_subtitle")) return false;
    return std::strncmp(address, prefix, std::strlen(prefix)) == 0;
}

void answer_path(VantorXmlNode *response_slot, const char *path) noexcept {
    base::add_element(base::response_of(response_slot), "path", path);
}

// Starts a program and waits for it, at most time_limit seconds (0: no
// limit); a child that could not be made is reported the way a failed vfork
// always was. False when the child was killed at the limit.
bool run_and_wait(const char *const argv[], int time_limit = 0) noexcept {
    base::spawn_options options;
    options.time_limit_seconds = time_limit;
    int status = base::run_program(argv, options);
#if FILEOP_HAVE_POSIX_SPAWN
    if (status == -1) std::perror("vfork :\n");
#endif
    return !(status > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && time_limit > 0);
}

}  // namespace

base::rc download_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr) return rc::bad_path;
    CommandArgs *args = request->args;
    if (args->argc < 3 || args->argv[1] == nullptr || args->argv[2] == nullptr) return rc::bad_path;
    const char *address = args->argv[2];
    if (std::strcmp(address, "undefined") == 0) return rc::bad_path;
    // Neither may pass for an option of wget or gunzip: no address and no
    // storage folder begins with "-".
    if (address[0] == '-' || args->argv[1][0] == '-') return rc::bad_path;
    const char *name = args->argc >= 4 ? args->argv[3] : nullptr;  // absent: folder art
    const char *extension = args->argc >= 5 ? args->argv[4] : nullptr;

    base::path_buffer folder;
    if (!load_folder(folder, args->argv[1])) return rc::bad_path;
    base::path_buffer final_name;
    bool must_be_new = false;
    if (!download_final_name(final_name, folder, name, extension, &must_be_new)) return rc::bad_path;
    if (must_be_new && ::access(final_name, F_OK) == 0) return rc::bad_path;

    base::unique_malloc<char> work(static_cast<char *>(std::malloc(base::path_max)));
    if (!work) return rc::io;
    std::span<char> work_name(work.get(), base::path_max);
    if (!base::format_into(work_name, "%s_tmp", final_name)) return rc::bad_path;
    ::unlink(work.get());
    if (!is_subtitle_query(address) && has_gz_suffix(address)) {
        if (!base::append_text(work_name, std::strrchr(address, '.'))) return rc::bad_path;
    }

    const char *wget[] = {"wget", "-c", "-T", "20", "--no-check-certificate", "-xqO", work.get(), address, nullptr};
    const bool finished = run_and_wait(wget, download_time_limit_seconds);
    ::sync();

    struct stat st;
    if (!finished || ::stat(work.get(), &st) != 0 || st.st_size == 0) {
        // Cut off at the time limit: whatever arrived is not kept.
        ::unlink(work.get());
        return rc::missing_source;
    }
    if (has_gz_suffix(work.get())) {
        const char *gunzip[] = {"gunzip", "-d", work.get(), nullptr};
        run_and_wait(gunzip);
        if (::access(work.get(), F_OK) == 0) ::unlink(work.get());
        work.get()[std::strlen(work.get()) - 3] = '\0';
    }
    if (::rename(work.get(), final_name) != 0) {
        ::unlink(work.get());
        return rc::no_permission;
    }
    ::chmod(final_name, 0777);
    answer_path(response_slot, final_name);
    return rc::ok;
}

base::rc verify_user_storage_download_status(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr) return rc::bad_path;
    CommandArgs *args = request->args;
    if (args->argc < 2 || args->argv[1] == nullptr) return rc::bad_path;
    base::path_buffer folder;
    if (!load_folder(folder, args->argv[1])) return rc::bad_path;
    if (file_operation_test_permission(folder) == 0) return rc::read_only;
    struct statfs fs;
    if (::statfs(folder, &fs) != 0) return rc::no_space;
    uint64_t free_kib = (static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize)) >> 10;
    if (free_kib < minimum_free_kib) return rc::no_space;
    return file_operation_test_internet_connection() == 0 ? rc::ok : rc::unreachable;
}


void metadata_host(std::span<char, 256> out) noexcept {
    base::unique_malloc<char> configured(get_var_mem("vtrdb_host"));
    if (configured && configured.get()[0] != '\0' && base::copy_text(out, configured.get())) return;
    base::copy_text(out, default_metadata_host);
}

bool has_gz_suffix(std::string_view name) noexcept {
    std::size_t dot = name.rfind('.');
    return dot != std::string_view::npos && base::iequals(name.substr(dot), ".gz");
}

bool download_final_name(std::span<char> out, const char *folder, const char *name, const char *extension,
                         bool *must_be_new) noexcept {
    *must_be_new = false;
    if (name == nullptr) return base::format_into(out, "%s/folder.jpg", folder);
    if (extension == nullptr || extension[0] == '\0') {
        *must_be_new = true;
        return base::format_into(out, "%s/%s", folder, name);
    }
    if (!base::format_into(out, "%s/%s", folder, name)) return false;
    std::string_view candidate(out.data());
    if (candidate.find(media_video_folder) != std::string_view::npos || is_path_folder(out.data()) == 1)
        return base::format_into(out, "%s/%s.%s", folder, name, extension);
    // The name's extension is replaced; a name without one gets it appended.
    std::string_view stem(name);
    std::size_t dot = stem.rfind('.');
    stem = dot == std::string_view::npos ? stem : stem.substr(0, dot);
    return base::format_into(out, "%s/%.*s.%s", folder, static_cast<int>(stem.size()), stem.data(), extension);
}

}  // namespace media

extern "C" {

FILEOP_EXPORT int file_operation_test_permission(const char *folder) noexcept {
    if (folder == nullptr) return 0;
    base::path_buffer probe;
    if (!base::format_into(probe, "%s/.permission_test.pvx", folder)) return 0;
    // Never through a link: a planted ".permission_test.pvx" link makes the
    // folder count as not writable instead of truncating its target.
    base::unique_fd fd(::open(probe, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.valid()) return 0;
    fd.reset();
    ::remove(probe);
    return 1;
}

FILEOP_EXPORT int file_operation_test_internet_connection() noexcept {
    // One try, 20-second time-out, nothing downloaded, errors discarded. The
    // host name comes from the configuration, so no shell sees it.
    char url[512];
    if (!media::metadata_url(url, "/vtrdb/main.php")) return 127 << 8;
    const char *argv[] = {"wget", url, "-t1", "-T20", "--spider", nullptr};
    base::spawn_options options;
    options.quiet_stderr = true;
    options.time_limit_seconds = media::download_time_limit_seconds;
    return base::run_program(argv, options);
}

FILEOP_EXPORT int32_t file_operation_check_download_target_status(VantorXmlNode *response_slot,
                                                                 CommandRequest *request) noexcept {
    FILEOP_GUARD_BEGIN
    return base::to_host(media::verify_user_storage_download_status(response_slot, request));
    FILEOP_GUARD_END(base::to_host(base::rc::failure))
}

FILEOP_EXPORT int32_t file_operation_download_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    FILEOP_GUARD_BEGIN
    return base::to_host(media::download_user_storage_file(response_slot, request));
    FILEOP_GUARD_END(base::to_host(base::rc::failure))
}

}  // extern "C"
