// Directory listings of the conduit: ".", "..", then byte order; batches that carry each
// entry's information, so info calls of entries need no round trip; faults in a listing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "handlink/emulator/qfc/DirectoryListing.h"
#include "qfc_testbed.h"

namespace qfctest {
namespace {

using DirectoryTest = ConduitTest;

void touch(const std::string& path, const std::string& content = std::string()) {
    std::ofstream(path, std::ios::binary) << content;
}

TEST_F(DirectoryTest, ListsDotsThenNamesInByteOrderWithNonAsciiNames) {
    ASSERT_EQ(::mkdir(media("Music").c_str(), 0755), 0);
    const std::vector<std::string> names = {"Zebra.m4a", "almond.m4a", "Äpfel.m4a", "日本の歌.m4a", "Sólskin – Fjörður.m4a",
                                            " leading space", "-dash", "Ελληνικά", "Z"};
    for (const auto& name : names) touch(media("Music/" + name));
    ASSERT_EQ(::mkdir(media("Music/Sub Folder").c_str(), 0755), 0);

    std::vector<std::string> expected = names;
    expected.push_back("Sub Folder");
    std::sort(expected.begin(), expected.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                            [](char x, char y) { return (unsigned char)x < (unsigned char)y; });
    });
    expected.insert(expected.begin(), {".", ".."});

    HLDStatus status = 0;
    EXPECT_EQ(listNames(conduit.connection, "Music", &status), expected);
    EXPECT_EQ(status, kQFCSuccess);
    // One read per name and one for the end, as if each were its own call.
    EXPECT_EQ(device->count("qfc-dir-read"), static_cast<int>(expected.size()) + 1);
    EXPECT_EQ(device->count("qfc-dir-open"), 1);
    EXPECT_EQ(device->count("qfc-dir-close"), 1);
    EXPECT_EQ(listNames(conduit.connection, "Music/", &status), expected);
    EXPECT_EQ(listNames(conduit.connection, "/Music//", &status), expected);
}

TEST_F(DirectoryTest, InformationOfEntriesComesWithTheBatch) {
    ASSERT_EQ(::mkdir(media("Lumen").c_str(), 0755), 0);
    touch(media("Lumen/Library.lmdb"), std::string(3000, 'x'));
    touch(media("Lumen/Library.lmdb-journal"));
    ASSERT_EQ(::mkdir(media("Lumen/Sync").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("Library.lmdb", media("Lumen/latest").c_str()), 0);

    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "Lumen/", &dir), kQFCSuccess);
    std::map<std::string, std::string> types, sizes;
    for (;;) {
        const char* name = nullptr;
        ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
        if (!name) break;
        if (std::string(name) == "." || std::string(name) == "..") continue;
        HLDStatus status = 0;
        // The way the transfer walk joins names to its folder path.
        auto pairs = infoPairs(conduit.connection, ("Lumen/" + std::string(name)).c_str(), &status);
        ASSERT_EQ(status, kQFCSuccess) << name;
        types[name] = pairs["st_ifmt"];
        sizes[name] = pairs["st_size"];
    }
    EXPECT_EQ(device->count("qfc-info"), 0);  // not one round trip for information
    EXPECT_EQ(types["Library.lmdb"], "S_IFREG");
    EXPECT_EQ(sizes["Library.lmdb"], "3000");
    EXPECT_EQ(sizes["Library.lmdb-journal"], "0");
    EXPECT_EQ(types["Sync"], "S_IFDIR");
    EXPECT_EQ(types["latest"], "S_IFLNK");
    // A path that is not an entry of an open folder costs one round trip.
    HLDStatus status = 0;
    infoPairs(conduit.connection, "Lumen", &status);
    EXPECT_EQ(device->count("qfc-info"), 1);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
    infoPairs(conduit.connection, "Lumen/Library.lmdb", &status);
    EXPECT_EQ(device->count("qfc-info"), 2);  // the folder is closed: its batch is gone
}

