// The Account service: the current account with its service links, and the account's users.
#pragma once

#include <tools/emulator/Routing.h>

namespace tavix::emulator {

// GET …/accounts/current.
Response currentAccountRoute(ServiceContext const& context, RoutedRequest const& route);
// GET …/accounts/<id>/users and …/accounts/<id>/users/<user>; `rest` holds the segments after
// "users".
Response usersRoute(ServiceContext const& context, RoutedRequest const& route, std::vector<std::string> const& rest);

} // namespace tavix::emulator
