// The folder of the daemon's socket: made 0700 when the daemon makes it; an existing folder is
// used as it is when it belongs to this user and nobody else may write to it, else refused.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handlink/emulator/Emulator.h"

namespace {

class SocketFolder : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(_root.isValid()); }

    QString path(const QString& relative) const { return _root.path() + QLatin1Char('/') + relative; }

    static mode_t modeOf(const QString& folder) {
        struct stat info {};
        EXPECT_EQ(::stat(QFile::encodeName(folder).constData(), &info), 0) << folder.toStdString();
        return info.st_mode & 07777;
    }

    // A folder made with exactly this mode.
    QString folderWithMode(const QString& relative, mode_t mode) {
        const QString folder = path(relative);
        EXPECT_TRUE(QDir().mkpath(folder));
        EXPECT_EQ(::chmod(QFile::encodeName(folder).constData(), mode), 0);
        return folder;
    }

    // Starts an emulator on folder/handlinkd.sock; the error when it does not start.
    static QString startIn(const QString& folder, bool* started) {
        handlink::emu::Emulator emulator(folder + QStringLiteral("/handlinkd.sock"));
        QString error;
        *started = emulator.start(&error);
        return error;
    }

private:
    QTemporaryDir _root;
};

}  // namespace

TEST_F(SocketFolder, AFolderTheDaemonMakesIsPrivate) {
    const QString folder = path(QStringLiteral("deep/er/run"));
    const mode_t umaskBefore = ::umask(0);  // the most permissive umask: the folder is 0700 still
    bool started = false;
    const QString error = startIn(folder, &started);
    ::umask(umaskBefore);
    ASSERT_TRUE(started) << error.toStdString();
    EXPECT_EQ(modeOf(folder), mode_t(0700));
}

TEST_F(SocketFolder, AnExistingFolderOfThisUserIsLeftAsItIs) {
    const QString folder = folderWithMode(QStringLiteral("home"), 0755);
    bool started = false;
    const QString error = startIn(folder, &started);
    ASSERT_TRUE(started) << error.toStdString();
    EXPECT_EQ(modeOf(folder), mode_t(0755));  // not made 0700
    EXPECT_FALSE(QFileInfo::exists(folder + QStringLiteral("/handlinkd.sock")));  // removed at stop
}

TEST_F(SocketFolder, AFolderOthersMayWriteToIsRefused) {
    for (const mode_t mode : {mode_t(01777), mode_t(0777), mode_t(0775), mode_t(0702)}) {
        const QString folder = folderWithMode(QStringLiteral("shared%1").arg(mode, 0, 8), mode);
        bool started = true;
        const QString error = startIn(folder, &started);
        EXPECT_FALSE(started) << std::oct << mode;
        EXPECT_TRUE(error.contains(QStringLiteral("others may write to it"))) << error.toStdString();
        EXPECT_TRUE(error.contains(folder)) << error.toStdString();
        EXPECT_EQ(modeOf(folder), mode);  // untouched
        EXPECT_FALSE(QFileInfo::exists(folder + QStringLiteral("/handlinkd.sock")));
    }
}

TEST_F(SocketFolder, AFolderOfAnotherUserIsRefused) {
    const QString folder = folderWithMode(QStringLiteral("theirs"), 0755);
    // Only a privileged test run can give a folder away; others still check the refusal of a
    // folder they cannot own, the root folder, unless they run as its owner.
    QString target = folder;
    if (::chown(QFile::encodeName(folder).constData(), 65534, 65534) != 0) {
        if (::geteuid() == 0) GTEST_SKIP() << "cannot give a folder to another user here";
        target = QStringLiteral("/");
    }
    bool started = true;
    const QString error = startIn(target, &started);
    EXPECT_FALSE(started);
    EXPECT_TRUE(error.contains(QStringLiteral("belongs to another user"))) << error.toStdString();
}

TEST_F(SocketFolder, APathThroughAFileIsRefused) {
    QFile file(path(QStringLiteral("plain")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    bool started = true;
    const QString error = startIn(path(QStringLiteral("plain")), &started);
    EXPECT_FALSE(started);
    EXPECT_TRUE(error.contains(QStringLiteral("not a folder"))) << error.toStdString();
}
