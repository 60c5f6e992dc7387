#include <tools/soak/SoakFiles.h>

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

namespace tavix::soak {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

struct Md5 {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
    Md5() { EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr); }
    void add(void const* data, std::size_t size) { EVP_DigestUpdate(context.get(), data, size); }
    Digest digest()
    {
        Digest result;
        unsigned int length = 0;
        EVP_DigestFinal_ex(context.get(), result.bytes.data(), &length);
        return result;
    }
};

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::uint64_t drawSize(std::mt19937_64& generator, std::uint64_t maxSize)
{
    auto upTo = [&](std::uint64_t low, std::uint64_t high) {
        high = std::max(low, std::min(high, maxSize));
        return std::uniform_int_distribution<std::uint64_t>(low, high)(generator);
    };
    int const bucket = std::uniform_int_distribution<int>(0, 99)(generator);
    if (bucket < 5 || maxSize == 0) return 0;
    if (bucket < 40) return upTo(1, 64 * 1024);
    if (bucket < 75) return upTo(64 * 1024, 1024 * 1024);
    return upTo(1024 * 1024, maxSize);
}

} // namespace

std::string Digest::hex() const
{
    std::string text;
    for (unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
    return text;
}

boost::filesystem::path soakFilePath(boost::filesystem::path const& directory, int index)
{
    return directory / fmt::format("soak-{:05}.bin", index);
}

SoakFile writeSoakFile(boost::filesystem::path const& directory, std::uint64_t seed, int index, std::uint64_t maxSize)
{
    std::seed_seq sequence{std::uint32_t(seed), std::uint32_t(seed >> 32), std::uint32_t(index)};
    std::mt19937_64 generator(sequence);
    SoakFile soakFile;
    soakFile.size = drawSize(generator, maxSize);
    boost::filesystem::path const path = soakFilePath(directory, index);
    File file(std::fopen(path.c_str(), "wb"));
    if (!file) throw std::runtime_error("cannot write " + path.string());
    Md5 md5;
    std::vector<std::uint64_t> words(kChunk / sizeof(std::uint64_t));
    for (std::uint64_t left = soakFile.size; left > 0;) {
        for (std::uint64_t& word : words) word = generator();
        std::size_t const bytes = std::size_t(std::min<std::uint64_t>(left, kChunk));
        if (std::fwrite(words.data(), 1, bytes, file.get()) != bytes)
            throw std::runtime_error("cannot write " + path.string());
        md5.add(words.data(), bytes);
        left -= bytes;
    }
    if (std::fclose(file.release()) != 0) throw std::runtime_error("cannot write " + path.string());
    soakFile.md5 = md5.digest();
    return soakFile;
}

std::optional<Digest> md5OfFile(boost::filesystem::path const& path)
{
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) return std::nullopt;
    Md5 md5;
    std::vector<char> buffer(kChunk);
    while (std::size_t const bytes = std::fread(buffer.data(), 1, buffer.size(), file.get()))
        md5.add(buffer.data(), bytes);
    if (std::ferror(file.get())) return std::nullopt;
    return md5.digest();
}

} // namespace tavix::soak
