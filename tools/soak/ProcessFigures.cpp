#include <tools/soak/ProcessFigures.h>

#include <dirent.h>
#include <malloc.h>

#include <cstdio>

namespace tavix::soak {
namespace {

long entries(char const* directory)
{
    DIR* listing = opendir(directory);
    if (!listing) return -1;
    long count = 0;
    while (dirent const* entry = readdir(listing))
        if (entry->d_name[0] != '.') ++count;
    closedir(listing);
    return count;
}

long residentKb()
{
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return -1;
    long kb = -1;
    char line[256];
    while (std::fgets(line, sizeof line, status))
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    std::fclose(status);
    return kb;
}

} // namespace

ProcessFigures processFigures()
{
    ProcessFigures figures;
    figures.threads = entries("/proc/self/task");
    figures.openFiles = entries("/proc/self/fd") - 1;
    figures.residentKb = residentKb();
    struct mallinfo2 const heap = mallinfo2();
    figures.heapInUseKb = long((heap.uordblks + heap.hblkhd) / 1024);
    return figures;
}

} // namespace tavix::soak
