#include <restclient/storage/detail/SpoolFiles.h>

#include <tavix/crypto/FileHash.h>

#include <boost/filesystem/operations.hpp>

#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <set>

namespace tavix::restclient::storage::detail {

namespace fs = boost::filesystem;

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor()
    {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

std::int64_t modifiedNs(struct stat const& info)
{
    return static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
}

std::string reason(int error) { return std::strerror(error); }

bool fail(boost::system::error_code& ec, std::string& detail, QueueError error, std::string text)
{
    ec = error;
    detail = std::move(text);
    return false;
}

bool syncDirectory(fs::path const& dir)
{
    Descriptor const fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.get() >= 0 && ::fsync(fd.get()) == 0;
}

std::string randomName()
{
    std::random_device random;
    std::uniform_int_distribution<unsigned> digit(0, 15);
    std::string name(16, '0');
    for (char& c : name) c = "0123456789abcdef"[digit(random)];
    return name;
}

std::string toHex(unsigned char const* bytes, unsigned size)
{
    std::string hex;
    for (unsigned i = 0; i < size; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        hex += pair;
    }
    return hex;
}

// Copies `from` into a new file `to`, taking the MD5 of the bytes on the way, and syncs it.
bool copyWithDigest(int from, fs::path const& to, std::string& md5, int& error)
{
    Descriptor const out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.get() < 0) return error = errno, false;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!digest || EVP_DigestInit_ex(digest.get(), EVP_md5(), nullptr) != 1) return error = ENOMEM, false;
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        ssize_t const n = ::read(from, buffer.data(), buffer.size());
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return error = errno, false;
        }
        EVP_DigestUpdate(digest.get(), buffer.data(), static_cast<std::size_t>(n));
        for (ssize_t written = 0; written < n;) {
            ssize_t const w = ::write(out.get(), buffer.data() + written, static_cast<std::size_t>(n - written));
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) return error = errno, false;
            written += w;
        }
    }
    if (::fsync(out.get()) != 0) return error = errno, false;
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned size = 0;
    EVP_DigestFinal_ex(digest.get(), value.data(), &size);
    md5 = toHex(value.data(), size);
    return true;
}

} // namespace

