#include <tavix/crypto/FileHash.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

namespace tavix::crypto {
namespace {

class FileHashTest : public ::testing::Test {
protected:
    ~FileHashTest() override { boost::filesystem::remove_all(dir); }

    std::string file(std::string const& name, std::string const& content) const
    {
        std::string const path = (dir / name).string();
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    boost::filesystem::path const dir =
        boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("filehash-%%%%-%%%%");
    bool const made = boost::filesystem::create_directory(dir);
};

TEST_F(FileHashTest, KnownDigestsInEachEncoding)
{
    struct Case {
        std::string content, algorithm;
        CryptoEncoding encoding;
        std::string expected;
    };
    for (Case const& c : std::vector<Case>{
             {"", "md5", HexLower, "d41d8cd98f00b204e9800998ecf8427e"},
             {"abc", "md5", HexLower, "900150983cd24fb0d6963f7d28e17f72"},
             {"abc", "MD5", Base64, "kAFQmDzST7DWlj99KOF/cg=="},
             {"abc", "md5", Binary,
              std::string("\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72", 16)},
             {"abc", "sha256", HexLower, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
             {std::string(1000000, 'a'), "md5", HexLower, "7707d6ae4e027c70eea2a935c2296f21"},
         }) {
        boost::system::error_code error;
        EXPECT_EQ(computeFileHash(file("f", c.content), c.algorithm, error, c.encoding), c.expected)
            << c.algorithm << " of " << c.content.size() << " bytes";
        EXPECT_FALSE(error);
    }
}

TEST_F(FileHashTest, FailuresSetTheErrorAndGiveNothing)
{
    std::string const present = file("present", "abc");
    struct Case {
        std::string path, algorithm;
        CryptoEncoding encoding;
        boost::system::errc::errc_t expected;
    };
    for (Case const& c : std::vector<Case>{
             {(dir / "absent").string(), "md5", HexLower, boost::system::errc::no_such_file_or_directory},
             {dir.string(), "md5", HexLower, boost::system::errc::is_a_directory},
             {present, "no-such-digest", HexLower, boost::system::errc::invalid_argument},
             // 3: no encoding, yet a value the enumeration can hold (a larger one is undefined).
             {present, "md5", CryptoEncoding(3), boost::system::errc::invalid_argument},
         }) {
        boost::system::error_code error;
        EXPECT_EQ(computeFileHash(c.path, c.algorithm, error, c.encoding), "") << c.path;
        EXPECT_EQ(error, make_error_code(c.expected)) << c.path << " " << c.algorithm;
    }
}

TEST_F(FileHashTest, DescriptorFromItsOffsetAndCancellable)
{
    int const fd = ::open(file("d", "xabc").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::read(fd, std::array<char, 1>().data(), 1), 1);
    boost::system::error_code error;
    EXPECT_EQ(computeFileHash(fd, "md5", error, HexLower, {}), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(error);
    EXPECT_EQ(computeFileHash(fd, "md5", error, HexLower, [] { return true; }), "");
    EXPECT_EQ(error, make_error_code(boost::system::errc::operation_canceled));
    ::close(fd);
}

} // namespace
} // namespace tavix::crypto
