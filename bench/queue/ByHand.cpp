#include <bench/queue/ByHand.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavix::bench {

namespace fs = boost::filesystem;

namespace {

class Descriptor {
public:
    Descriptor(fs::path const& path, int flags) : m_path(path), m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        if (m_fd < 0) fail("open");
    }
    ~Descriptor() { ::close(m_fd); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return m_fd; }
    void sync() const
    {
        if (::fsync(m_fd) != 0) fail("fsync");
    }
    [[noreturn]] void fail(char const* what) const
    {
        throw std::runtime_error(std::string(what) + " " + m_path.string() + ": " + std::strerror(errno));
    }

private:
    fs::path m_path;
    int m_fd;
};

void writeAll(Descriptor const& out, char const* data, std::size_t size)
{
    while (size > 0) {
        ssize_t const written = ::write(out.get(), data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) out.fail("write");
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

void syncDirectory(fs::path const& dir) { Descriptor(dir, O_RDONLY | O_DIRECTORY).sync(); }

} // namespace

void durableCopy(fs::path const& from, fs::path const& to)
{
    {
        Descriptor const in(from, O_RDONLY);
        Descriptor const out(to, O_WRONLY | O_CREAT | O_EXCL);
        std::vector<char> buffer(256 * 1024);
        for (;;) {
            ssize_t const n = ::read(in.get(), buffer.data(), buffer.size());
            if (n == 0) break;
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) in.fail("read");
            writeAll(out, buffer.data(), static_cast<std::size_t>(n));
        }
        out.sync();
    }
    syncDirectory(to.parent_path());
}

void durableLink(fs::path const& from, fs::path const& to)
{
    if (::link(from.c_str(), to.c_str()) != 0) {
        throw std::runtime_error("link " + to.string() + ": " + std::strerror(errno));
    }
    syncDirectory(to.parent_path());
}

void smallSyncedWrite(fs::path const& dir)
{
    fs::path const file = dir / "synced-write";
    {
        Descriptor const out(file, O_WRONLY | O_CREAT | O_TRUNC);
        std::string const page(4096, 'w');
        writeAll(out, page.data(), page.size());
        out.sync();
    }
    ::unlink(file.c_str());
}

} // namespace tavix::bench
