#include "storage/file_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/answer.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace storage {
namespace {

using base::rc;

struct file_closer {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using unique_file = std::unique_ptr<FILE, file_closer>;


const char *arg(CommandRequest *request, int i) noexcept { return request->args->argv[i]; }

// Cuts the path at its last "/" (the parent folder); false when it has none.
bool cut_at_last_slash(base::path_buffer &path) noexcept {
    char *slash = std::strrchr(path, '/');
    if (slash == nullptr) return false;
    *slash = '\0';
    return true;
}

// Decimal client numbers are read with atoi and used as unsigned 32-bit
// counts: "-1" is 4294967295.
uint32_t client_count(const char *text) noexcept { return static_cast<uint32_t>(std::atoi(text)); }

// The size of a picture as it is shown: rotated EXIF orientations swap it.
void picture_size(const char *path, const char *mime, int *width, int *height) noexcept {
    *width = 0;
    *height = 0;
    if (get_image_dimension(path, width, height) != 0) {
        *width = 0;
        *height = 0;
    }
    if (std::strcmp(mime, "image/jpeg") == 0) {
        int orientation = jpeg_exif_orient_database_read_only(path);
        if (orientation >= 5 && orientation <= 8) {
            int w = *width;
            *width = *height;
            *height = w;
        }
    }
}

}  // namespace

read_span plan_read(uint32_t offset, uint32_t count, uint64_t total) noexcept {
    uint64_t wanted = count == 0 ? total : count;
    if (offset >= total) return {offset, 1};  // at or past the end: nothing to read
    if (offset + wanted < total) return {offset, wanted + 1};
    return {offset, total - offset};
}

long long stream_size_plus_one(FILE *stream) noexcept {
    ::fseeko(stream, 0, SEEK_END);
    long long size = ::ftello(stream);
    std::rewind(stream);
    return size + 1;
}

uint64_t write_length(uint32_t count, uint64_t content_length) noexcept {
    if (count == 0) return content_length;
    return count < content_length ? count : content_length;
}

void owner_permission_text(unsigned mode, char (&out)[32]) noexcept {
    out[0] = '\0';
    if (mode & S_IRUSR) base::append_text(out, " read");
    if (mode & S_IWUSR) base::append_text(out, " write");
    if (mode & S_IXUSR) base::append_text(out, " execute");
}

base::rc create_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::bad_path;
    if (isfileexist(path)) return rc::exists;

    // One level of parent folder, made on demand; its outcome shows in the
    // write check that follows.
    if (cut_at_last_slash(path)) ::mkdir(path, 0700);
    if (::access(path, W_OK) != 0) return rc::no_permission;

    // The file is made at the path exactly as the client sent it: clients
    // send absolute paths under the drives root, where the checks looked.
    if (!load_path(path, arg(request, 1))) return rc::io;
    if (!storage::path_allowed(path)) return rc::bad_path;  // confined: as sent, too
    base::unique_fd fd(::open(path, O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0700));
    if (!fd.valid()) return rc::io;
    fd.reset();
    ::sync();
    return rc::ok;
}

base::rc write_user_storage_file(VantorXmlNode * /*response_slot*/, CommandRequest *request) noexcept {
    uint32_t count = client_count(arg(request, 4));
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::failure;
    if (!isfileexist(path)) return rc::not_found;
    if (::access(path, W_OK) != 0) return rc::no_permission;

    // Truncating only ever happens here: the file exists already. Never
    // written through a link.
    const bool truncate = base::is_false_word(arg(request, 2));
    int fd = ::open(path, O_WRONLY | O_CREAT | (truncate ? O_TRUNC : O_APPEND) | O_NOFOLLOW | O_CLOEXEC, 0666);
    unique_file file(fd >= 0 ? ::fdopen(fd, truncate ? "w" : "a") : nullptr);
    if (!file) {
        if (fd >= 0) ::close(fd);
        return rc::failure;
    }

    const char *content = arg(request, 3);
    uint64_t length = write_length(count, std::strlen(content));
    bool written = std::fwrite(content, 1, length, file.get()) == length;
    // Write errors (a full disk, a lost share) surface at the latest on close.
    bool closed = std::fclose(file.release()) == 0;
    if (!written || !closed) return rc::failure;
    ::sync();
    return rc::ok;
}

base::rc read_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    VantorXmlNode response = base::response_of(response_slot);
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::failure;
    if (!isfileexist(path)) return rc::not_found;
    if (::access(path, R_OK) != 0) return rc::no_permission;
    unique_file file(std::fopen(path, "re"));
    if (!file) return rc::failure;
    // A folder opens as a stream on this C library but holds no bytes to read.
    struct stat st;
    if (::fstat(::fileno(file.get()), &st) != 0 || S_ISDIR(st.st_mode)) return rc::failure;

    long long total = stream_size_plus_one(file.get());
    if (total < 1) return rc::failure;
    read_span span = plan_read(client_count(arg(request, 2)), client_count(arg(request, 3)),
                               static_cast<uint64_t>(total));
    // The answer carries a 32-bit byte count.
    if (span.buffer_size > UINT32_MAX) return rc::failure;

    if (span.offset > 0 && ::fseeko(file.get(), static_cast<off_t>(span.offset), SEEK_SET) != 0)
        return rc::failure;
    base::unique_malloc<char> buffer(static_cast<char *>(std::malloc(span.buffer_size)));
    if (!buffer) return rc::failure;

    std::size_t wanted = span.buffer_size - 1;
    std::size_t got = 0;
    while (got < wanted) {
        std::size_t n = std::fread(buffer.get() + got, 1, wanted - got, file.get());
        if (n == 0) break;
        got += n;
    }
    if (got > 0) {
        buffer.get()[got] = '\0';
        base::add_bytes(response, "content", buffer.get(), static_cast<unsigned int>(got));
    } else {
        base::add_element(response, "content", "");
    }
    return rc::ok;
}

base::rc get_user_storage_file_info(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    VantorXmlNode response = base::response_of(response_slot);
    base::path_buffer path;
    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::bad_path;
    sort_mime_table();
    if (!isfileexist(path)) return rc::not_found;
    struct stat st;
    if (::stat(path, &st) != 0) return rc::io;

    char text[32];
    base::format_into(text, "%llu", static_cast<unsigned long long>(st.st_size));
    base::add_element(response, "fileSize", text);

    if (!is_translated(load_and_translate(path, arg(request, 1)))) return rc::bad_path;
    const char *mime = mime_type_for_path(path);
    base::add_element(response, "mimeType", mime);

    // The name as the client wrote it; an argument without any "/" is a
    // name by itself.
    const char *client_path = arg(request, 1);
    const char *slash = std::strrchr(client_path, '/');
    base::add_element(response, "name", slash != nullptr ? slash + 1 : client_path);

    if (std::strncmp(mime, "image", 5) == 0) {
        int width = 0;
        int height = 0;
        picture_size(path, mime, &width, &height);
        base::format_into(text, "%d", width);
        base::add_element(response, "width", text);
        base::format_into(text, "%d", height);
        base::add_element(response, "height", text);
    }

    owner_permission_text(st.st_mode, text);
    base::add_element(response, "permission", text);
    return rc::ok;
}

}  // namespace storage
