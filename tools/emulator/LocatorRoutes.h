// The Locator service: where each of the cloud's services lives.
#pragma once

#include <tools/emulator/Routing.h>

namespace tavix::emulator {

// GET …/locations (every endpoint) and GET …/locations/<name>; `at` indexes the "locations"
// segment.
Response locatorRoute(ServiceContext const& context, RoutedRequest const& route, std::size_t at);

} // namespace tavix::emulator
