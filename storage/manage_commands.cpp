#include "storage/manage_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/result.h"
#include "base/spawn.h"
#include "base/text.h"
#include "storage/paths.h"

namespace storage {
namespace {

using base::rc;

struct errno_row {
    int error;
    rc result;
};
// How a failed mkdir or rename is reported; anything else is 4.
constexpr std::array errno_results{
    errno_row{EACCES, rc::no_permission},
    errno_row{EROFS, rc::read_only},
    errno_row{EBUSY, rc::busy},
    errno_row{ETXTBSY, rc::busy},
    errno_row{EEXIST, rc::exists},
    errno_row{ENOSPC, rc::no_space},
};
static_assert([] {
    for (std::size_t i = 0; i < errno_results.size(); ++i)
        for (std::size_t j = i + 1; j < errno_results.size(); ++j)
            if (errno_results[i].error == errno_results[j].error) return false;
    return true;
}(), "each errno appears once");


const char *arg(CommandRequest *request, int i) noexcept { return request->args->argv[i]; }

// The programs run from argv arrays, never through a shell; "--" ends their
// options so a name beginning with "-" stays a name. Each returns the wait
// status as system() would.
int copy_tree(const char *source, const char *target) noexcept {
    const char *argv[] = {"cp", "-rf", "--", source, target, nullptr};
    return base::run_program(argv);
}
int move_tree(const char *source, const char *target) noexcept {
    const char *argv[] = {"mv", "--", source, target, nullptr};
    return base::run_program(argv);
}
int make_folders(const char *path) noexcept {
    const char *argv[] = {"mkdir", "-p", "--", path, nullptr};
    return base::run_program(argv);
}

}  // namespace

base::rc result_for_errno(int error) noexcept {
    for (const errno_row &row : errno_results)
        if (row.error == error) return row.result;
    return rc::io;
}

base::rc copy_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request, int move) noexcept {
    base::path_buffer source;
    base::path_buffer target;
    if (!is_translated(load_and_translate(source, arg(request, 1)))) return rc::failure;
    if (!is_translated(load_and_translate(target, arg(request, 2)))) return rc::failure;
    if (!isfileexist(source) || !isfileexist(target)) return rc::not_found;
    if (::access(source, R_OK) != 0 || ::access(target, W_OK) != 0) return rc::no_permission;
    // Moves are checked too, even where they would only relink.
    if (check_free_space(statfilesize(source), target) != 0) return rc::no_room;
    int status = move != 0 ? move_tree(source, target) : copy_tree(source, target);
    if (status != 0) return rc::failure;
    ::sync();
    return rc::ok;
}

base::rc backup_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer source;
    base::path_buffer target;
    if (!is_translated(load_and_translate(source, arg(request, 1)))) return rc::bad_path;
    if (!isfileexist(source)) return rc::not_found;
    if (!is_translated(load_and_translate(target, arg(request, 2)))) return rc::bad_path;
    for (std::size_t n = std::strlen(target); n > 0 && target[n - 1] == '/'; --n) target[n - 1] = '\0';

    bool overwrite = request->args->argc == 4 && std::strcmp(arg(request, 3), "true") == 0;
    if (!overwrite && isfileexist(target)) return rc::exists;

    base::path_buffer parent;
    std::memcpy(parent, target, std::strlen(target) + 1);
    char *slash = std::strrchr(parent, '/');
    if (slash == nullptr) return rc::bad_path;
    *slash = '\0';
    if (!isfileexist(parent) && make_folders(parent) != 0) return rc::io;

    if (check_free_space(statfilesize(source), parent) != 0) return rc::no_room;
    if (::access(source, R_OK) != 0) return rc::no_permission;
    if (copy_tree(source, target) != 0) return rc::io;
    ::sync();
    return rc::ok;
}

base::rc delete_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::failure;
    if (!isfileexist(path)) return rc::not_found;
    if (::access(path, R_OK | W_OK) != 0) return rc::no_permission;
    // Whatever rm manages to remove is gone; its status is not reported.
    (void)base::remove_tree(path);
    return rc::ok;
}

base::rc create_user_storage_directory(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::failure;
    if (isfileexist(path)) return rc::exists;

    base::path_buffer parent;
    std::memcpy(parent, path, std::strlen(path) + 1);
    if (char *slash = std::strrchr(parent, '/'); slash != nullptr) *slash = '\0';
    if (::access(parent, W_OK) != 0) return rc::no_permission;

    if (::mkdir(path, 0777) == 0) return rc::ok;
    return result_for_errno(errno);
}

base::rc rename_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer old_path;
    base::path_buffer new_path;
    if (!is_translated(load_and_translate(old_path, arg(request, 1)))) return rc::failure;
    if (!is_translated(load_and_translate(new_path, arg(request, 2)))) return rc::failure;
    if (!isfileexist(old_path)) return rc::not_found;
    if (::access(old_path, W_OK) != 0) return rc::no_permission;
    if (isfileexist(new_path)) return rc::exists;

    // Whether a file of the new name could be made there at all.
    FILE *probe = std::fopen(new_path, "we");
    if (probe == nullptr) return rc::no_permission;
    std::fclose(probe);
    std::remove(new_path);

    if (std::rename(old_path, new_path) == 0) return rc::ok;
    return result_for_errno(errno);
}

}  // namespace storage
