// What the soak watches of its own process (or of the queue's runner process), from /proc: a
// leak of threads, descriptors or memory shows as a difference between the figures before and
// after the uploads.
#pragma once

#include <sys/types.h>

namespace tavix::soak {

struct ProcessFigures {
    long threads = 0;    // entries of /proc/self/task
    long openFiles = 0;  // entries of /proc/self/fd, the one used to count them left out
    long residentKb = 0; // VmRSS of /proc/self/status
    // Bytes malloc has handed out and not had back (mallinfo2): unlike the resident size, not
    // raised by the allocator's own pools and fragmentation, so a leak shows in it plainly.
    long heapInUseKb = 0;
};

ProcessFigures processFigures();
// Another process's, from /proc/<pid> (-1 where unreadable: it ended); the heap in use is only
// known of this one (-1).
ProcessFigures processFigures(pid_t pid);

} // namespace tavix::soak
