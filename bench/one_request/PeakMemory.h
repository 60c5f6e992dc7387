// The one-request programs end by printing the status they got and their peak resident size,
// read by scripts/bench.sh.
#pragma once

#include <cstdio>
#include <string>

namespace tavix::bench {

// A field of /proc/self/status in kB; 0 when it can't be read.
inline long statusKb(char const* field)
{
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return 0;
    long kb = 0;
    char line[256];
    std::string const format = std::string(field) + ": %ld kB";
    while (std::fgets(line, sizeof line, status) && std::sscanf(line, format.c_str(), &kb) != 1) {}
    std::fclose(status);
    return kb;
}

// Peak resident size (VmHWM), and at the end the process's own pages (RssAnon) and those of its
// files, mostly shared libraries (RssFile). Exit status 0 for a 200.
inline int report(long status)
{
    std::printf("status %ld\npeak_kb %ld\nanon_kb %ld\nfile_kb %ld\n", status, statusKb("VmHWM"), statusKb("RssAnon"),
                statusKb("RssFile"));
    return status == 200 ? 0 : 1;
}

} // namespace tavix::bench
