// A sender of the upload benchmark run in a process of its own (through `upload_launch`, so that
// its peak memory is its own): what it wrote to its report file ("key value" lines), its peak
// resident size from wait4() and its exit status.
#pragma once

#include <boost/filesystem/path.hpp>

#include <map>
#include <string>
#include <vector>

namespace tavix::bench {

struct SenderReport {
    std::map<std::string, std::string> values;
    double peakMegabytes = 0; // wait4()'s ru_maxrss, in 10^6 bytes
    int exitCode = -1;        // -1: it did not exit normally

    double number(std::string const& key) const; // 0 when missing
    std::string text(std::string const& key) const;
};

// Runs `arguments` (the program first) through the launcher `launcher` and waits for it;
// `report` is the file the sender writes.
SenderReport runSender(boost::filesystem::path const& launcher, std::vector<std::string> const& arguments,
                       boost::filesystem::path const& report);

} // namespace tavix::bench
