// The files the soak uploads: sizes from empty to several MB and random content, both drawn
// from the run's seed and the file's number, so that a seed gives the same files again.
#pragma once

#include <boost/filesystem/path.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tavix::soak {

// Kept by value, so that the soak's own records of a thousand uploads take no heap of their own.
struct Digest {
    std::array<unsigned char, 16> bytes{};
    std::string hex() const;
    bool operator==(Digest const& other) const { return bytes == other.bytes; }
};

struct SoakFile {
    std::uint64_t size = 0;
    Digest md5;
};

boost::filesystem::path soakFilePath(boost::filesystem::path const& directory, int index);

// Writes file `index` of the run into `directory`: 5 % empty, 35 % up to 64 KiB, 35 % up to
// 1 MiB, the rest up to `maxSize` bytes.
SoakFile writeSoakFile(boost::filesystem::path const& directory, std::uint64_t seed, int index, std::uint64_t maxSize);

// The MD5 of a file's bytes, read independently of the library's own hashing; nullopt when the
// file can't be read.
std::optional<Digest> md5OfFile(boost::filesystem::path const& file);

} // namespace tavix::soak
