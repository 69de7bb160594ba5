#pragma once
// File information as the conduit reports it, read with statx (the link itself, never its
// target) so that a birth time is known exactly when the file system gives one.
#include <cstdint>
#include <optional>

namespace handlink::emu::qfc {

struct FileStat {
    uint64_t size = 0;
    uint64_t blocks = 0;
    uint64_t nlink = 0;
    uint32_t mode = 0;                 // the S_IFMT bits
    int64_t mtimeNs = 0;               // nanoseconds since 1970
    std::optional<int64_t> btimeNs;    // absent when the file system reports no birth time
};

// statx of `name` in folder `dir` (an empty name: the folder itself). Returns 0 or an errno.
int statEntry(int dir, const char* name, FileStat* out);

}  // namespace handlink::emu::qfc
