// A request body that renders itself as JSON text.
#pragma once

#include <platform/Export.h>

#include <string>

namespace tavix::restclient {

class TAVIX_EXPORT IWebRequest {
public:
    virtual std::string getPayload() const = 0;
    virtual ~IWebRequest() = default;
};

} // namespace tavix::restclient