bool holdFile(fs::path const& file, HoldMode mode, fs::path const& filesDir, JournalEntry& e,
              boost::system::error_code& ec, std::string& detail)
{
    // Non-blocking, so that a FIFO cannot hang the caller before it is refused.
    Descriptor const source(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (source.get() < 0) {
        int const error = errno;
        return fail(ec, detail, error == ENOENT ? QueueError::fileMissing : QueueError::fileUnreadable,
                    file.string() + ": " + reason(error));
    }
    struct stat before {};
    if (::fstat(source.get(), &before) != 0) {
        return fail(ec, detail, QueueError::fileUnreadable, file.string() + ": " + reason(errno));
    }
    if (!S_ISREG(before.st_mode)) return fail(ec, detail, QueueError::notRegularFile, file.string());
    // Absolute, so that the runner finds it whatever its working directory; computed without
    // throwing (the working directory may be gone).
    boost::system::error_code cwdError;
    fs::path const cwd = file.is_absolute() ? fs::path() : fs::current_path(cwdError);
    if (cwdError) return fail(ec, detail, QueueError::fileUnreadable, file.string() + ": " + cwdError.message());
    e.entry.file = (file.is_absolute() ? file : cwd / file).string();
    e.entry.size = before.st_size;
    e.mtimeNs = modifiedNs(before);
    e.sourceDev = before.st_dev;
    e.sourceIno = before.st_ino;

    if (mode == HoldMode::reference) {
        e.held = e.entry.file;
        boost::system::error_code hashError;
        e.entry.md5 = crypto::computeFileHash(source.get(), "md5", hashError, crypto::HexLower, {});
        if (hashError) return fail(ec, detail, QueueError::fileUnreadable, file.string() + ": " + hashError.message());
        return true;
    }

    fs::path const entryDir = filesDir / randomName();
    fs::path const heldPath = entryDir / file.filename();
    if (::mkdir(entryDir.c_str(), 0700) != 0) {
        return fail(ec, detail, QueueError::spoolUnusable, entryDir.string() + ": " + reason(errno));
    }
    auto const undo = [&](QueueError error, std::string text) {
        boost::system::error_code ignored;
        fs::remove_all(entryDir, ignored);
        return fail(ec, detail, error, std::move(text));
    };
    if (mode == HoldMode::link) {
        if (::link(file.c_str(), heldPath.c_str()) != 0) {
            int const error = errno;
            return undo(error == EXDEV ? QueueError::crossDevice : QueueError::spoolUnusable,
                        heldPath.string() + ": " + reason(error));
        }
        boost::system::error_code hashError;
        e.entry.md5 = crypto::computeFileHash(source.get(), "md5", hashError, crypto::HexLower, {});
        if (hashError) return undo(QueueError::fileUnreadable, file.string() + ": " + hashError.message());
    } else {
        int error = 0;
        if (!copyWithDigest(source.get(), heldPath, e.entry.md5, error)) {
            // Which side failed decides whose error it is.
            bool const spoolSide = error == ENOSPC || error == EDQUOT || error == EROFS || error == EACCES;
            return undo(spoolSide ? QueueError::spoolUnusable : QueueError::fileUnreadable,
                        (spoolSide ? heldPath.string() : file.string()) + ": " + reason(error));
        }
    }
    // A file written to while it was taken in would be held half old, half new.
    struct stat after {};
    if (::fstat(source.get(), &after) != 0 || after.st_size != before.st_size || modifiedNs(after) != e.mtimeNs) {
        return undo(QueueError::fileUnreadable, file.string() + ": it changed while it was being enqueued");
    }
    // What is checked before sending is the held file as it now is: a copy has a time of its own.
    struct stat held {};
    if (::stat(heldPath.c_str(), &held) != 0)
        return undo(QueueError::spoolUnusable, heldPath.string() + ": " + reason(errno));
    e.mtimeNs = modifiedNs(held);
    if (!syncDirectory(entryDir) || !syncDirectory(filesDir)) {
        return undo(QueueError::spoolUnusable, entryDir.string() + ": " + reason(errno));
    }
    e.held = heldPath.string();
    return true;
}

HeldProblem heldFileProblem(JournalEntry const& e)
{
    struct stat info {};
    if (::stat(e.held.c_str(), &info) != 0 || ::access(e.held.c_str(), R_OK) != 0) {
        return {41, "The held file cannot be read: " + e.held + ": " + reason(errno)};
    }
    if (!S_ISREG(info.st_mode)) return {45, "The held file is not a regular file: " + e.held};
    if (info.st_size != e.entry.size || modifiedNs(info) != e.mtimeNs) {
        return {46, "The file changed since it was enqueued: " + e.held};
    }
    return {};
}

void releaseHeld(JournalEntry const& e, fs::path const& filesDir)
{
    if (e.entry.hold == HoldMode::reference) return;
    fs::path const entryDir = fs::path(e.held).parent_path();
    // Only ever a directory of the spool's own.
    if (entryDir.parent_path() != filesDir) return;
    boost::system::error_code ignored;
    fs::remove_all(entryDir, ignored);
}

void deleteSource(JournalEntry const& e)
{
    struct stat info {};
    if (::stat(e.entry.file.c_str(), &info) != 0) return;
    if (info.st_dev != e.sourceDev || info.st_ino != e.sourceIno) return; // rotated: another file now
    ::unlink(e.entry.file.c_str());
}

SpoolLock::SpoolLock(fs::path const& spool, Kind kind)
    : m_fd(::open((spool / "enqueue.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
{
    m_locked = m_fd >= 0 && ::flock(m_fd, kind == shared ? LOCK_SH : LOCK_EX | LOCK_NB) == 0;
}

SpoolLock::~SpoolLock()
{
    if (m_fd >= 0) ::close(m_fd);
}

void sweepOrphans(fs::path const& filesDir, std::vector<std::string> const& held)
{
    std::set<fs::path> owned;
    for (auto const& path : held) owned.insert(fs::path(path).parent_path());
    boost::system::error_code ec;
    for (fs::directory_iterator it(filesDir, ec), end; !ec && it != end; it.increment(ec)) {
        if (owned.count(it->path()) != 0) continue;
        boost::system::error_code ignored;
        fs::remove_all(it->path(), ignored);
    }
}

} // namespace tavix::restclient::storage::detail