TEST_F(DirectoryTest, WhileAnInfoFaultIsArmedEveryInfoCallReachesTheDevice) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c"}) touch(media(std::string("D/") + name));
    handlink::emu::Fault fault;
    fault.operation = "qfc-info";
    fault.status = kQFCReadError;
    fault.match = "D/b";
    device->addFault(fault);

    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    std::vector<HLDStatus> statuses;
    for (;;) {
        const char* name = nullptr;
        ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
        if (!name) break;
        if (name[0] == '.') continue;
        HLDStatus status = 0;
        infoPairs(conduit.connection, ("D/" + std::string(name)).c_str(), &status);
        statuses.push_back(status);
    }
    EXPECT_EQ(statuses, (std::vector<HLDStatus>{0, kQFCReadError, 0}));
    EXPECT_EQ(device->count("qfc-info"), 3);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);

    // A delay counts as armed too.
    device->delay("qfc-info", 1, 5);
    HLDStatus status = 0;
    listNames(conduit.connection, "D", &status);
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    infoPairs(conduit.connection, "D/a", &status);
    EXPECT_EQ(status, kQFCSuccess);
    EXPECT_EQ(device->count("qfc-info"), 4);
}

TEST_F(DirectoryTest, AnInfoFaultArmedAfterTheBatchCameStillStrikesItsEntries) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c"}) touch(media(std::string("D/") + name), "xy");
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    HLDStatus status = 0;
    EXPECT_EQ(infoPairs(conduit.connection, "D/a", &status)["st_size"], "2");
    EXPECT_EQ(device->count("qfc-info"), 0);  // from the batch

    handlink::emu::Fault fault;
    fault.operation = "qfc-info";
    fault.status = kQFCReadError;
    fault.match = "D/b";
    device->addFault(fault);
    infoPairs(conduit.connection, "D/b", &status);
    EXPECT_EQ(status, kQFCReadError);
    EXPECT_EQ(device->count("qfc-info"), 1);
    // The fault is spent, but the batch came before it was armed: its information is not
    // trusted again; a new batch brings it along again.
    EXPECT_EQ(infoPairs(conduit.connection, "D/c", &status)["st_size"], "2");
    EXPECT_EQ(device->count("qfc-info"), 2);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    EXPECT_EQ(infoPairs(conduit.connection, "D/c", &status)["st_size"], "2");
    EXPECT_EQ(device->count("qfc-info"), 2);

    // A delay armed later sends the entries' information calls to the device as well.
    device->delay("qfc-info", 1, 1);
    EXPECT_EQ(infoPairs(conduit.connection, "D/a", &status)["st_size"], "2");
    EXPECT_EQ(device->count("qfc-info"), 3);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
}

TEST_F(DirectoryTest, DirectoryReadsAreCountedAsTheClientMadeThem) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c", "d"}) touch(media(std::string("D/") + name));
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    const char* name = nullptr;
    for (const char* expected : {".", "..", "a"}) {
        ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
        EXPECT_STREQ(name, expected);
    }
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
    // Three calls, not the six names and the end the first batch held.
    EXPECT_EQ(device->count("qfc-dir-read"), 3);

    // Reads after the end are calls as well.
    HLDStatus status = 0;
    EXPECT_EQ(listNames(conduit.connection, "D", &status).size(), 6u);
    EXPECT_EQ(device->count("qfc-dir-read"), 3 + 7);
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
    EXPECT_EQ(device->count("qfc-dir-read"), 3 + 7 + 8);
}

TEST_F(DirectoryTest, AListingFaultArmedAfterTheBatchCameStrikesTheNextRead) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c", "d"}) touch(media(std::string("D/") + name));
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    const char* name = nullptr;
    ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
    ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
    EXPECT_STREQ(name, "..");

    handlink::emu::Fault fault;
    fault.operation = "qfc-dir-read";
    fault.status = kQFCReadError;
    fault.after = 1;  // "a" comes through, the read after it fails
    fault.match = "D";
    device->addFault(fault);
    ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
    EXPECT_STREQ(name, "a");
    EXPECT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCReadError);
    EXPECT_EQ(name, nullptr);
    // The listing broke off there.
    EXPECT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCReadError);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
    EXPECT_EQ(device->count("qfc-dir-read"), 5);

    // With the fault spent, the next listing is whole.
    HLDStatus status = 0;
    EXPECT_EQ(listNames(conduit.connection, "D", &status).size(), 6u);
    EXPECT_EQ(status, kQFCSuccess);
}

