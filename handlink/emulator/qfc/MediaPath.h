#pragma once
// Resolution of file-conduit paths inside one device's Media/ folder.
//
// A path is walked one component at a time from an open descriptor of Media/, every step an
// *at() call with O_NOFOLLOW, so neither a string trick nor a symlink swapped in between two
// calls can reach outside. "..", absolute symlinks and relative symlinks that climb above
// Media/ answer kQFCPermissionError. Symlinks that stay inside are followed where they are
// intermediate components; the final component is followed only when the caller asks.
#include <string>
#include <string_view>

#include "handlink/HandlinkStatus.h"
#include "handlink/wire/UniqueFd.h"

namespace handlink::emu::qfc {

using wire::UniqueFd;

enum class FinalLink { Keep, Follow };

// Where a path ends: the folder that holds the final component and that component's name.
// An empty name means the folder itself (the root, or a link that resolved to a folder).
struct ResolvedPath {
    UniqueFd parent;  // O_PATH descriptor of the holding folder
    std::string name;
};

// Resolves `path` (UTF-8 bytes, relative to Media/; a leading "/" is Media/ itself) below the
// open Media/ descriptor `root`. The final component may be missing (the caller decides what
// that means). Returns kQFCSuccess; kQFCPermissionError for a ".." component anywhere in the
// path (checked before anything else but a NUL), an escape through a link or a symlink loop;
// kQFCNotFoundError when an intermediate component is missing or not a folder;
// kQFCInvalidArgumentError for a path holding a NUL byte or a component longer than the file
// system allows (255 bytes).
HLDStatus resolvePath(int root, std::string_view path, FinalLink final, ResolvedPath* out);

// The one errno-to-status mapping of the conduit.
HLDStatus statusFromErrno(int error);

}  // namespace handlink::emu::qfc
