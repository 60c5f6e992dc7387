// What identifies one version of a file named in the settings (internal): a file replaced in
// place, by an editor, `mv`, `cp -p` or `rsync -t`, differs in inode, size or time.
#pragma once

#include <sys/stat.h>

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

} // namespace tavix::detail
