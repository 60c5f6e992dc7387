#include <tools/emulator/BodySink.h>

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavix::emulator {

void BodySink::DigestDeleter::operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }

BodySink::BodySink() = default;

BodySink::~BodySink()
{
    stop();
    if (m_fd >= 0) ::close(m_fd);
}

bool BodySink::open(std::string const& path, std::string& error)
{
    m_digest.reset(EVP_MD_CTX_new());
    if (!m_digest || EVP_DigestInit_ex(m_digest.get(), EVP_md5(), nullptr) != 1) {
        error = "MD5 is not available";
        return false;
    }
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (m_fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    m_path = path;
    m_filling.reserve(blockSize);
    m_handed.reserve(blockSize);
    m_helper = std::thread([this] { hash(); });
    return true;
}

void BodySink::write(void const* data, std::size_t size)
{
    m_size += size;
    if (m_fd < 0) return;
    auto const* bytes = static_cast<char const*>(data);
    while (size > 0) {
        std::size_t const taken = std::min(size, blockSize - m_filling.size());
        m_filling.insert(m_filling.end(), bytes, bytes + taken);
        bytes += taken;
        size -= taken;
        if (m_filling.size() == blockSize) flush();
    }
}

void BodySink::flush()
{
    for (std::size_t done = 0; done < m_filling.size() && m_writeError == 0;) {
        ssize_t const written = ::write(m_fd, m_filling.data() + done, m_filling.size() - done);
        if (written >= 0) done += static_cast<std::size_t>(written);
        else if (errno != EINTR) m_writeError = errno;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_handed.empty(); });
    m_handed.swap(m_filling);
    m_changed.notify_all();
}

void BodySink::hash()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return !m_handed.empty() || m_stopping; });
        if (m_handed.empty()) return;
        lock.unlock();
        // Only this thread touches the block and the digest until it hands the block back.
        EVP_DigestUpdate(m_digest.get(), m_handed.data(), m_handed.size());
        lock.lock();
        m_handed.clear();
        m_changed.notify_all();
    }
}

void BodySink::stop()
{
    if (!m_helper.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_helper.join();
}

bool BodySink::finish(StreamedBody& body, std::string& error)
{
    body.path = m_path;
    body.size = m_size;
    if (m_fd < 0) return true;
    if (!m_filling.empty()) flush();
    stop(); // the helper hashes what it was handed before it ends
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_digest.get(), digest, &length);
    static char const hex[] = "0123456789abcdef";
    body.md5.clear();
    for (unsigned int i = 0; i < length; ++i) {
        body.md5 += hex[digest[i] >> 4];
        body.md5 += hex[digest[i] & 0xf];
    }
    int const closed = ::close(m_fd);
    m_fd = -1;
    if (m_writeError == 0 && closed != 0) m_writeError = errno;
    if (m_writeError != 0) {
        error = m_path + ": " + std::strerror(m_writeError);
        return false;
    }
    return true;
}

} // namespace tavix::emulator
