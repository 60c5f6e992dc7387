// The progress of a transfer on stderr: a bar redrawn in place (bytes, rate, time left) on a
// terminal, otherwise one plain line per interval, so logs and pipes stay readable.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tavix::cli {

// "512 B", "1.5 MiB": a byte count for people.
std::string byteSize(double bytes);
// "[###-------]": `done` of `total` in `width` cells.
std::string progressBar(std::int64_t done, std::int64_t total, int width);

class Progress {
public:
    // `label` begins each line ("upload", "download").
    Progress(std::string label, std::chrono::milliseconds lineInterval);

    // Shows the state when it is time to; `stage` is said while no byte count is known.
    void update(std::int64_t done, std::int64_t total, std::string const& stage = {});
    // The final state, always shown.
    void finish(std::int64_t done, std::int64_t total);

    // How often the caller should call `update`.
    std::chrono::milliseconds pollInterval() const;

private:
    using Clock = std::chrono::steady_clock;

    std::string describe(std::int64_t done, std::int64_t total, std::string const& stage, bool final);

    std::string m_label;
    bool m_terminal;
    std::chrono::milliseconds m_lineInterval;
    Clock::time_point m_begin = Clock::now();
    Clock::time_point m_lastShown;
    // The rate counts from when the transfer began, so that set-up time does not drag it down.
    Clock::time_point m_firstByte;
    bool m_started = false;
};

} // namespace tavix::cli
