#include <tools/emulator/PrivateFiles.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix::emulator {

namespace fs = boost::filesystem;

namespace {

[[noreturn]] void fail(fs::path const& path, std::string const& what)
{
    throw std::runtime_error(path.string() + ": " + what);
}

} // namespace

void makePrivateDirectory(fs::path const& directory)
{
    if (directory.has_parent_path()) fs::create_directories(directory.parent_path());
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) fail(directory, std::strerror(errno));
    struct stat info {};
    if (::lstat(directory.c_str(), &info) != 0) fail(directory, std::strerror(errno));
    if (!S_ISDIR(info.st_mode)) fail(directory, "not a directory");
    if (info.st_uid != ::geteuid()) fail(directory, "belongs to another user; the emulator keeps its data private");
    if (info.st_mode & (S_IWGRP | S_IWOTH)) fail(directory, "other users may write to it; the emulator refuses it");
}

void writePrivateFile(fs::path const& path, std::string const& content)
{
    fs::path const temporary = path.string() + ".tmp";
    int const fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) fail(temporary, std::strerror(errno));
    std::size_t written = 0;
    while (written < content.size()) {
        ssize_t const n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            int const error = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            fail(temporary, std::strerror(error));
        }
        written += std::size_t(n);
    }
    if (::close(fd) != 0 || std::rename(temporary.c_str(), path.c_str()) != 0) {
        int const error = errno;
        ::unlink(temporary.c_str());
        fail(path, std::strerror(error));
    }
}

} // namespace tavix::emulator
