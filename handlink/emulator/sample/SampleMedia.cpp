#include "handlink/emulator/sample/SampleMedia.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace handlink::emu {
namespace sample {

namespace {

constexpr uint64_t kSmallBytes = 15ull << 20;
constexpr uint64_t kLargeBytes = 1ull << 30;
constexpr int kSmallFiles = 240;
constexpr int kLargeFiles = 20000;
constexpr int kSizedFiles = 2000;
constexpr int64_t kEpoch = 1672531200;  // 2023-01-01 00:00:00 UTC: every time is after it

const char* const kMissing[] = {
    "com.corvid.lmdbprep.postprocess.lock",
    "Downloads/manifest",
    "Purchases/MobileArtworkDB/",
    "Podcasts/StorePurchasesInfo.plist",
    nullptr,
};

// splitmix64: small, fast and the same on every machine.
class Rng {
public:
    explicit Rng(uint64_t seed) : _state(seed * 0x9E3779B97F4A7C15ull + 0x5851F42D4C957F2Dull) {}
    uint64_t next() {
        uint64_t z = (_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t n) { return n ? next() % n : 0; }

private:
    uint64_t _state;
};

enum class Kind { Empty, Data, Plist, Text };

struct Fixed {
    const char* path;
    Kind kind;
    uint64_t bytes;     // fixed size (Data, Text)
    unsigned permille;  // or this share of the budget (Data)
};

// The fixed part of every sample. Sizes are either fixed or a share of the budget; the big
// three at the end are the "few large files".
const Fixed kFixed[] = {
    // The Lumen library: its databases with their journals, and the property lists beside them.
    {"Lumen_Control/Lumen/Lumen Library.lmdb", Kind::Data, 0, 60},
    {"Lumen_Control/Lumen/Lumen Library.lmdb-journal", Kind::Empty, 0, 0},
    {"Lumen_Control/Lumen/Play History.lmdb", Kind::Data, 0, 30},
    {"Lumen_Control/Lumen/Play History.lmdb-journal", Kind::Data, 0, 5},
    {"Lumen_Control/Lumen/Library Index.lmdb", Kind::Data, 32768, 0},
    {"Lumen_Control/Lumen/Playlists.lmdb", Kind::Data, 0, 10},
    {"Lumen_Control/Lumen/Playlists.lmdb-journal", Kind::Empty, 0, 0},
    {"Lumen_Control/Lumen/Lyrics.lmdb", Kind::Data, 0, 5},
    {"Lumen_Control/Lumen/Mixes.lmdb", Kind::Data, 0, 5},
    {"Lumen_Control/Lumen/Library Folders.plist", Kind::Plist, 0, 0},
    {"Lumen_Control/Lumen/Lumen Settings.plist", Kind::Plist, 0, 0},
    {"Lumen_Control/Lumen/Sync/Sync State.plist", Kind::Plist, 0, 0},
    {"Lumen_Control/Lumen/Sync/Previous/2023-05-14/Lumen Library.lmdb", Kind::Data, 0, 5},
    {"Lumen_Control/Lumen/Sync/Previous/2023-05-14/Lumen Library.lmdb-journal", Kind::Empty, 0, 0},
    // Artwork: caches named by the size of their pictures, and the originals.
    {"Lumen_Control/Artwork/Caches/Covers 120x120.cache", Kind::Data, 0, 4},
    {"Lumen_Control/Artwork/Caches/Covers 600x600.cache", Kind::Data, 0, 8},
    {"Lumen_Control/Artwork/Originals/Album Covers/Mirela Ström – Första ljuset.jpg", Kind::Data, 0, 3},
    {"Lumen_Control/Artwork/Originals/Album Covers/Café am Fluss 3.jpg", Kind::Data, 0, 3},
    {"Lumen_Control/Artwork/Originals/Album Covers/日本の歌.jpg", Kind::Data, 0, 3},
    {"Debug/Lumen Sync.log", Kind::Text, 24000, 0},
    {"Debug/Lumen.log", Kind::Text, 9000, 0},
    {"Debug/Crash Reports/Lumen 2023-05-14 10-15-00.log", Kind::Text, 6000, 0},
    {"Debug/Crash Reports/Retired/2022/Lumen 2022-11-02 08-01-02.log", Kind::Text, 5000, 0},
    {"com.corvid.dbaccess.lock", Kind::Empty, 0, 0},
    {"com.corvid.lumen.lock_sync", Kind::Empty, 0, 0},
    {"Downloads/Downloads.lmdb", Kind::Data, 0, 2},
    {"Downloads/Downloads.lmdb-journal", Kind::Empty, 0, 0},
    {"Purchases/MobileDB/Purchases.lmdb", Kind::Data, 0, 6},
    {"Purchases/MobileDB/Purchases.lmdb-journal", Kind::Empty, 0, 0},
    {"Purchases/MobileDB/Purchase History.lmdb", Kind::Data, 0, 3},
    {"Purchases/StorePurchasesInfo.plist", Kind::Plist, 0, 0},
    {"Purchases/Aurélie Marchal/Nouvelle Saison/01 Début.m4a", Kind::Data, 0, 20},
    {"Purchases/Aurélie Marchal/Nouvelle Saison/02 Mañana clara.m4a", Kind::Data, 0, 18},
    {"Podcasts/MobileDB/Podcasts.lmdb", Kind::Data, 0, 4},
    {"Podcasts/MobileDB/Podcasts.lmdb-journal", Kind::Empty, 0, 0},
    {"Podcasts/MobileArtworkDB/Covers 120x120.cache", Kind::Data, 0, 2},
    {"Podcasts/MobileArtworkDB/Covers 300x300.cache", Kind::Data, 0, 1},
    {"Podcasts/MobileArtworkDB/Covers 600x600.cache", Kind::Data, 0, 1},
    {"Podcasts/Lantern Hour/Episode 12 – Über Stille.mp3", Kind::Data, 0, 30},
    {"Podcasts/Lantern Hour/Episode 13 – Тишина.mp3", Kind::Data, 0, 25},
    {"Recordings/Rehearsal 1.m4a", Kind::Data, 0, 12},
    {"Recordings/Café Session.m4a", Kind::Data, 0, 10},
    {"Recordings/Notes/2019/März/Kiosk 日本.m4a", Kind::Data, 0, 6},
    {"Recordings/Notes/2019/März/empty take.m4a", Kind::Empty, 0, 0},
    {"Books/Audio/Series A/Volume 1/Part 2/Ελληνικά/Chapter 01.m4a", Kind::Data, 0, 8},
    {"Books/Audio/Series A/Volume 1/Part 2/Ελληνικά/Chapter 02.m4a", Kind::Data, 0, 8},
    {"Recordings/Long Session.m4a", Kind::Data, 0, 150},
    {"Books/Audio/Series A/Volume 1/Part 1/Chapter 00 (Full).m4a", Kind::Data, 0, 120},
    {"Lumen_Control/Music/Various Artists/Live at the Harbour/Live Set (Full).m4a", Kind::Data, 0, 100},
};

// Empty folders a device keeps around.
const char* const kEmptyFolders[] = {
    "Lumen_Control/Lumen/Temp",
    "Photos/Thumbs",
};

// Track titles in other scripts, for every 37th track of the bulk.
const char* const kTitles[] = {
    "Sólskin", "Café am Fluss", "Über den Hügeln", "Ελληνικά", "日本の歌", "Привет", "Mañana clara", "Naïve Étude",
};

// Syllables of the invented artist, album and track names of the bulk.
const char* const kSyllables[] = {
    "ka", "lo", "mi", "ra", "ben", "tor", "sel", "du", "an", "ri", "mar", "bel", "os", "te", "lin", "ne", "fo", "sha",
};

class Writer {
public:
    Writer(std::string root, uint32_t seed) : _root(std::move(root)), _rng(seed) {}

