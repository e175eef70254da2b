// The file commands inside an application's storage.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "appstore/app_storage.h"
#include "appstore/layout.h"
#include "base/answer.h"
#include "base/io.h"
#include "base/result.h"
#include "base/spawn.h"
#include "storage/file_commands.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace appstore {
namespace {

using detail::argument;
using base::rc;

// A ".." component would leave the storage for a sibling storage or the
// rest of the drive; names may still hold "/" to reach below the storage.
bool leaves_storage(const char *name) noexcept {
    for (const char *p = name; *p != '\0';) {
        const char *end = std::strchr(p, '/');
        std::size_t length = end != nullptr ? static_cast<std::size_t>(end - p) : std::strlen(p);
        if (length == 2 && p[0] == '.' && p[1] == '.') return true;
        if (end == nullptr) break;
        p = end + 1;
    }
    return false;
}

// Checks the password, then forms R/.vtr_apps/.vtr_app_N/NAME from
// argv[1] (name), argv[2] (drive) and argv[3] (id).
base::rc storage_file(CommandRequest *request, base::path_buffer &file) noexcept {
    const char *name = argument(request, 1);
    const char *drive = argument(request, 2);
    const char *id_text = argument(request, 3);
    base::path_buffer identity;
    if (base::rc r = verify_app_access(drive, id_text, argument(request, 4), identity); r != base::rc::ok) return r;
    if (name == nullptr || leaves_storage(name)) return rc::failure;
    base::path_buffer root;
    int32_t kind = storage::load_and_translate(root, drive);
    if (!storage::is_translated(kind)) return rc::failure;
    if (!detail::storage_file_path(file, root, std::atoi(id_text), name)) return rc::failure;
    return rc::ok;
}

struct stream_closer {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using unique_stream = std::unique_ptr<FILE, stream_closer>;

unique_stream open_for_reading(const char *path) noexcept {
    base::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return nullptr;
    FILE *stream = ::fdopen(fd.get(), "r");
    if (stream != nullptr) fd.release();
    return unique_stream(stream);
}

// How many bytes a read of `count` bytes from `offset` returns in a file of
// total - 1 bytes, and where it starts. A count of 0 reads to the end; a
// span that runs past the end is cut there. The sum is compared as the
// player's 32-bit unsigned arithmetic did; a negative offset cannot be
// sought to and reads from the start.
struct read_span {
    long long start;
    long long length;  // <= 0: nothing to read
};

read_span span_to_read(int32_t offset, uint32_t count, long long total) noexcept {
    unsigned long long wanted = count != 0 ? count : static_cast<unsigned long long>(total);
    auto sum = static_cast<uint32_t>(static_cast<uint32_t>(offset) + static_cast<uint32_t>(wanted));
    long long length = static_cast<unsigned long long>(sum) < static_cast<unsigned long long>(total)
                           ? static_cast<long long>(wanted)
                           : total - 1 - offset;
    long long start = offset < 0 ? 0 : offset;
    long long available = total - 1 - start;
    if (length > available) length = available;
    return {start, length};
}

}  // namespace

base::rc create_app_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    if (isfileexist(file)) return rc::failure;
    // Exclusive, so of two requests racing for one name only one succeeds.
    base::unique_fd fd(::open(file, O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0700));
    return fd.valid() ? rc::ok : rc::failure;
}

base::rc write_app_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    if (!isfileexist(file)) return rc::not_found;
    const char *content = argument(request, 6);
    const char *count_text = argument(request, 7);
    if (content == nullptr || count_text == nullptr) return rc::failure;
    int32_t count = std::atoi(count_text);
    std::size_t length = std::strlen(content);
    uint32_t needed = count != 0 ? static_cast<uint32_t>(count) : static_cast<uint32_t>(length);
    if (storage::check_free_space(needed, file) != 0) return rc::no_room;

    int mode = base::is_false_word(argument(request, 5)) ? O_TRUNC : O_APPEND;
    base::unique_fd fd(::open(file, O_WRONLY | O_CREAT | mode | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.valid()) return rc::failure;
    // A count beyond the content sent is cut to the content: nothing past
    // the client's text is ever written.
    if (count > 0 && static_cast<std::size_t>(count) < length) length = static_cast<std::size_t>(count);
    if (!base::write_all(fd.get(), content, length) || !fd.close_checked()) return rc::failure;
    return rc::ok;
}

base::rc read_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    std::printf("file exists? string_buf:[%s]\n", file);
    if (!isfileexist(file)) return rc::not_found;
    unique_stream stream = open_for_reading(file);
    if (!stream) return rc::failure;
    const char *offset_text = argument(request, 5);
    const char *count_text = argument(request, 6);
    int32_t offset = offset_text != nullptr ? std::atoi(offset_text) : 0;
    auto count = static_cast<uint32_t>(count_text != nullptr ? std::atoi(count_text) : 0);
    read_span span = span_to_read(offset, count, storage::stream_size_plus_one(stream.get()));

    std::size_t got = 0;
    base::unique_malloc<char> buffer;
    if (span.length > 0) {
        if (static_cast<unsigned long long>(span.length) >= SIZE_MAX) return rc::failure;
        auto size = static_cast<std::size_t>(span.length);
        buffer.reset(static_cast<char *>(std::malloc(size + 1)));
        if (!buffer) return rc::failure;
        if (::fseeko(stream.get(), span.start, SEEK_SET) == 0) got = std::fread(buffer.get(), 1, size, stream.get());
        buffer.get()[got] = '\0';
    }
    base::add_bytes(base::response_of(response_slot), "content", got > 0 ? buffer.get() : "",
                    static_cast<unsigned int>(got));
    return rc::ok;
}

base::rc get_app_storage_file_info(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    if (!isfileexist(file)) return rc::not_found;
    const char *name = argument(request, 1);
    storage::sort_mime_table();
    VantorXmlNode response = base::response_of(response_slot);
    char size[16];
    (void)base::format_into(size, "%u", statfilesize(file));
    base::add_element(response, "fileSize", size);
    base::add_element(response, "mimeType", storage::mime_type_for_path(name));
    base::add_element(response, "name", name);
    return rc::ok;
}

base::rc copy_app_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    if (!isfileexist(file)) return rc::not_found;
    unsigned int size = statfilesize(file);
    base::path_buffer target;
    int32_t kind = storage::load_and_translate(target, argument(request, 5));
    if (!storage::is_translated(kind)) return rc::failure;
    if (storage::check_free_space(size, target) != 0) return rc::no_room;
    const char *argv[] = {"cp", "--", file, target, nullptr};
    (void)base::run_program(argv);  // its status does not change the answer
    return rc::ok;
}

base::rc delete_app_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer file;
    if (base::rc r = storage_file(request, file); r != base::rc::ok) return r;
    if (!isfileexist(file)) return rc::not_found;
    const char *argv[] = {"rm", "--", file, nullptr};
    (void)base::run_program(argv);
    return rc::ok;
}

}  // namespace appstore
