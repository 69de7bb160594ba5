// Sample media areas: deterministic for a seed, realistic in shape, small enough for the demo.
#include <sys/stat.h>

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>

#include "handlink/emulator/Emulator.h"
#include "handlink/emulator/sample/SampleMedia.h"

namespace {

namespace fs = std::filesystem;

struct Tree {
    std::map<std::string, std::string> entries;  // path -> kind, size, mtime, digest
    uint64_t bytes = 0;
    int files = 0;
    int folders = 0;
    int emptyFiles = 0;
    int maxDepth = 0;
    bool nonAscii = false;
    bool spaces = false;
};

Tree scan(const QString& media) {
    Tree tree;
    const fs::path root = media.toStdString();
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const fs::path path = it->path();
        const std::string relative = fs::relative(path, root).string();
        struct stat st;
        lstat(path.c_str(), &st);
        std::string value = std::to_string(st.st_mode & S_IFMT) + " " + std::to_string(st.st_size) + " " +
                            std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) {
            QFile file(QString::fromStdString(path.string()));
            file.open(QIODevice::ReadOnly);
            QCryptographicHash hash(QCryptographicHash::Sha1);
            hash.addData(&file);
            value += " " + hash.result().toHex().toStdString();
            tree.bytes += static_cast<uint64_t>(st.st_size);
            ++tree.files;
            if (st.st_size == 0) ++tree.emptyFiles;
        } else {
            ++tree.folders;
        }
        tree.entries[relative] = value;
        tree.maxDepth = std::max(tree.maxDepth, it.depth() + 1);
        for (unsigned char c : relative) tree.nonAscii |= c >= 0x80;
        tree.spaces |= relative.find(' ') != std::string::npos;
    }
    return tree;
}

QString makeSample(const QTemporaryDir& root, const QString& name, const QString& sample, uint32_t seed, int files = 0) {
    handlink::emu::MakeDeviceOptions options;
    options.sample = sample;
    options.seed = seed;
    options.files = files;
    const QString folder = root.filePath(name);
    QString error;
    EXPECT_TRUE(handlink::emu::makeDevice(folder, options, &error)) << error.toStdString();
    return folder + QStringLiteral("/Media");
}

TEST(SampleMediaTest, TheSameSeedGivesTheSameTreeAndBytes) {
    QTemporaryDir root;
    const Tree first = scan(makeSample(root, "one", "small", 7));
    const Tree second = scan(makeSample(root, "two", "small", 7));
    EXPECT_EQ(first.entries, second.entries);
    EXPECT_GT(first.files, 200);
    const Tree other = scan(makeSample(root, "three", "small", 8));
    EXPECT_NE(first.entries, other.entries);
}

TEST(SampleMediaTest, SmallIsRealisticAndUnderTwentyMegabytes) {
    QTemporaryDir root;
    const QString media = makeSample(root, "device", "small", 1);
    const Tree tree = scan(media);
    EXPECT_LT(tree.bytes, 20u * 1000 * 1000);
    EXPECT_GT(tree.bytes, 5u * 1000 * 1000);
    EXPECT_GE(tree.maxDepth, 6);
    EXPECT_TRUE(tree.nonAscii);
    EXPECT_TRUE(tree.spaces);
    EXPECT_GE(tree.emptyFiles, 5);

    // Every default Get Files path is either there or one of the few left out on purpose.
    const char* const listed[] = {"Lumen_Control/Lumen/", "Debug/", "com.corvid.dbaccess.lock",
                                  "com.corvid.lmdbprep.postprocess.lock", "com.corvid.lumen.lock_sync",
                                  "Downloads/manifest", "Purchases/MobileDB/", "Purchases/MobileArtworkDB/",
                                  "Purchases/StorePurchasesInfo.plist", "Podcasts/MobileDB/",
                                  "Podcasts/MobileArtworkDB/", "Podcasts/StorePurchasesInfo.plist",
                                  "Lumen_Control/Artwork/", "Purchases/", "Podcasts/", "Recordings/"};
    std::set<std::string> missing;
    for (const char* const* p = handlink::emu::sample::sampleMissingPaths(); *p; ++p) missing.insert(*p);
    EXPECT_GE(missing.size(), 3u);
    for (const char* path : listed) {
        const std::string full = media.toStdString() + "/" + path;
        const bool folder = std::string(path).back() == '/';
        struct stat st;
        const bool exists = ::stat(full.c_str(), &st) == 0 && (S_ISDIR(st.st_mode) == folder);
        EXPECT_NE(exists, missing.count(path) > 0) << path;
    }
    // Databases with their journals in the library folder; the big files are big.
    EXPECT_TRUE(tree.entries.count("Lumen_Control/Lumen/Lumen Library.lmdb"));
    EXPECT_TRUE(tree.entries.count("Lumen_Control/Lumen/Lumen Library.lmdb-journal"));
    struct stat big;
    ASSERT_EQ(::stat((media + "/Recordings/Long Session.m4a").toLocal8Bit().constData(), &big), 0);
    EXPECT_GT(big.st_size, 2 * 1000 * 1000);
    // The bulk of the tracks is shelved by artist and album.
    int tracks = 0;
    for (const auto& [path, value] : tree.entries) {
        if (path.rfind("Lumen_Control/Music/", 0) != 0 || value.rfind(std::to_string(S_IFREG) + " ", 0) != 0) continue;
        EXPECT_EQ(std::count(path.begin(), path.end(), '/'), 4) << path;
        ++tracks;
    }
    EXPECT_GT(tracks, 150);
}

TEST(SampleMediaTest, SizesAndFileCountsForBenchmarks) {
    handlink::emu::sample::SamplePlan plan;
    ASSERT_TRUE(handlink::emu::sample::planSample("2G", 0, &plan));
    EXPECT_EQ(plan.bytes, 2ull << 30);
    ASSERT_TRUE(handlink::emu::sample::planSample("600M", 1000, &plan));
    EXPECT_EQ(plan.bytes, 600ull << 20);
    EXPECT_EQ(plan.files, 1000);
    ASSERT_TRUE(handlink::emu::sample::planSample("large", 0, &plan));
    EXPECT_EQ(plan.bytes, 1ull << 30);
    QString error;
    EXPECT_FALSE(handlink::emu::sample::planSample("huge", 0, &plan, &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(handlink::emu::sample::planSample("0", 0, &plan));
    EXPECT_FALSE(handlink::emu::sample::planSample("12X", 0, &plan));

    QTemporaryDir root;
    const Tree tree = scan(makeSample(root, "device", "4M", 3, 1500));
    EXPECT_EQ(tree.files, 1500);
    EXPECT_LE(tree.bytes, 4ull << 20);
}

}  // namespace
