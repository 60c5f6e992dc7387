// Where a request body streams to instead of memory: a file written as the bytes arrive, with
// their count and MD5 taken on the way, so that a body of any size costs constant memory and
// one pass. Hashing is the bulk of the work, so a helper thread hashes one block while the
// server thread reads and writes the next. A sink without a file only counts (a body that is
// read to be thrown away).
#pragma once

#include <openssl/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavix::emulator {

// A request body that went to a file instead of memory.
struct StreamedBody {
    std::string path;
    std::uint64_t size = 0;
    std::string md5; // lowercase hex of the bytes received
};

class BodySink {
public:
    BodySink();
    // Creates (truncates) `path`; false with the reason in `error` when it can't.
    bool open(std::string const& path, std::string& error);
    BodySink(BodySink const&) = delete;
    BodySink& operator=(BodySink const&) = delete;
    ~BodySink();

    void write(void const* data, std::size_t size);
    // Closes the file. False with `error` set when a write failed (the disk filled, say).
    bool finish(StreamedBody& body, std::string& error);

private:
    struct DigestDeleter {
        void operator()(EVP_MD_CTX* context) const;
    };
    static constexpr std::size_t blockSize = 1024 * 1024;

    void flush(); // writes the filled block and gives it to the helper to hash
    void hash();  // the helper thread: hashes blocks until stopped
    void stop();

    std::string m_path;
    int m_fd = -1;
    int m_writeError = 0;
    std::uint64_t m_size = 0;
    std::vector<char> m_filling;                         // the server thread's
    std::unique_ptr<EVP_MD_CTX, DigestDeleter> m_digest; // the helper's until it stops

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<char> m_handed; // guarded: given to the helper, empty once hashed
    bool m_stopping = false;
    std::thread m_helper;
};

} // namespace tavix::emulator
