// The services a device talks to about itself: geolocation and the httplite registration.
#pragma once

#include <tools/emulator/Routing.h>

#include <json/value.h>

namespace tavix::emulator {

// GET …/geo: the configured country; errors use the bare {"message": ...} shape.
Response geoRoute(ServiceContext const& context, RoutedRequest const& route);

// PUT and DELETE of …/registrations/current. Holds the one registration of the emulator; not
// locked, its owner serialises access.
class RegistrationBook {
public:
    Response handle(ServiceContext const& context, RoutedRequest const& route);
    Json::Value current() const { return m_current; } // null when there is none
    void clear() { m_current = Json::Value(); }

private:
    Json::Value m_current;
};

} // namespace tavix::emulator