TEST_F(DirectoryTest, AListingFaultBreaksOffAfterTheNamesBeforeIt) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c", "d"}) touch(media(std::string("D/") + name));
    handlink::emu::Fault fault;
    fault.operation = "qfc-dir-read";
    fault.status = kQFCReadError;
    fault.after = 4;  // ".", "..", "a", "b" come through
    fault.match = "D";
    device->addFault(fault);
    HLDStatus status = 0;
    EXPECT_EQ(listNames(conduit.connection, "D", &status), (std::vector<std::string>{".", "..", "a", "b"}));
    EXPECT_EQ(status, kQFCReadError);
    // The next listing is whole again.
    EXPECT_EQ(listNames(conduit.connection, "D", &status).size(), 6u);
    EXPECT_EQ(status, kQFCSuccess);
}

TEST_F(DirectoryTest, FoldersLargerThanABatchComeWholeAndInOrder) {
    ASSERT_EQ(::mkdir(media("Big").c_str(), 0755), 0);
    std::set<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        const std::string name = "track " + std::to_string((i * 7919) % 5000) + ".m4a";
        touch(media("Big/" + name));
        expected.insert(name);
    }
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "Big", &dir), kQFCSuccess);
    std::vector<std::string> got;
    int roundTripsForInfo = 0;
    for (;;) {
        const char* name = nullptr;
        ASSERT_EQ(QFCDirectoryRead(conduit.connection, dir, &name), kQFCSuccess);
        if (!name) break;
        got.emplace_back(name);
        if (got.size() > 2) {
            HLDStatus status = 0;
            auto pairs = infoPairs(conduit.connection, ("Big/" + got.back()).c_str(), &status);
            ASSERT_EQ(status, kQFCSuccess);
            ASSERT_EQ(pairs["st_ifmt"], "S_IFREG");
        }
    }
    roundTripsForInfo = device->count("qfc-info");
    EXPECT_EQ(roundTripsForInfo, 0);
    ASSERT_EQ(got.size(), 5002u);
    EXPECT_TRUE(std::is_sorted(got.begin() + 2, got.end()));
    EXPECT_EQ(std::set<std::string>(got.begin() + 2, got.end()), expected);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
}

TEST_F(DirectoryTest, UnknownHandlesAndFilesAsFolders) {
    touch(media("file"));
    QFCDirectoryRef dir = 0;
    EXPECT_EQ(QFCDirectoryOpen(conduit.connection, "file", &dir), kQFCNotFoundError);
    const char* name = "unchanged";
    EXPECT_EQ(QFCDirectoryRead(conduit.connection, 77, &name), kQFCInvalidArgumentError);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, 77), kQFCInvalidArgumentError);
}

// The listing in bounded memory: a window much smaller than the folder still gives every
// name once, in order, over several passes.
TEST(DirectoryListingTest, SmallWindowsListEverythingInOrder) {
    QTemporaryDir root;
    const std::string folder = root.path().toStdString();
    std::set<std::string> names;
    for (int i = 0; i < 300; ++i) {
        const std::string name = "n" + std::to_string((i * 37) % 300);
        touch(folder + "/" + name);
        names.insert(name);
    }
    for (size_t window : {1u, 7u, 64u, 299u, 300u, 1000u}) {
        SCOPED_TRACE(window);
        handlink::emu::qfc::DirectoryListing listing(
            handlink::wire::UniqueFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), window);
        std::vector<std::string> got;
        std::string name;
        int error = 0;
        while (listing.next(&name, &error)) got.push_back(name);
        EXPECT_EQ(error, 0);
        ASSERT_EQ(got.size(), 302u);
        EXPECT_EQ(got[0], ".");
        EXPECT_EQ(got[1], "..");
        EXPECT_EQ(std::vector<std::string>(got.begin() + 2, got.end()), std::vector<std::string>(names.begin(), names.end()));
    }
}

}  // namespace
}  // namespace qfctest
