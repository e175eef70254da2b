// Pieces of the batch commands that the end-to-end suite cannot reach: a
// write failing while another read is in flight, and the delete walk's
// error table. (The batches themselves are tested through the host in
// tests/e2e/test_transfer.py.)
#include <sys/mount.h>

#include <cerrno>

#include "transfer/batch.h"
#include "transfer/engine.h"
#include "test_util.h"

namespace {

using namespace tu;

TEST(BatchPieces, WriteFailingInTheOverlappedCopy) {
    const std::string work = "/tmp/batch_test", tiny = work + "/tiny";
    std::system(("rm -rf " + work + " && mkdir -p " + tiny).c_str());
    if (::mount("none", tiny.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "no mounts here";
    event_pipe pipe;
    std::string big(3 * 1048576, 'b');
    write_file(work + "/big3", big);
    transfer::TransferProgress p;
    p.item_total = p.whole_total = static_cast<int64_t>(big.size());
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/big3").c_str(), (tiny + "/big3").c_str(), p, 0, "", ""),
              29);
    const auto lines = pipe.wait_for("<status>29</status>");
    EXPECT_EQ(lines.back().find("<filename>big3</filename>"), 33u);
    ::umount(tiny.c_str());
    std::system(("rm -rf " + work).c_str());
}

TEST(BatchPieces, DeleteErrorsThatGoOnAndThatStop) {
    struct row { int error; int32_t status; };
    const row rows[] = {
        {ENOENT, 12}, {EACCES, 402}, {ETXTBSY, 2}, {EBUSY, 2}, {EROFS, 60}, {EEXIST, 60},
        {ENOTEMPTY, 0}, {EPERM, 0}, {EIO, 0}, {ENOTDIR, 0},
    };
    for (const row &r : rows) EXPECT_EQ(transfer::delete_status_for(r.error), r.status) << r.error;
}

}  // namespace
