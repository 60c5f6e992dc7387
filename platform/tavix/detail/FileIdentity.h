// What identifies one version of a file named in the settings (internal): a file replaced in
// place, by an editor, `mv`, `cp -p` or `rsync -t`, differs in inode, size or time.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <string>
#include <tuple>

namespace tavix::detail {

struct FileIdentity {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    bool regular = false; // only a regular file's identity is worth remembering

    static FileIdentity of(std::string const& path)
    {
        FileIdentity identity{path};
        struct stat info {};
        if (path.empty() || ::stat(path.c_str(), &info) != 0) return identity;
        identity.device = info.st_dev;
        identity.inode = info.st_ino;
        identity.size = info.st_size;
        identity.modified = info.st_mtim;
        identity.regular = S_ISREG(info.st_mode);
        return identity;
    }

    bool operator==(FileIdentity const& other) const
    {
        return std::tie(path, device, inode, size, modified.tv_sec, modified.tv_nsec, regular)
            == std::tie(other.path, other.device, other.inode, other.size, other.modified.tv_sec,
                        other.modified.tv_nsec, other.regular);
    }
    bool operator!=(FileIdentity const& other) const { return !(*this == other); }
};

// Bumped by `Settings::reload`: every file named in the settings is looked at again at its next use.
inline std::atomic<unsigned> forcedRechecks{0};

// When to look at a file again: at most once a second, so that the request path pays no `stat`
// per request while a re-provisioned device is still noticed without a restart.
class RecheckTimer {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds period{1};

    // True at most once a period, and at once after `reset` or a `Settings::reload`.
    bool due(Clock::time_point now)
    {
        unsigned const forced = forcedRechecks.load(std::memory_order_relaxed);
        if (m_armed && now < m_next && forced == m_forced) return false;
        m_armed = true;
        m_next = now + period;
        m_forced = forced;
        return true;
    }
    void reset() { m_armed = false; }

private:
    bool m_armed = false;
    Clock::time_point m_next{};
    unsigned m_forced = 0;
};

} // namespace tavix::detail
