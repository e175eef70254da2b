// The extension table and the lookup that gives listings and file
// information their MIME types.
#pragma once

extern "C" {
struct mime_entry {
    const char *extension;  // with its leading dot
    const char *type;
};
}

inline constexpr int mime_table_size = 76;
extern "C" mime_entry file_mime_table[mime_table_size];

namespace storage {

extern const char mime_none[];    // "none": the unknown type
extern const char mime_folder[];  // "folder": given to folders by the listers

// Puts the exported table in lookup order (case-insensitive by extension,
// stable); called before lookups, a no-op when already in order.
void sort_mime_table() noexcept;

// MIME type of the text from the path's last "." on, or mime_none.
const char *mime_type_for_path(const char *path) noexcept;

}  // namespace storage
