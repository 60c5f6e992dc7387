#include <tavix/net/http/TlsFiles.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tavix::net::http {

namespace {

int unreadable(std::string const& path)
{
    // Non-blocking: a FIFO named in the settings must not hang the request.
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno;
    struct stat info {};
    int const error = ::fstat(fd, &info) != 0 ? errno : S_ISDIR(info.st_mode) ? EISDIR : 0;
    ::close(fd);
    return error;
}

} // namespace

boost::system::error_code checkTlsFiles(std::string const& caFile, std::string const& clientCertFile,
                                        std::string* which)
{
    struct File {
        char const* key;
        std::string const& path;
    } const files[] = {{"ca_file", caFile}, {"client_cert_file", clientCertFile}};
    for (File const& file : files) {
        if (file.path.empty()) continue;
        if (int const error = unreadable(file.path)) {
            if (which) *which = std::string(file.key) + " " + file.path;
            return {error, boost::system::generic_category()};
        }
    }
    return {};
}

} // namespace tavix::net::http
