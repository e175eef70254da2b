#include "appstore/app_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "appstore/layout.h"
#include "appstore/scramble.h"
#include "base/answer.h"
#include "base/io.h"
#include "base/result.h"
#include "base/spawn.h"
#include "storage/file_commands.h"
#include "storage/paths.h"

namespace appstore {

namespace {

using detail::argument;
using base::rc;

// Ids drawn before giving up; only a drive holding that many storages, or
// one that claims every name exists, gets this far.
constexpr int max_id_draws = 100000;

// The identity file holds one line; anything past this is not a text the
// plug-in wrote.
constexpr long long identity_line_max = 4096;


// Reads the identity file's first line (at most its size) into line.
bool read_identity_line(const char *path, char (&line)[identity_line_max]) noexcept {
    base::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    FILE *stream = ::fdopen(fd.get(), "r");
    if (stream == nullptr) return false;
    fd.release();
    long long size = storage::stream_size_plus_one(stream);
    if (size > identity_line_max) size = identity_line_max;
    line[0] = '\0';
    if (size < 1 || std::fgets(line, static_cast<int>(size), stream) == nullptr) line[0] = '\0';
    std::fclose(stream);
    return true;
}

// Writes a freshly scrambled password to a new identity file.
bool write_new_identity(const char *path, int32_t id, const char *password) noexcept {
    char text[scrambled_buffer];
    if (!scramble_app_password(text, id, password)) return false;
    base::unique_fd fd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0700));
    if (!fd.valid()) return false;
    return base::write_all(fd.get(), text, std::strlen(text)) && fd.close_checked();
}

// Makes the names in the folder of `path` durable.
bool sync_folder_of(const char *path) noexcept {
    base::path_buffer folder;
    if (!base::copy_text(folder, path)) return false;
    char *slash = std::strrchr(folder, '/');
    if (slash == nullptr) return false;
    slash[slash == folder ? 1 : 0] = '\0';
    base::unique_fd fd(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && ::fsync(fd.get()) == 0;
}

// Replaces an identity file's text as one step: the new text goes to a
// temporary file beside it, written to the disk, which then takes the
// identity file's name, and the folder is written to the disk, so a power
// cut leaves either the old password or the new one, never an empty file.
// The file keeps its permission bits.
bool replace_identity(const char *path, int32_t id, const char *password) noexcept {
    char text[scrambled_buffer];
    if (!scramble_app_password(text, id, password)) return false;
    base::path_buffer temporary;
    if (!base::format_into(temporary, "%s.XXXXXX", path)) return false;
    base::unique_fd fd(::mkostemp(temporary, O_CLOEXEC));
    if (!fd.valid()) return false;
    struct stat old_status {};
    mode_t mode = ::stat(path, &old_status) == 0 ? (old_status.st_mode & 07777) : 0700;
    bool ok = ::fchmod(fd.get(), mode) == 0 && base::write_all(fd.get(), text, std::strlen(text)) &&
              ::fsync(fd.get()) == 0 && fd.close_checked() && ::rename(temporary, path) == 0;
    if (!ok) ::unlink(temporary);
    // The new password is in place; a folder that cannot be synced leaves
    // the old one after a power cut at worst.
    if (ok) (void)sync_folder_of(path);
    return ok;
}

}  // namespace

base::rc verify_app_access(const char *drive, const char *id_text, const char *password,
                          base::path_buffer &identity_path) noexcept {
    identity_path[0] = '\0';
    if (drive == nullptr || id_text == nullptr || password == nullptr) return rc::failure;
    int32_t id = std::atoi(id_text);
    base::path_buffer root;
    if (!storage::is_translated(storage::load_and_translate(root, drive))) return rc::failure;
    if (!detail::identity_file_path(identity_path, root, id)) return rc::failure;
    if (!isfileexist(identity_path)) return rc::not_found;

    char line[identity_line_max];
    if (!read_identity_line(identity_path, line)) return rc::failure;
    char stored[hex_text_buffer];
    char given[hex_text_buffer];
    if (!unscramble_app_password(stored, line, id)) return rc::failure;
    if (!password_hex_text(given, password)) return rc::failure;
    return std::strcmp(stored, given) == 0 ? rc::ok : rc::failure;
}

base::rc create_app_storage(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    const char *password = argument(request, 2);
    base::path_buffer root;
    if (password == nullptr || !storage::is_translated(storage::load_and_translate(root, argument(request, 1))))
        return rc::failure;
    if (!isfileexist(root)) return rc::not_found;
    if (::access(root, W_OK | X_OK) != 0) return rc::no_permission;
    std::size_t length = std::strlen(password);
    if (storage::check_free_space(static_cast<uint32_t>(length), root) != 0) return rc::no_room;
    if (length > password_max) return rc::failure;

    base::path_buffer area;
    if (!detail::storage_area_path(area, root)) return rc::failure;
    if (!isfileexist(area) && ::mkdir(area, 0700) != 0 && errno != EEXIST) return rc::failure;

    // Requests in the same second draw the same ids; mkdir decides which
    // one gets an id, and the other draws again.
    app_random generator(std::time(nullptr));
    base::path_buffer folder;
    base::path_buffer identity;
    int32_t id = 0;
    for (int draw = 0;; ++draw) {
        if (draw == max_id_draws) return rc::failure;
        id = next_random(generator);
        if (!detail::storage_folder_path(folder, root, id)) return rc::failure;
        // The identity file is named from the folder, which ends in "/".
        if (!base::format_into(identity, "%s.%s%d", folder, "id_", id)) return rc::failure;
        if (isfileexist(folder)) continue;
        if (::mkdir(folder, 0700) == 0) break;
        if (errno != EEXIST) return rc::failure;
    }
    if (!write_new_identity(identity, id, password)) return rc::failure;

    base::add_number(base::response_of(response_slot), "id", id);
    return rc::ok;
}

base::rc change_app_storage_password(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    const char *drive = argument(request, 1);
    const char *id_text = argument(request, 2);
    const char *old_password = argument(request, 3);
    const char *new_password = argument(request, 4);
    const char *repeated = argument(request, 5);
    base::path_buffer identity;  // left by the check
    if (base::rc r = verify_app_access(drive, id_text, old_password, identity); r != base::rc::ok) return r;
    if (new_password == nullptr || repeated == nullptr || std::strlen(new_password) > password_max)
        return rc::failure;
    const int32_t id = std::atoi(id_text);
    if (std::strcmp(new_password, repeated) != 0) return rc::failure;
    if (std::strcmp(new_password, old_password) == 0) return rc::ok;
    return replace_identity(identity, id, new_password) ? rc::ok : rc::failure;
}

base::rc delete_app_storage(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    const char *drive = argument(request, 1);
    const char *id_text = argument(request, 2);
    base::path_buffer identity;
    if (base::rc r = verify_app_access(drive, id_text, argument(request, 3), identity); r != base::rc::ok) return r;
    base::path_buffer root;
    base::path_buffer folder;
    if (!storage::is_translated(storage::load_and_translate(root, drive)) ||
        !detail::storage_folder_path(folder, root, std::atoi(id_text)))
        return rc::failure;
    if (!isfileexist(folder)) return rc::not_found;
    (void)base::remove_tree(folder);  // its status does not change the answer
    return rc::ok;
}

base::rc delete_all_app_storage(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer root;
    base::path_buffer area;
    if (!storage::is_translated(storage::load_and_translate(root, argument(request, 1))) ||
        !detail::storage_area_path(area, root))
        return rc::failure;
    if (!isfileexist(area)) return rc::not_found;
    (void)base::remove_tree(area);
    return rc::ok;
}

}  // namespace appstore
