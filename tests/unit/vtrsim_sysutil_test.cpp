// The simulated system utility and network-share libraries.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/host_api.h"

namespace {

struct temp_dir {
    std::string path;
    temp_dir() {
        char tmpl[] = "/tmp/vtrsim-test-XXXXXX";
        path = ::mkdtemp(tmpl);
    }
    ~temp_dir() {
        std::string cmd = "rm -rf '" + path + "'";
        (void)std::system(cmd.c_str());
    }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string take(char *allocated) {
    std::string s = allocated != nullptr ? allocated : "<null>";
    std::free(allocated);
    return s;
}

// Points VTR_CONFIG at a file of its own for the test's duration.
struct config_file {
    temp_dir dir;
    std::string path = dir / "vtr.conf";
    std::string old;
    bool had_old = false;
    config_file() {
        if (const char *o = std::getenv("VTR_CONFIG")) had_old = true, old = o;
        ::setenv("VTR_CONFIG", path.c_str(), 1);
    }
    ~config_file() {
        if (had_old) ::setenv("VTR_CONFIG", old.c_str(), 1);
        else ::unsetenv("VTR_CONFIG");
    }
    void write(const std::string &text) { write_file(path, text); }
};

TEST(VtrsimSys, FilereadlineReadsOneLineAndLeavesTheOffsetPastIt) {
    temp_dir d;
    write_file(d / "f", "ab\n\nlonger line\nlast");
    int fd = ::open((d / "f").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buf[5];
    struct step {
        int result;
        const char *text;
        off_t offset;
    };
    const step steps[] = {
        {2, "ab", 3}, {0, "", 4}, {4, "long", 16},  // cut to size-1, rest of the line dropped
        {4, "last", 20}, {0, "", 20}, {0, "", 20},
    };
    for (const step &s : steps) {
        EXPECT_EQ(filereadline(fd, buf, sizeof buf), s.result);
        EXPECT_STREQ(buf, s.text);
        EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), s.offset);
    }
    ::close(fd);
    EXPECT_EQ(filereadline(fd, buf, sizeof buf), -1);
    int out = ::open((d / "f").c_str(), O_WRONLY);
    EXPECT_EQ(filereadline(out, buf, sizeof buf), -1);
    ::close(out);
}

TEST(VtrsimSys, SizesOfFilesAndFolders) {
    temp_dir d;
    ::mkdir((d / "top").c_str(), 0755);
    ::mkdir((d / "top/sub").c_str(), 0755);
    ::mkdir((d / "top/sub/empty").c_str(), 0755);
    write_file(d / "top/a", std::string(10, 'a'));
    write_file(d / "top/sub/b", std::string(20, 'b'));
    write_file(d / "outside", std::string(1000, 'o'));
    ASSERT_EQ(::symlink((d / "outside").c_str(), (d / "top/link").c_str()), 0);
    EXPECT_EQ(filesize64((d / "top").c_str()), 10 + 20 + 3 * 4096);
    EXPECT_EQ(filesize64((d / "top/sub/empty").c_str()), 4096);
    EXPECT_EQ(filesize64((d / "top/a").c_str()), 10);
    EXPECT_EQ(filesize64((d / "top/link").c_str()), 1000);  // the path itself is followed
    EXPECT_EQ(filesize64((d / "missing").c_str()), -1);
    EXPECT_EQ(filesize((d / "top/sub/b").c_str()), 20);
    EXPECT_EQ(filesize((d / "missing").c_str()), -1);
    EXPECT_EQ(statfilesize((d / "top/sub/b").c_str()), 20u);
    EXPECT_EQ(statfilesize((d / "missing").c_str()), 0u);
    EXPECT_EQ(isfileexist((d / "top/link").c_str()), 1);
    EXPECT_EQ(isfileexist((d / "missing").c_str()), 0);
    EXPECT_EQ(isdir((d / "top").c_str()), 1);
    EXPECT_EQ(isdir((d / "top/a").c_str()), 0);
    ASSERT_EQ(::symlink((d / "nowhere").c_str(), (d / "dangling").c_str()), 0);
    EXPECT_EQ(isfileexist((d / "dangling").c_str()), 0);
}

TEST(VtrsimSys, CommandOutput) {
    struct row {
        const char *command;
        int max;
        const char *expected;
    };
    const row rows[] = {
        {"printf 'a\\n\\n'", 256, "a\n"},   // one line feed removed
        {"printf abcdef", 3, "abc"},
        {"true", 256, "<null>"},
        {"yes | head -c 100000", 5, "y\ny\ny"},
        {"printf '\\n'", 256, ""},
        {"echo x", 0, "<null>"},
    };
    for (const row &r : rows) EXPECT_EQ(take(get_cmd_output(r.command, r.max)), r.expected) << r.command;
}

TEST(VtrsimSys, ConfigurationIsReadAgainOnEveryLookup) {
    config_file cfg;
    EXPECT_EQ(take(get_var_mem("vtrdb_host")), "<null>");  // no file yet
    cfg.write("# comment\nvtrdb_host=meta.example:8080\n  spaced = value with = sign \r\nempty=\n");
    EXPECT_EQ(take(get_var_mem("vtrdb_host")), "meta.example:8080");
    EXPECT_EQ(take(get_var_mem("spaced")), " value with = sign ");
    EXPECT_EQ(take(get_var_mem("empty")), "");
    EXPECT_EQ(take(get_var_mem("comment")), "<null>");
    cfg.write("vtrdb_host=first\nvtrdb_host=second\n");
    EXPECT_EQ(take(get_var_mem("vtrdb_host")), "second");
}

TEST(VtrsimSys, NetworkAddressesMapOntoConfiguredShares) {
    config_file cfg;
    cfg.write("netfs_name0=Public\nnetfs_url0=smb://nas/public/\n"
              "netfs_name20=Media\nnetfs_url20=nfs://10.0.0.2/export\n"
              "netfs_url5=smb://nas/noname\n");
    struct row {
        const char *address;
        const char *expected;
    };
    const std::string root = "/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/";
    const row rows[] = {
        {"smb://nas/public/a/b.mp4", "Public/a/b.mp4"},
        {"smb://nas/public", "Public"},
        {"smb://nas/public/", "Public/"},
        {"nfs://10.0.0.2/export/x", "Media/x"},
        {"smb://nas/publicity/x", nullptr},
        {"smb://NAS/public/x", nullptr},
        {"nfs://nas/public/x", nullptr},
        {"smb://nas/noname/x", nullptr},
        {"smb://nas", nullptr},
        {"smb:///public", nullptr},
    };
    for (const row &r : rows) {
        std::string got = take(vtr_get_smb_nfs_network_url(r.address, 5));
        EXPECT_EQ(got, r.expected != nullptr ? root + r.expected : "<null>") << r.address;
    }
    EXPECT_EQ(vtr_network_error_handler(3), 1003);
    EXPECT_EQ(vtr_network_error_handler(0), 1000);
}

TEST(VtrsimSys, WritePermissionAndFileSystemType) {
    config_file cfg;
    temp_dir d;
    ::mkdir((d / "fat").c_str(), 0755);
    ::mkdir((d / "fatter").c_str(), 0755);
    cfg.write("vtrsim_fat_paths=/nonexistent:" + (d / "fat") + "\n");
    EXPECT_EQ(write_permission((d / "fat").c_str()), 2);
    EXPECT_EQ(take(get_mounted_filesystem_type((d / "fat/new-file").c_str())), "vfat");
    EXPECT_EQ(write_permission((d / "fatter").c_str()), 1);  // a prefix of words, not of characters
    EXPECT_EQ(write_permission((d / "missing").c_str()), 0);
    EXPECT_EQ(take(get_mounted_filesystem_type("/proc/self")), "proc");
    EXPECT_EQ(take(get_mounted_filesystem_type(nullptr)), "<null>");
    EXPECT_EQ(samerootdrive((d / "fat").c_str(), (d / "not/yet/there").c_str(), 0), 1);
    EXPECT_EQ(samerootdrive("/proc/self", d.path.c_str(), 0), 0);
}

TEST(VtrsimSys, MountsInsideTheSandbox) {
    if (std::getenv("VTR_SANDBOX") == nullptr || ::geteuid() != 0) GTEST_SKIP() << "needs tests/sandbox.sh";
    temp_dir d;
    std::string small = d / "small", ro = d / "ro";
    ::mkdir(small.c_str(), 0755);
    ::mkdir(ro.c_str(), 0755);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m"), 0);
    ASSERT_EQ(::mount("tmpfs", ro.c_str(), "tmpfs", MS_RDONLY, "size=1m"), 0);
    long long space[3] = {};
    EXPECT_EQ(get_partition_free_space(small.c_str(), space), 1);
    EXPECT_EQ(space[2], 1 << 20);
    EXPECT_EQ(space[1], 0);
    EXPECT_EQ(space[0], 1 << 20);
    write_file(small + "/f", std::string(100000, 'x'));
    EXPECT_EQ(get_partition_free_space(small.c_str(), space), 1);
    EXPECT_EQ(space[0] + space[1], space[2]);
    EXPECT_GE(space[1], 100000);
    EXPECT_EQ(get_partition_free_space((small + "/missing").c_str(), space), 0);
    EXPECT_EQ(write_permission(small.c_str()), 1);
    EXPECT_EQ(write_permission(ro.c_str()), 0);
    EXPECT_EQ(take(get_mounted_filesystem_type((small + "/f").c_str())), "tmpfs");
    EXPECT_EQ(samerootdrive(small.c_str(), d.path.c_str(), 0), 0);
    ::umount(small.c_str());
    ::umount(ro.c_str());
}

TEST(VtrsimSys, DiscTypeComesFromARegularFile) {
    temp_dir d;
    write_file(d / "cdrom", "5\n");
    write_file(d / "blank", "");
    int fd = ::open((d / "cdrom").c_str(), O_RDONLY);
    ::lseek(fd, 1, SEEK_SET);  // read from the start whatever the offset
    EXPECT_EQ(get_disc_type(fd), 5);
    ::close(fd);
    fd = ::open((d / "blank").c_str(), O_RDONLY);
    EXPECT_EQ(get_disc_type(fd), 0);
    ::close(fd);
    int pipe_fds[2];
    ASSERT_EQ(::pipe(pipe_fds), 0);
    EXPECT_EQ(get_disc_type(pipe_fds[0]), 0);
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
    EXPECT_EQ(get_disc_type(-1), 0);
}

}  // namespace