    bool folder(const std::string& rel) {
        std::string path = _root;
        size_t start = 0;
        while (start < rel.size()) {
            size_t end = rel.find('/', start);
            if (end == std::string::npos) end = rel.size();
            path += '/';
            path.append(rel, start, end - start);
            if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return fail("mkdir", path);
            if (_folderSet.insert(path).second) _folders.push_back(path);
            start = end + 1;
        }
        return true;
    }

    bool file(const std::string& rel, Kind kind, uint64_t bytes) {
        size_t slash = rel.rfind('/');
        if (slash != std::string::npos && !folder(rel.substr(0, slash))) return false;
        const std::string path = _root + "/" + rel;
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return fail("open", path);
        bool ok = true;
        switch (kind) {
        case Kind::Empty: break;
        case Kind::Plist: ok = writeAll(fd, plistText(rel)); break;
        case Kind::Text: ok = writeText(fd, bytes); break;
        case Kind::Data: ok = writeData(fd, bytes, rel); break;
        }
        struct stat st;
        if (ok && ::fstat(fd, &st) == 0) _written += static_cast<uint64_t>(st.st_size);
        ::close(fd);
        if (!ok) return fail("write", path);
        ++_files;
        return stamp(path);
    }

    // Folder times last, deepest first, so adding entries does not move them again.
    bool finish() {
        std::sort(_folders.begin(), _folders.end(), [](const std::string& a, const std::string& b) {
            return std::count(a.begin(), a.end(), '/') > std::count(b.begin(), b.end(), '/');
        });
        for (const auto& path : _folders)
            if (!stamp(path)) return false;
        return true;
    }

