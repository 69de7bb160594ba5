#pragma once
// A move-only owner of one file descriptor: closed exactly once, when the owner goes away or
// is reset. Makes a leaked or double-closed socket hard to write.
#include <unistd.h>
#include <utility>

namespace handlink::wire {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : _fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    explicit operator bool() const { return valid(); }
    // Gives up ownership without closing.
    int release() { return std::exchange(_fd, -1); }
    // Closes the current descriptor (if any) and owns fd instead.
    void reset(int fd = -1) {
        if (_fd >= 0) ::close(_fd);
        _fd = fd;
    }

private:
    int _fd = -1;
};

}  // namespace handlink::wire
