// Path rules of the conduit: everything is resolved inside the device's Media/ folder; every
// way out is refused with kQFCPermissionError (or is simply not found inside) and nothing
// outside is read, created, locked or removed.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "qfc_testbed.h"

namespace qfctest {
namespace {

class PathsTest : public ConduitTest {
protected:
    void SetUp() override {
        ConduitTest::SetUp();
        ASSERT_EQ(::mkdir(media("a").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(media("a/b").c_str(), 0755), 0);
        std::ofstream(media("a/b/inside.txt")) << "inside";
        ASSERT_EQ(::symlink("/etc", media("etc-link").c_str()), 0);
        ASSERT_EQ(::symlink(outside("secrets").c_str(), media("secrets-abs").c_str()), 0);
        // A relative link that climbs out of Media/ into the folder beside it.
        const std::string climb = "../../../outside/secrets";
        ASSERT_EQ(::symlink(climb.c_str(), media("a/secrets-rel").c_str()), 0);
        ASSERT_EQ(::symlink("../../outside/secret.txt", media("secret-file").c_str()), 0);
        // Links that stay inside.
        ASSERT_EQ(::symlink("b", media("a/b-link").c_str()), 0);
        ASSERT_EQ(::symlink("../a/b/inside.txt", media("a/inside-link").c_str()), 0);
        before = snapshotOutside(testRoot());
    }

    // Nothing outside is changed, and nothing outside is locked by the conduit.
    void expectOutsideUntouched() {
        EXPECT_EQ(snapshotOutside(testRoot()), before);
        const int fd = ::open(outside("secret.txt").c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
        ::close(fd);
    }

    std::map<std::string, std::string> before;
};

const char* const kEscapes[] = {
    "..",
    "../x",
    "/..",
    "a/../../x",
    "a/b/../../../outside/secret.txt",
    "missing/../a",          // ".." after a missing folder
    "a/b/inside.txt/../b",   // ".." after a file
    "etc-link/passwd",
    "etc-link",
    "secrets-abs/new-file",
    "a/secrets-rel/new-file",
    "secret-file",
};

TEST_F(PathsTest, EveryEscapeIsRefusedWithPermission) {
    for (const char* path : kEscapes) {
        SCOPED_TRACE(path);
        QFCFileRef ref = kQFCInvalidFileRef;
        const HLDStatus open = QFCFileRefOpen(conduit.connection, path, 2, &ref);
        // "etc-link" itself is a link inside Media/: opening follows it (out: refused).
        EXPECT_EQ(open, kQFCPermissionError);
        EXPECT_EQ(ref, kQFCInvalidFileRef);
        QFCDirectoryRef dir = 0;
        EXPECT_EQ(QFCDirectoryOpen(conduit.connection, path, &dir), kQFCPermissionError);
    }
    // Information and removal do not follow a final link: the link itself is inside.
    for (const char* path : {"..", "../x", "a/../../x", "missing/../a", "a/b/inside.txt/../b", "etc-link/passwd", "secrets-abs/new-file", "secrets-abs/keep.txt",
                             "a/secrets-rel/new-file", "a/secrets-rel/keep.txt", "a/b/../../../outside/secret.txt"}) {
        SCOPED_TRACE(path);
        HLDStatus status = 0;
        infoPairs(conduit.connection, path, &status);
        EXPECT_EQ(status, kQFCPermissionError);
        EXPECT_EQ(QFCRemovePath(conduit.connection, path), kQFCPermissionError);
    }
    expectOutsideUntouched();
    EXPECT_EQ(::access(outside("secrets/new-file").c_str(), F_OK), -1);
    EXPECT_EQ(::access(outside("secrets/keep.txt").c_str(), F_OK), 0);
}

TEST_F(PathsTest, ADanglingFinalLinkLeadingOutCreatesNothingOutside) {
    ASSERT_EQ(::symlink("../../outside/made-through-a-link", media("dangling-rel").c_str()), 0);
    ASSERT_EQ(::symlink(outside("made-through-an-absolute-link").c_str(), media("dangling-abs").c_str()), 0);
    ASSERT_EQ(::symlink("../../../outside/made-deeper", media("a/dangling-deeper").c_str()), 0);
    for (const char* path : {"dangling-rel", "dangling-abs", "a/dangling-deeper", "a/b/../dangling-rel"}) {
        SCOPED_TRACE(path);
        QFCFileRef ref = kQFCInvalidFileRef;
        EXPECT_EQ(QFCFileRefOpen(conduit.connection, path, 2, &ref), kQFCPermissionError);
        EXPECT_EQ(ref, kQFCInvalidFileRef);
    }
    EXPECT_NE(::access(outside("made-through-a-link").c_str(), F_OK), 0);
    EXPECT_NE(::access(outside("made-through-an-absolute-link").c_str(), F_OK), 0);
    EXPECT_NE(::access(outside("made-deeper").c_str(), F_OK), 0);
    expectOutsideUntouched();
    // A dangling link that stays inside creates its target inside.
    ASSERT_EQ(::symlink("a/b/made-inside", media("dangling-in").c_str()), 0);
    QFCFileRef ref = kQFCInvalidFileRef;
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "dangling-in", 2, &ref), kQFCSuccess);
    EXPECT_EQ(::access(media("a/b/made-inside").c_str(), F_OK), 0);
}

TEST_F(PathsTest, AnAbsolutePathIsInsideMediaAndSoNotFound) {
    const std::string absolute = outside("secret.txt");
    QFCFileRef ref = kQFCInvalidFileRef;
    // The leading "/" is Media/ itself; the folders of the absolute path do not exist there.
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, absolute.c_str(), 2, &ref), kQFCNotFoundError);
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "/etc/passwd", 2, &ref), kQFCNotFoundError);
    EXPECT_EQ(QFCRemovePath(conduit.connection, absolute.c_str()), kQFCNotFoundError);
    HLDStatus status = 0;
    infoPairs(conduit.connection, "/etc/passwd", &status);
    EXPECT_EQ(status, kQFCNotFoundError);
    // "/a/b/inside.txt" is Media/a/b/inside.txt.
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "/a/b/inside.txt", 2, &ref), kQFCSuccess);
    char buffer[16];
    uint64_t length = sizeof buffer;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    EXPECT_EQ(std::string(buffer, length), "inside");
    expectOutsideUntouched();
}

