#include <tests/support/ScopedControllerConfig.h>

#include <tavix/controller/Settings.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <cstdlib>
#include <fstream>

namespace tavix::test {

namespace {
char const* const kVariable = "TAVIX_CONTROLLER_CONFIG";
}

ScopedControllerConfig::ScopedControllerConfig(std::string const& text)
    : m_path((boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("controller-%%%%-%%%%.conf"))
                 .string())
{
    if (char const* previous = std::getenv(kVariable)) m_previous = previous;
    write(text);
    ::setenv(kVariable, m_path.c_str(), 1);
}

ScopedControllerConfig::~ScopedControllerConfig()
{
    if (m_previous) ::setenv(kVariable, m_previous->c_str(), 1);
    else ::unsetenv(kVariable);
    boost::system::error_code ignored;
    boost::filesystem::remove(m_path, ignored);
}

void ScopedControllerConfig::write(std::string const& text) const
{
    // Replaced, as provisioning does, and told: the test goes on at once rather than wait for the
    // once-a-second look.
    std::string const next = m_path + ".next";
    std::ofstream(next, std::ios::trunc) << text;
    boost::filesystem::rename(next, m_path);
    controller::Settings::reload();
}

} // namespace tavix::test
