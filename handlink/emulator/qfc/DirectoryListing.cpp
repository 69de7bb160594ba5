#include "handlink/emulator/qfc/DirectoryListing.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace handlink::emu::qfc {

DirectoryListing::DirectoryListing(wire::UniqueFd folder, size_t window)
    : _folder(std::move(folder)), _window(std::max<size_t>(window, 1)) {}

bool DirectoryListing::next(std::string* name, int* error) {
    *error = 0;
    if (_dots < 2) {
        *name = _dots++ == 0 ? "." : "..";
        return true;
    }
    if (_position == _queue.size()) {
        if (_complete) return false;
        if (int e = refill()) {
            *error = e;
            return false;
        }
        if (_queue.empty()) return false;
    }
    *name = std::move(_queue[_position++]);
    _last = *name;
    return true;
}

int DirectoryListing::refill() {
    _queue.clear();
    _position = 0;
    if (::lseek(_folder.get(), 0, SEEK_SET) < 0) return errno;
    alignas(8) char buffer[64 * 1024];
    size_t seen = 0;  // names after _last in this pass, before trimming
    const auto trim = [this] {
        std::nth_element(_queue.begin(), _queue.begin() + static_cast<ptrdiff_t>(_window), _queue.end());
        _queue.resize(_window);
    };
    for (;;) {
        long n = ::syscall(SYS_getdents64, _folder.get(), buffer, sizeof buffer);
        if (n < 0) return errno;
        if (n == 0) break;
        for (long offset = 0; offset < n;) {
            auto* entry = reinterpret_cast<struct dirent64*>(buffer + offset);
            offset += entry->d_reclen;
            const char* entryName = entry->d_name;
            if (std::strcmp(entryName, ".") == 0 || std::strcmp(entryName, "..") == 0) continue;
            if (_started && std::strcmp(entryName, _last.c_str()) <= 0) continue;
            ++seen;
            _queue.emplace_back(entryName);
            if (_queue.size() >= 2 * _window) trim();
        }
    }
    if (_queue.size() > _window) trim();
    std::sort(_queue.begin(), _queue.end());
    _complete = seen <= _window;
    _started = true;
    return 0;
}

}  // namespace handlink::emu::qfc
