// What the fuzzers share: the REST engine's way of parsing a body, and a check that turns a
// broken property into a crash libFuzzer reports with the input that caused it.
#pragma once

#include <json/reader.h>
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace tavix::fuzz {

inline std::string text(std::uint8_t const* data, std::size_t size)
{
    return std::string(reinterpret_cast<char const*>(data), size);
}

// As RestClient parses an answer: the default reader, and a throw from it (nesting past its
// limit) taken as a body that does not parse.
inline bool parseJson(std::string const& body, Json::Value& root)
{
    static Json::CharReaderBuilder const builder;
    std::istringstream in(body);
    std::string ignored;
    try {
        return Json::parseFromStream(builder, in, &root, &ignored);
    } catch (Json::Exception const&) {
        return false;
    }
}

[[noreturn]] inline void fail(char const* condition, char const* file, int line)
{
    std::fprintf(stderr, "%s:%d: property does not hold: %s\n", file, line, condition);
    std::abort();
}

} // namespace tavix::fuzz

#define FUZZ_CHECK(condition) ((condition) ? void() : ::tavix::fuzz::fail(#condition, __FILE__, __LINE__))