    Rng& rng() { return _rng; }
    int files() const { return _files; }
    uint64_t written() const { return _written; }
    const std::string& error() const { return _error; }

private:
    bool fail(const char* what, const std::string& path) {
        _error = std::string(what) + " " + path + ": " + std::strerror(errno);
        return false;
    }

    bool stamp(const std::string& path) {
        struct timespec times[2];
        times[0].tv_sec = times[1].tv_sec = kEpoch + static_cast<int64_t>(_rng.below(365ull * 86400));
        times[0].tv_nsec = times[1].tv_nsec = static_cast<long>(_rng.below(1000000000ull));
        if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) return fail("utimensat", path);
        return true;
    }

    static bool writeAll(int fd, const std::string& text) { return writeBytes(fd, text.data(), text.size()); }

    static bool writeBytes(int fd, const char* data, size_t size) {
        while (size > 0) {
            ssize_t n = ::write(fd, data, size);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    std::string plistText(const std::string& rel) {
        std::string text =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n<dict>\n\t<key>Path</key>\n\t<string>";
        text += rel;
        text += "</string>\n\t<key>Revision</key>\n\t<integer>";
        text += std::to_string(_rng.below(100000));
        text += "</integer>\n</dict>\n</plist>\n";
        return text;
    }

    bool writeText(int fd, uint64_t bytes) {
        std::string text;
        while (text.size() < bytes) {
            text += "2023-05-14 10:15:" + std::to_string(10 + _rng.below(50)) + " lumen-sync[" +
                    std::to_string(100 + _rng.below(900)) + "]: step " + std::to_string(_rng.below(10000)) + "\n";
        }
        text.resize(bytes);
        return writeAll(fd, text);
    }

    bool writeData(int fd, uint64_t bytes, const std::string& rel) {
        std::vector<uint64_t> block(32 * 1024);  // 256 KiB
        bool first = true;
        while (bytes > 0) {
            for (auto& word : block) word = _rng.next();
            char* data = reinterpret_cast<char*>(block.data());
            if (first) {
                // A small header naming the kind of file, the way database files start.
                const std::string tag = rel.ends_with(".lmdb") ? "LUMEN MEDIA DATABASE 1" : "TAMBER DATA";
                std::memcpy(data, tag.data(), std::min<size_t>(tag.size() + 1, block.size() * 8));
                first = false;
            }
            const size_t chunk = static_cast<size_t>(std::min<uint64_t>(bytes, block.size() * 8));
            if (!writeBytes(fd, data, chunk)) return false;
            bytes -= chunk;
        }
        return true;
    }

    std::string _root;
    Rng _rng;
    std::vector<std::string> _folders;
    std::set<std::string> _folderSet;
    int _files = 0;
    uint64_t _written = 0;
    std::string _error;
};

bool parseSize(const QString& text, uint64_t* bytes) {
    if (text.isEmpty()) return false;
    QString digits = text;
    int shift = 0;
    switch (text.back().toUpper().unicode()) {
    case 'K': shift = 10; break;
    case 'M': shift = 20; break;
    case 'G': shift = 30; break;
    case 'T': shift = 40; break;
    default: break;
    }
    if (shift) digits.chop(1);
    bool ok = false;
    const qulonglong value = digits.toULongLong(&ok);
    if (!ok || value == 0 || value > (~0ull >> shift)) return false;
    *bytes = static_cast<uint64_t>(value) << shift;
    return true;
}

// An invented word of two or three syllables, capitalised.
std::string word(Rng& rng) {
    std::string text;
    const int syllables = 2 + static_cast<int>(rng.below(2));
    for (int i = 0; i < syllables; ++i) text += kSyllables[rng.below(std::size(kSyllables))];
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
    return text;
}

// A name of one or two words that `used` does not hold yet (and holds from now on).
std::string uniqueName(Rng& rng, std::set<std::string>* used) {
    for (;;) {
        std::string name = word(rng);
        if (rng.below(2)) name += " " + word(rng);
        if (used->insert(name).second) return name;
    }
}

// The bulk of the tracks, shelved the way the library keeps music: one folder per artist with
// one to five albums of 8 to 16 tracks, each named by its number and title.
class Shelf {
public:
    explicit Shelf(Rng& rng) : _rng(rng) {}

    // The path of the bulk's next track (index counts from 0).
    std::string next(int index) {
        if (_tracksLeft == 0) {
            if (_albumsLeft == 0) {
                _artist = uniqueName(_rng, &_artists);
                _albums.clear();
                _albumsLeft = 1 + static_cast<int>(_rng.below(5));
            }
            _album = uniqueName(_rng, &_albums);
            --_albumsLeft;
            _tracksLeft = 8 + static_cast<int>(_rng.below(9));
            _track = 0;
        }
        --_tracksLeft;
        const std::string title =
            index % 37 == 5 ? std::string(kTitles[_rng.below(std::size(kTitles))]) : word(_rng) + " " + word(_rng);
        char number[16];
        std::snprintf(number, sizeof number, "%02d ", ++_track);
        return "Lumen_Control/Music/" + _artist + "/" + _album + "/" + number + title + ".m4a";
    }

private:
    Rng& _rng;
    std::set<std::string> _artists, _albums;
    std::string _artist, _album;
    int _albumsLeft = 0, _tracksLeft = 0, _track = 0;
};

}  // namespace

const char* const* sampleMissingPaths() { return kMissing; }

bool planSample(const QString& sample, int files, SamplePlan* plan, QString* error) {
    int defaultFiles = kSizedFiles;
    if (sample == QLatin1String("small")) {
        plan->bytes = kSmallBytes;
        defaultFiles = kSmallFiles;
    } else if (sample == QLatin1String("large")) {
        plan->bytes = kLargeBytes;
        defaultFiles = kLargeFiles;
    } else if (!parseSize(sample, &plan->bytes)) {
        if (error) *error = QStringLiteral("unknown sample \"%1\" (small, large or a size such as 2G)").arg(sample);
        return false;
    }
    if (files < 0) {
        if (error) *error = QStringLiteral("the number of files must not be negative");
        return false;
    }
    plan->files = std::max<int>(files ? files : defaultFiles, static_cast<int>(std::size(kFixed)));
    return true;
}

}  // namespace sample

bool fillSampleMedia(const QString& mediaRoot, const MakeDeviceOptions& options, QString* error) {
    using namespace sample;
    SamplePlan plan;
    if (!planSample(options.sample, options.files, &plan, error)) return false;
    const std::string root = mediaRoot.toStdString();
    if (::mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) {
        if (error) *error = QStringLiteral("mkdir %1: %2").arg(mediaRoot, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    Writer writer(root, options.seed);
    const auto failed = [&] {
        if (error) *error = QString::fromStdString(writer.error());
        return false;
    };

    uint64_t fixedBytes = 0;
    for (const Fixed& f : kFixed) {
        const uint64_t bytes = f.bytes ? f.bytes : plan.bytes / 1000 * f.permille;
        fixedBytes += bytes;
        if (!writer.file(f.path, f.kind, bytes)) return failed();
    }
    for (const char* folder : kEmptyFolders)
        if (!writer.folder(folder)) return failed();

    // The bulk: tracks on the shelf, sizes around an even share of what is left.
    const int bulk = plan.files - static_cast<int>(std::size(kFixed));
    const uint64_t rest = plan.bytes > fixedBytes ? plan.bytes - fixedBytes : 0;
    const uint64_t mean = bulk > 0 ? rest / static_cast<uint64_t>(bulk) : 0;
    Shelf shelf(writer.rng());
    for (int i = 0; i < bulk; ++i) {
        const std::string path = shelf.next(i);
        const uint64_t left = plan.bytes > writer.written() ? plan.bytes - writer.written() : 0;
        const uint64_t bytes = std::min(left, mean / 2 + writer.rng().below(mean + 1));
        if (!writer.file(path, i % 53 == 7 ? Kind::Empty : Kind::Data, bytes)) return failed();
    }
    if (!writer.finish()) return failed();
    return true;
}

}  // namespace handlink::emu
