// File information records: size texts, parsing of the device's pairs, and records read from
// the emulator (file, folder, link, a size past 2 GiB, a missing path, a failed request).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

#include "DeviceTestbed.h"
#include "device/QFCFileInfo.h"

using devicetest::DeviceTest;

namespace {

QDateTime utc(const char* text)
{
    return QDateTime::fromString(QString::fromLatin1(text), Qt::ISODate);
}

}  // namespace

TEST(FileSizeText, UnitsAndHundredths)
{
    const struct {
        uint64_t bytes;
        const char* text;
    } rows[] = {
        {0, "0 B"},
        {1, "1 B"},
        {1023, "1023 B"},
        {1024, "1 KB"},
        {1025, "1 KB"},
        {1030, "1.01 KB"},
        {1536, "1.50 KB"},
        {2047, "1.100 KB"},
        {1048575, "1023.100 KB"},
        {1048576, "1 MB"},
        {1572864, "1.50 MB"},
        {5492165909ull, "5.11 GB"},
        {UINT64_MAX, "15.100 EB"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(PathviewStyleFileSizeForSizeInBytes(row.bytes), QString::fromLatin1(row.text)) << row.bytes;
}

TEST(FileInfoPairs, TypeSizeAndDateParsing)
{
    const struct {
        QFCFileInfo::RawInfo pairs;
        uint32_t mask;
        bool directory;
        uint64_t size;
        uint32_t blocks;
        const char* modified;  // nullptr: absent
        const char* created;
    } rows[] = {
        {{{"st_ifmt", "S_IFREG"}, {"st_size", "123"}, {"st_blocks", "8"}}, 0x8000, false, 123, 8, nullptr, nullptr},
        {{{"st_ifmt", "S_IFDIR"}}, 0x4000, true, 0, 0, nullptr, nullptr},
        {{{"st_ifmt", "S_IFDIR,S_IFXATTR"}}, 0x14000, true, 0, 0, nullptr, nullptr},
        {{{"st_ifmt", "S_IFLNK"}}, 0xA000, false, 0, 0, nullptr, nullptr},
        {{{"st_ifmt", ",S_IFDIR,"}}, 0x4000, true, 0, 0, nullptr, nullptr},
        {{{"st_ifmt", "s_ifdir"}, {"st_nlink", "2"}}, 0, false, 0, 0, nullptr, nullptr},
        // Sizes pass through a signed 32-bit integer: 2 GiB turns into a size near 2^64.
        {{{"st_size", "2147483648"}, {"st_blocks", "-1"}}, 0, false, 0xFFFFFFFF80000000ull, 0xFFFFFFFFu, nullptr, nullptr},
        {{{"st_mtime", "1234567890123456789"}, {"st_birthtime", "abc"}}, 0, false, 0, 0, "2009-02-13T23:31:30Z",
         "1970-01-01T00:00:00Z"},
        // Divided as an unsigned number: a negative time lands in the 26th century.
        {{{"st_mtime", "-1"}}, 0, false, 0, 0, "2554-07-21T23:34:33Z", nullptr},
    };
    for (const auto& row : rows) {
        QFCFileInfo info;
        info._updateStateForRawInfo(row.pairs);
        SCOPED_TRACE(row.pairs.keys().join(u' ').toStdString() + " = " + row.pairs.values().join(u' ').toStdString());
        EXPECT_EQ(info.fmtMask(), row.mask);
        EXPECT_EQ(info.isDirectory(), row.directory);
        EXPECT_EQ(info.sizeInBytes(), row.size);
        EXPECT_EQ(info.blockSize(), row.blocks);
        EXPECT_EQ(info.modificationDate(), row.modified ? std::optional(utc(row.modified)) : std::nullopt);
        EXPECT_EQ(info.creationDate(), row.created ? std::optional(utc(row.created)) : std::nullopt);
    }
}

class FileInfoFromDevice : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        ASSERT_TRUE(dev->_qfcConnectionOpen());
        ASSERT_TRUE(QDir().mkpath(media("Info/sub")));
    }
    void TearDown() override
    {
        dev->_qfcConnectionClose();
        DeviceTest::TearDown();
    }
    QString media(const QString& path) const { return QDir(device->mediaRoot()).filePath(path); }
    QFCFileInfo read(const QString& path, std::optional<Error>* error)
    {
        return QFCFileInfo(path, dev->qfcConnectionRef(), error);
    }
};

