// Records exchanged with the command server and the functions of the
// player's libraries that the plug-in imports. Declared here once, never
// defined by the plug-in: the host resolves them when it loads the library.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

typedef void *VantorXmlNode;

struct CommandArgs {
    int32_t argc;   // counts argv[0], the sub-command name
    char *argv[];   // argc pointers (flexible array member: GCC extension)
};

struct CommandRequest {
    uint32_t host_word0;
    uint32_t host_word1;
    struct CommandArgs *args;
};

typedef int32_t (*VantorRunEntry)(struct CommandRequest *request, void *unused1,
                                  void *unused2, VantorXmlNode response);

struct CommandDescriptor {
    uint32_t host_word0;   // offset 0
    char name[32];         // offset 4
    uint32_t host_word36;  // offset 36
    int32_t value40;       // offset 40: 200
    uint32_t host_word44;  // offset 44
    uint32_t host_word48;  // offset 48
    int32_t value52;       // offset 52: 10
    int32_t value56;       // offset 56: 10
    int32_t value60;       // offset 60: 0
    VantorRunEntry run;    // offset 64
};

// Host XML library.
int VANTOR_SIMPLE_XML_new_node(VantorXmlNode *out, const char *tag, const char *text);
int VANTOR_SIMPLE_XML_new_node_binary(VantorXmlNode *out, const char *tag, const void *data,
                                      unsigned int length);
int VANTOR_SIMPLE_XML_add_child_node(VantorXmlNode parent, VantorXmlNode child);

// Network-share library.
char *vtr_get_smb_nfs_network_url(const char *address, int mode);
int vtr_network_error_handler(int client_exit_code);

// System utility library.
int isfileexist(const char *path);
int isdir(const char *path);
long filesize(const char *path);
long long filesize64(const char *path);
unsigned int statfilesize(const char *path);
int write_permission(const char *path);
int samerootdrive(const char *a, const char *b, int flags);
int get_partition_free_space(const char *path, long long space[3]);
char *get_mounted_filesystem_type(const char *path);
int get_disc_type(int fd);
int get_image_dimension(const char *path, int *width, int *height);
int jpeg_exif_orient_database_read_only(const char *path);
char *get_cmd_output(const char *command, int max_bytes);
char *get_var_mem(const char *name);
int filereadline(int fd, char *buf, int size);

}  // extern "C"

// The descriptor layout is a contract with the host; it must hold on the
// player (32-bit MIPS) and on 64-bit development hosts alike.
static_assert(offsetof(CommandDescriptor, name) == 4);
static_assert(offsetof(CommandDescriptor, host_word36) == 36);
static_assert(offsetof(CommandDescriptor, value40) == 40);
static_assert(offsetof(CommandDescriptor, host_word44) == 44);
static_assert(offsetof(CommandDescriptor, host_word48) == 48);
static_assert(offsetof(CommandDescriptor, value52) == 52);
static_assert(offsetof(CommandDescriptor, value56) == 56);
static_assert(offsetof(CommandDescriptor, value60) == 60);
static_assert(offsetof(CommandDescriptor, run) == 64);
