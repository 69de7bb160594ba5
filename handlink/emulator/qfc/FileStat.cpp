#include "handlink/emulator/qfc/FileStat.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace handlink::emu::qfc {

namespace {
int64_t nanoseconds(const struct statx_timestamp& t) {
    return static_cast<int64_t>(t.tv_sec) * 1000000000LL + static_cast<int64_t>(t.tv_nsec);
}
}  // namespace

int statEntry(int dir, const char* name, FileStat* out) {
    struct statx sx;
    const int flags = AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT | (*name ? 0 : AT_EMPTY_PATH);
    const unsigned mask = STATX_TYPE | STATX_SIZE | STATX_BLOCKS | STATX_NLINK | STATX_MTIME | STATX_BTIME;
    if (::statx(dir, name, flags, mask, &sx) != 0) return errno;
    out->size = sx.stx_size;
    out->blocks = sx.stx_blocks;
    out->nlink = sx.stx_nlink;
    out->mode = sx.stx_mode & S_IFMT;
    out->mtimeNs = nanoseconds(sx.stx_mtime);
    if (sx.stx_mask & STATX_BTIME)
        out->btimeNs = nanoseconds(sx.stx_btime);
    else
        out->btimeNs.reset();
    return 0;
}

}  // namespace handlink::emu::qfc
