#include <tavix/crypto/FileHash.h>

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace tavix::crypto {

namespace {

using boost::system::error_code;

struct Deleter {
    void operator()(EVP_MD* md) const { EVP_MD_free(md); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class File {
public:
    explicit File(std::string const& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    File(File const&) = delete;
    File& operator=(File const&) = delete;
    ~File()
    {
        if (m_fd >= 0) ::close(m_fd);
    }
    int fd() const { return m_fd; }

private:
    int m_fd;
};

error_code lastError() { return {errno, boost::system::generic_category()}; }

// The digest of the bytes left in `fd`, read in fixed-size chunks.
std::string digest(int fd, EVP_MD const* md, error_code& error, boost::function<bool()> const& cancelled)
{
    std::unique_ptr<EVP_MD_CTX, Deleter> const context(EVP_MD_CTX_new());
    if (!context || !EVP_DigestInit_ex(context.get(), md, nullptr)) {
        return error = make_error_code(boost::system::errc::not_enough_memory), std::string();
    }
    std::vector<unsigned char> chunk(64 * 1024);
    for (;;) {
        if (cancelled && cancelled()) return error = make_error_code(boost::system::errc::operation_canceled), "";
        ssize_t const got = ::read(fd, chunk.data(), chunk.size());
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            return error = lastError(), std::string();
        }
        EVP_DigestUpdate(context.get(), chunk.data(), std::size_t(got));
    }
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(context.get(), value, &size);
    return std::string(reinterpret_cast<char const*>(value), size);
}

std::string base64(std::string const& bytes)
{
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<unsigned char const*>(bytes.data()), int(bytes.size()));
    text.resize(std::size_t(length));
    return text;
}

std::string hexLower(std::string const& bytes)
{
    static char const digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (unsigned char const byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

} // namespace

std::string computeFileHash(int fd, std::string const& algorithm, error_code& error, CryptoEncoding encoding,
                            boost::function<bool()> const& cancelled)
{
    error = {};
    std::unique_ptr<EVP_MD, Deleter> const md(EVP_MD_fetch(nullptr, algorithm.c_str(), nullptr));
    if (!md || (encoding != Binary && encoding != Base64 && encoding != HexLower)) {
        error = make_error_code(boost::system::errc::invalid_argument);
        return {};
    }
    std::string const bytes = digest(fd, md.get(), error, cancelled);
    if (error) return {};
    switch (encoding) {
    case Base64: return base64(bytes);
    case HexLower: return hexLower(bytes);
    case Binary: break;
    }
    return bytes;
}

std::string computeFileHash(std::string const& path, std::string const& algorithm, error_code& error,
                            CryptoEncoding encoding)
{
    File const file(path);
    if (file.fd() < 0) return error = lastError(), std::string();
    return computeFileHash(file.fd(), algorithm, error, encoding, {});
}

} // namespace tavix::crypto
