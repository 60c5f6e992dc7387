// Points TAVIX_CONTROLLER_CONFIG at a temporary settings file for the life of the object, so a
// test controls what the controller settings say (the CA bundle, the client certificate ...).
#pragma once

#include <optional>
#include <string>

namespace tavix::test {

class ScopedControllerConfig {
public:
    explicit ScopedControllerConfig(std::string const& text = {});
    ScopedControllerConfig(ScopedControllerConfig const&) = delete;
    ScopedControllerConfig& operator=(ScopedControllerConfig const&) = delete;
    // Removes the file and restores the variable as it was.
    ~ScopedControllerConfig();

    std::string const& path() const { return m_path; }
    void write(std::string const& text) const;

private:
    std::string m_path;
    std::optional<std::string> m_previous;
};

} // namespace tavix::test
