#pragma once
// One mutex per descriptor number, for service calls that take a plain socket descriptor
// (HLDPostNotification): a request and its answer are one exchange, even when two threads
// use the same descriptor. Entries are never removed; a reused number shares the mutex,
// which only serialises.
#include <mutex>

namespace handlink::client {

std::mutex& lockForDescriptor(int fd);

}  // namespace handlink::client
