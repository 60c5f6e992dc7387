#include <tools/soak/ProcessFigures.h>

#include <dirent.h>
#include <malloc.h>

#include <cstdio>
#include <string>

namespace tavix::soak {
namespace {

long entries(std::string const& directory)
{
    DIR* listing = opendir(directory.c_str());
    if (!listing) return -1;
    long count = 0;
    while (dirent const* entry = readdir(listing))
        if (entry->d_name[0] != '.') ++count;
    closedir(listing);
    return count;
}

long residentKb(std::string const& process)
{
    std::FILE* status = std::fopen(("/proc/" + process + "/status").c_str(), "r");
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
    figures.residentKb = residentKb("self");
    struct mallinfo2 const heap = mallinfo2();
    figures.heapInUseKb = long((heap.uordblks + heap.hblkhd) / 1024);
    return figures;
}

ProcessFigures processFigures(pid_t pid)
{
    std::string const process = std::to_string(pid);
    ProcessFigures figures;
    figures.threads = entries("/proc/" + process + "/task");
    figures.openFiles = entries("/proc/" + process + "/fd");
    figures.residentKb = residentKb(process);
    figures.heapInUseKb = -1;
    return figures;
}

} // namespace tavix::soak