TEST_F(FileInfoFromDevice, FileFolderLinkAndHugeFile)
{
    QFile file(media("Info/a.db"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(1234, 'x'));
    file.close();
    const timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(media("Info/a.db")).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
    ASSERT_EQ(::symlink("a.db", QFile::encodeName(media("Info/link")).constData()), 0);
    QFile big(media("Info/big.bin"));
    ASSERT_TRUE(big.open(QIODevice::WriteOnly) && big.resize(3ll << 30));  // sparse, 3 GiB
    big.close();

    const struct {
        const char* path;
        uint32_t mask;
        uint64_t size;
    } rows[] = {
        {"Info/a.db", 0x8000, 1234},
        {"Info/sub", 0x4000, 0},  // size checked against the local folder below
        {"Info/link", 0xA000, 4},  // the link itself, not its target
        {"Info/big.bin", 0x8000, 0xFFFFFFFFC0000000ull},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        std::optional<Error> error;
        const QFCFileInfo info = read(QString::fromLatin1(row.path), &error);
        EXPECT_FALSE(error.has_value());
        struct stat st {};
        ASSERT_EQ(::lstat(QFile::encodeName(media(QString::fromLatin1(row.path))).constData(), &st), 0);
        EXPECT_EQ(info.path(), QString::fromLatin1(row.path));
        EXPECT_EQ(info.fmtMask(), row.mask);
        EXPECT_EQ(info.isDirectory(), row.mask == 0x4000);
        EXPECT_EQ(info.sizeInBytes(), row.mask == 0x4000 ? static_cast<uint64_t>(st.st_size) : row.size);
        EXPECT_EQ(info.blockSize(), static_cast<uint32_t>(st.st_blocks));
        ASSERT_TRUE(info.modificationDate().has_value());
        EXPECT_EQ(info.modificationDate()->toSecsSinceEpoch(), st.st_mtim.tv_sec);
    }
    std::optional<Error> error;
    EXPECT_EQ(read(QStringLiteral("Info/a.db"), &error).modificationDate(), utc("2009-02-13T23:31:30Z"));
    const QFCFileInfo info = read(QStringLiteral("Info/a.db"), nullptr);
    EXPECT_EQ(info.description(),
              QStringLiteral("<QFCFileInfo: 0x%1> - path = Info/a.db").arg(quintptr(&info), 0, 16));
    EXPECT_EQ(info.basePath(), QStringLiteral("/var/mobile/Media/"));
}

TEST_F(FileInfoFromDevice, UnreadablePathLeavesTheZeroRecord)
{
    QFile(media("Info/a.db")).open(QIODevice::WriteOnly);
    handlink::emu::Fault fault;
    fault.operation = QStringLiteral("qfc-info");
    fault.status = kQFCReadError;
    fault.match = QStringLiteral("Info/a.db");
    device->addFault(fault);
    const struct {
        const char* path;
        const char* description;
    } rows[] = {
        {"Info/missing", "HLDError: 'unable to get file info for: Info/missing.', hld_error = 8 (kQFCNotFoundError)."},
        {"Info/a.db", "HLDError: 'unable to get file info for: Info/a.db.', hld_error = 4 (kQFCReadError)."},
    };
    for (const auto& row : rows) {
        std::optional<Error> error;
        const QFCFileInfo info = read(QString::fromLatin1(row.path), &error);
        ASSERT_TRUE(error.has_value()) << row.path;
        EXPECT_EQ(error->description(), QString::fromLatin1(row.description));
        EXPECT_TRUE(info.path().isNull());
        EXPECT_EQ(info.sizeInBytes(), 0u);
        EXPECT_EQ(info.fmtMask(), 0u);
        EXPECT_FALSE(info.modificationDate().has_value());
        EXPECT_EQ(info.description(), QStringLiteral("<QFCFileInfo: 0x%1> - path = (null)").arg(quintptr(&info), 0, 16));
    }
    EXPECT_EQ(device->count("qfc-info"), 2);
}
