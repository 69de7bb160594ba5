#include "handlink/client/FdLocks.h"

#include <memory>
#include <unordered_map>

namespace handlink::client {

std::mutex& lockForDescriptor(int fd) {
    static std::mutex tableMutex;  // guards table
    static std::unordered_map<int, std::unique_ptr<std::mutex>> table;
    std::lock_guard lock(tableMutex);
    auto& entry = table[fd];
    if (!entry) entry = std::make_unique<std::mutex>();
    return *entry;
}

}  // namespace handlink::client
