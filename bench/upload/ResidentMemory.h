// The file-backed part of a sender's resident memory, mostly the pages of its shared libraries
// (libcurl and its dependencies alone are several MB): pages it shares with every process that
// uses them. Peak RSS less this is what the sender holds of its own.
#pragma once

#include <cstdio>

namespace tavix::bench {

// RssFile + RssShmem of /proc/self/status in kB; 0 when it can't be read.
inline long sharedResidentKb()
{
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return 0;
    long total = 0;
    char line[256];
    while (std::fgets(line, sizeof line, status)) {
        long kb = 0;
        if (std::sscanf(line, "RssFile: %ld kB", &kb) == 1 || std::sscanf(line, "RssShmem: %ld kB", &kb) == 1)
            total += kb;
    }
    std::fclose(status);
    return total;
}

} // namespace tavix::bench
