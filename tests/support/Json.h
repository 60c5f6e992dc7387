// Parses JSON text for a test; text that does not parse fails the test.
#pragma once

#include <json/value.h>

#include <string>

namespace tavix::test {

Json::Value json(std::string const& text);

} // namespace tavix::test