TEST_F(PathsTest, RemovingALinkRemovesTheLinkNeverItsTarget) {
    EXPECT_EQ(QFCRemovePath(conduit.connection, "secret-file"), kQFCSuccess);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "secrets-abs"), kQFCSuccess);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "etc-link"), kQFCSuccess);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "a/inside-link"), kQFCSuccess);
    struct stat st;
    EXPECT_NE(::lstat(media("secret-file").c_str(), &st), 0);
    EXPECT_NE(::lstat(media("etc-link").c_str(), &st), 0);
    EXPECT_EQ(::stat(media("a/b/inside.txt").c_str(), &st), 0);
    EXPECT_EQ(::stat("/etc/passwd", &st), 0);
    expectOutsideUntouched();
}

TEST_F(PathsTest, LinksThatStayInsideAreFollowedAndReportedAsLinks) {
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "a/b-link/inside.txt", 2, &ref), kQFCSuccess);
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "a/inside-link", 2, &ref), kQFCSuccess);
    char buffer[16];
    uint64_t length = sizeof buffer;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    EXPECT_EQ(std::string(buffer, length), "inside");

    HLDStatus status = 0;
    EXPECT_EQ(infoPairs(conduit.connection, "a/inside-link", &status)["st_ifmt"], "S_IFLNK");
    EXPECT_EQ(infoPairs(conduit.connection, "a/b-link", &status)["st_ifmt"], "S_IFLNK");
    EXPECT_EQ(infoPairs(conduit.connection, "a/b-link/inside.txt", &status)["st_ifmt"], "S_IFREG");
    // Links leading out are links inside Media/ all the same: their own information is readable.
    EXPECT_EQ(infoPairs(conduit.connection, "etc-link", &status)["st_ifmt"], "S_IFLNK");
    EXPECT_EQ(status, kQFCSuccess);

    const auto names = listNames(conduit.connection, "a/b-link", &status);
    EXPECT_EQ(status, kQFCSuccess);
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "inside.txt"}));
    expectOutsideUntouched();
}

TEST_F(PathsTest, RootSpellingsNameMediaItself) {
    for (const char* root : {"", "/", "./", "//", "/./", "a/.."}) {
        SCOPED_TRACE(root);
        HLDStatus status = 0;
        const auto names = listNames(conduit.connection, root, &status);
        if (std::string(root) == "a/..") {
            EXPECT_EQ(status, kQFCPermissionError);  // ".." is refused wherever it stands
            continue;
        }
        EXPECT_EQ(status, kQFCSuccess);
        EXPECT_EQ(names, (std::vector<std::string>{".", "..", "a", "etc-link", "secret-file", "secrets-abs"}));
    }
    expectOutsideUntouched();
}

TEST_F(PathsTest, ALinkLoopIsRefused) {
    ASSERT_EQ(::symlink("loop-b", media("loop-a").c_str()), 0);
    ASSERT_EQ(::symlink("loop-a", media("loop-b").c_str()), 0);
    QFCFileRef ref = kQFCInvalidFileRef;
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "loop-a", 2, &ref), kQFCPermissionError);
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "loop-a/x", 2, &ref), kQFCPermissionError);
    expectOutsideUntouched();
}

}  // namespace
}  // namespace qfctest
