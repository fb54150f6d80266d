#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "runtime/FileIo.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

namespace fs = std::filesystem;

// A replacement either lands whole with its mode or fails with the system's
// reason, leaving what was there and no temporary file.
TEST(FileIo, ReplaceLandsWholeOrNotAtAll) {
    TempDir dir;
    writeFile(dir / "file", "old");
    fs::create_directory(dir / "dir");
    writeFile(dir / "dir" / "inside", "x");
    const struct {
        const char* name;
        int result;
        const char* content;  // of the target afterwards, null for the directory
    } rows[] = {
        {"file", 0, "new"},
        {"dir", EISDIR, nullptr},
        {"absent/file", ENOENT, nullptr},
    };
    for (const auto& row : rows) {
        const fs::path path = dir / row.name;
        EXPECT_EQ(rt::replaceFile(path.string(), "new", 0640), row.result) << row.name;
        if (row.content) {
            EXPECT_EQ(readFile(path), row.content);
            EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
                      fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
        }
    }
    EXPECT_TRUE(fs::is_directory(dir / "dir"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 2);

    // In a host without standard input the files and the directory open as
    // descriptor 0.
    {
        StdinClosed noStdin;
        errno = EINTR;  // a failure that sets no errno must not read as success
        EXPECT_EQ(rt::replaceFile((dir / "file").string(), "newer", 0640), 0);
    }
    EXPECT_EQ(readFile(dir / "file"), "newer");
}

}  // namespace
}  // namespace kivreg::test
