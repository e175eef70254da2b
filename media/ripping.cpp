#include "media/ripping.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/owners.h"
#include "base/result.h"
#include "base/spawn.h"
#include "base/text.h"
#include "storage/paths.h"

namespace media {
namespace {

using base::rc;

// The ripper's argument list: ten slots of 512 bytes, filled in order.
constexpr std::size_t slot_size = 512;
constexpr std::size_t slot_count = 10;
using ripper_slots = std::array<std::array<char, slot_size>, slot_count>;

// Album folders tried when the plain name is taken: "_0" to "_100".
constexpr int last_candidate = 100;

const char *argument(const CommandRequest *request, int32_t index) noexcept {
    if (request == nullptr || request->args == nullptr || index >= request->args->argc) return nullptr;
    return request->args->argv[index];
}

bool same(const char *text, std::string_view word) noexcept { return text != nullptr && text == word; }

bool path_exists(const char *path) noexcept {
    struct stat status {};
    return ::stat(path, &status) == 0;
}

bool can_read(const char *path) noexcept {
    base::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    return fd.valid();
}

void make_empty_file(const char *path) noexcept {
    base::unique_fd fd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
}

// Error text without the C library's shared buffer; works with both the
// GNU and the XSI strerror_r.
[[maybe_unused]] const char *error_text(int result, const char *buffer) noexcept {
    return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char *error_text(const char *result, const char *) noexcept { return result; }

void give_to_rip_owner(const char *path) noexcept {
    if (::chown(path, rip_owner, rip_owner) != 0) {
        // Only root may give files away; a host running as another user
        // keeps them.
    }
}

// Folders made for a rip are open to everyone whatever the host's umask,
// and belong to the player's user. Returns mkdir's result with its errno.
int make_rip_folder(const char *path, bool set_owner = true) noexcept {
    int result = ::mkdir(path, 0777);
    int saved = errno;
    if (result == 0) ::chmod(path, 0777);
    if (set_owner) give_to_rip_owner(path);
    errno = saved;
    return result;
}

void say(const char *text) noexcept {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void say_no_device() noexcept { say("No device detected System will be aborted \n"); }

void run_fixed(const char *program, const char *argument_word = nullptr) noexcept {
    const char *argv[] = {program, argument_word, nullptr};
    (void)base::run_program(argv);
}

// The actions of argc 2: each answers 0.
base::rc simple_action(const char *action) noexcept {
    if (same(action, "StopRipping")) {
        if (can_read(ripping_status_file)) make_empty_file(kill_ripper_file);
    } else if (same(action, "gettrack")) {
        run_fixed("cdparanoia", "-Q");
    } else if (same(action, "done")) {
        std::fputs("Delete some of the file \n", stderr);
        ::unlink(ripping_status_file);
        ::unlink(track_number_file);
        std::fputs("Done Delete some of the file \n", stderr);
    } else if (same(action, "Initialize")) {
        for (const char *file : {ripping_status_file, album_name_file, track_number_file, track_list_file})
            ::unlink(file);
    } else if (same(action, "cdeject")) {
        run_fixed("cdeject");
    }
    return rc::ok;
}

base::rc create_directory(const char *drive, const char *folder) noexcept {
    if (drive == nullptr || folder == nullptr) return rc::io;
    base::path_buffer base;
    base::path_buffer path;
    if (!base::format_into(base, "%s%s", storage::drives_root.data(), drive) ||
        !base::format_into(path, "%s%s", base, folder))
        return rc::io;
    if (!path_exists(base)) {
        say_no_device();
        return rc::no_device;
    }
    if (path_exists(path)) {
        say("Path already exist Create folder fail \n");
        return rc::ok;
    }
    make_rip_folder(path);
    return rc::ok;
}

// The album folder below the destination; dest is rewritten in place.
void choose_album_folder(base::path_buffer &dest, const char *album) noexcept {
    base::path_buffer candidate;
    if (!same(album, "UnknownAlbum")) {
        (void)base::format_into(candidate, "%s%s/", dest, album);
        if (!path_exists(candidate)) {
            if (make_rip_folder(candidate, false) != 0) {
                int error = errno;
                char text[128];
                std::printf("Fail to create temp_path_name directory, errno = %d [%s]\n", error,
                            error_text(::strerror_r(error, text, sizeof text), text));
            } else {
                std::printf("%s created successfully\n", candidate);
            }
            std::fflush(stdout);
            give_to_rip_owner(candidate);
        } else {
            for (int n = 0; n <= last_candidate; ++n) {
                (void)base::format_into(candidate, "%s%s_%d/", dest, album, n);
                if (!path_exists(candidate)) {
                    make_rip_folder(candidate);
                    break;
                }
            }
            // All taken: the last name tried is used as it is.
        }
        std::memcpy(dest, candidate, sizeof dest);
        std::fprintf(stderr, "The Full Path is %s \n", dest);
        return;
    }
    for (int n = 0; n <= last_candidate; ++n) {
        (void)base::format_into(candidate, "%sUnknown_Artist_%d/", dest, n);
        if (!path_exists(candidate)) {
            std::memcpy(dest, candidate, sizeof dest);
            std::printf("Full path is now %s\n", dest);
            std::fflush(stdout);
            make_rip_folder(dest);
            return;
        }
    }
}

// argv[2] drive part ("/USB_DRIVE_A-1/"), argv[3] tracks ("ALL" or a span),
// argv[4] error correction, argv[5] music subfolder, argv[6] format,
// argv[7] album name.
base::rc start_ripping(const CommandRequest *request) noexcept {
    const char *drive = argument(request, 2);
    const char *tracks = argument(request, 3);
    const char *correction = argument(request, 4);
    const char *music = argument(request, 5);
    const char *format = argument(request, 6);
    const char *album = argument(request, 7);
    if (drive == nullptr || tracks == nullptr || correction == nullptr || music == nullptr ||
        format == nullptr || album == nullptr)
        return rc::io;
    // Every folder name this request may form must fit the ripper's slot.
    std::size_t album_part = same(album, "UnknownAlbum") ? std::strlen("Unknown_Artist_100/")
                                                         : std::strlen(album) + std::strlen("_100/");
    if (storage::drives_root.size() + std::strlen(drive) + std::strlen("Music/") + album_part >= slot_size)
        return rc::io;

    ::unlink(kill_ripper_file);
    ripper_slots slots{};
    std::size_t filled = 0;
    bool flac = same(format, "FLAC");
    bool correct = base::is_true_word(correction);
    (void)base::copy_text(slots[filled++], flac ? (correct ? "-AB" : "-ZAB") : (correct ? "-wB" : "-ZwB"));
    if (!base::copy_text(slots[filled++], same(tracks, "ALL") ? "1-TOTAL" : tracks)) return rc::io;

    base::path_buffer dest;
    (void)base::format_into(dest, "%s%s", storage::drives_root.data(), drive);
    if (!storage::path_allowed(dest)) return rc::io;  // the confinement switch
    if (!path_exists(dest)) {
        say_no_device();
        return rc::no_device;
    }
    if (base::is_true_word(music)) {
        (void)base::format_into(dest, "%s%sMusic/", storage::drives_root.data(), drive);
        if (!path_exists(dest)) make_rip_folder(dest);
    }
    base::path_buffer album_path;  // the album folder is dest, album and "_<n>"
    if (!base::format_into(album_path, "%s%s", dest, album) || !storage::path_allowed(album_path)) return rc::io;
    choose_album_folder(dest, album);
    (void)base::copy_text(slots[filled++], dest);

    if (can_read(ripping_status_file)) return rc::io;  // a rip is under way
    // Exclusive, so that of two requests racing here only one starts.
    base::unique_fd status(::open(ripping_status_file, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!status.valid() && errno == EEXIST) return rc::io;
    status.reset();

    const char *argv[slot_count + 2] = {"cdparanoia"};
    for (std::size_t i = 0; i < filled; ++i) argv[i + 1] = slots[i].data();
    std::printf("Command counter  = %d\n", static_cast<int>(filled));
    std::fflush(stdout);
    std::fflush(stderr);
    (void)base::run_program(argv);  // the request ends with the rip, however it ends
    return rc::ok;
}

}  // namespace

base::rc ripping(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr) return rc::ok;
    int32_t argc = request->args->argc;
    const char *action = argument(request, 1);
    if (argc < 2) return rc::ok;
    if (argc == 2) return simple_action(action);
    if (same(action, "start_ripping")) return start_ripping(request);
    if (same(action, "Create_Directory")) {
        if (argc < 4) return rc::io;
        return create_directory(argument(request, 2), argument(request, 3));
    }
    say("invalid parameter\n");
    return rc::io;
}

}  // namespace media
