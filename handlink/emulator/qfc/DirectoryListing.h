#pragma once
// The names of one open folder in byte order, "." and ".." first, read in passes over the
// folder that each keep at most `window` names in memory: a folder of any size is listed in
// bounded memory, and a folder that fits the window (nearly every one) costs a single pass.
#include <cstddef>
#include <string>
#include <vector>

#include "handlink/wire/UniqueFd.h"

namespace handlink::emu::qfc {

class DirectoryListing {
public:
    static constexpr size_t kDefaultWindow = 65536;

    // Takes an O_RDONLY|O_DIRECTORY descriptor of the folder.
    explicit DirectoryListing(wire::UniqueFd folder, size_t window = kDefaultWindow);

    int fd() const { return _folder.get(); }
    // The next name, or false at the end; *error is an errno when reading the folder failed.
    bool next(std::string* name, int* error);

private:
    int refill();  // one pass: the next window of names after _last; returns 0 or an errno

    wire::UniqueFd _folder;
    size_t _window;
    int _dots = 0;                     // "." and ".." handed out so far
    std::vector<std::string> _queue;   // sorted, served from _position
    size_t _position = 0;
    std::string _last;                 // the last name served (passes resume after it)
    bool _started = false;             // a pass has run
    bool _complete = false;            // the last pass saw every remaining name
};

}  // namespace handlink::emu::qfc
