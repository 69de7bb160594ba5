#include "handlink/emulator/qfc/MediaPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <vector>

namespace handlink::emu::qfc {

namespace {

constexpr int kMaxLinkExpansions = 40;

// The components of a path, without empty and "." ones.
void splitInto(std::string_view path, std::deque<std::string>* out, bool front) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        std::string_view part = path.substr(start, end - start);
        if (!part.empty() && part != ".") parts.emplace_back(part);
        start = end + 1;
    }
    if (front)
        out->insert(out->begin(), parts.begin(), parts.end());
    else
        out->insert(out->end(), parts.begin(), parts.end());
}

bool readLink(int dir, const std::string& name, std::string* target) {
    char buffer[4096];
    ssize_t n = ::readlinkat(dir, name.c_str(), buffer, sizeof buffer);
    if (n < 0 || n >= static_cast<ssize_t>(sizeof buffer)) return false;
    target->assign(buffer, static_cast<size_t>(n));
    return true;
}

}  // namespace

HLDStatus statusFromErrno(int error) {
    switch (error) {
    case 0: return kQFCSuccess;
    case ENOENT:
    case ENOTDIR: return kQFCNotFoundError;
    case EISDIR: return kQFCIsDirectoryError;
    case EACCES:
    case EPERM:
    case ELOOP:
    case EXDEV:
    case EROFS:
    case ENXIO: return kQFCPermissionError;  // ENXIO: a socket file, or a device node without its device
    case EEXIST: return kQFCFileExistsError;
    case ENOTEMPTY:
    case EBUSY: return kQFCBusyError;
    case ENOSPC:
    case EDQUOT: return kQFCNoSpaceError;
    case EWOULDBLOCK: return kQFCWouldBlockError;
    case EBADF:
    case EINVAL:
    case ENAMETOOLONG: return kQFCInvalidArgumentError;  // a name over 255 bytes
    case EIO: return kQFCReadError;
    case EMFILE:
    case ENFILE:
    case ENOMEM: return kQFCNoResourcesError;
    default: return kQFCUndefinedError;
    }
}

HLDStatus resolvePath(int root, std::string_view path, FinalLink final, ResolvedPath* out) {
    if (path.find('\0') != std::string_view::npos) return kQFCInvalidArgumentError;
    std::deque<std::string> pending;
    splitInto(path, &pending, false);
    // ".." in the caller's path is refused wherever it stands, before anything is looked at:
    // also after a missing component or a file ("missing/../x").
    for (const std::string& name : pending)
        if (name == "..") return kQFCPermissionError;

    // The folders walked so far, Media/ at the bottom; ".." from a link pops one.
    std::vector<UniqueFd> stack;
    stack.emplace_back(::openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!stack.back()) return statusFromErrno(errno);
    int expansions = 0;

    while (!pending.empty()) {
        std::string name = std::move(pending.front());
        pending.pop_front();
        if (name == "..") {  // from a link's target (the caller's were refused above)
            if (stack.size() == 1) return kQFCPermissionError;
            stack.pop_back();
            continue;
        }
        const bool last = pending.empty();
        const int dir = stack.back().get();
        if (last && final == FinalLink::Keep) {
            out->parent = std::move(stack.back());
            out->name = std::move(name);
            return kQFCSuccess;
        }
        struct stat st;
        if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT && last) {
                out->parent = std::move(stack.back());
                out->name = std::move(name);
                return kQFCSuccess;
            }
            return statusFromErrno(errno);
        }
        if (S_ISLNK(st.st_mode)) {
            std::string target;
            if (++expansions > kMaxLinkExpansions || !readLink(dir, name, &target))
                return kQFCPermissionError;
            if (target.empty()) return kQFCNotFoundError;
            if (target.front() == '/') return kQFCPermissionError;
            splitInto(target, &pending, true);
            continue;
        }
        if (last) {
            out->parent = std::move(stack.back());
            out->name = std::move(name);
            return kQFCSuccess;
        }
        if (!S_ISDIR(st.st_mode)) return kQFCNotFoundError;
        UniqueFd next(::openat(dir, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next) return errno == ELOOP ? kQFCPermissionError : statusFromErrno(errno);
        stack.push_back(std::move(next));
    }
    // Nothing left: the path names the folder on top of the stack itself.
    out->parent = std::move(stack.back());
    out->name.clear();
    return kQFCSuccess;
}

}  // namespace handlink::emu::qfc
