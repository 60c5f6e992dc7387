/// @file
/// The error document the platform's services send with any status other than 200: a structured
/// error (code, details, message, subCode), bare or wrapped in a "TavixErrorResponse" member.
#pragma once

#include <restclient/IWebResponse.h>
#include <restclient/Value.h>

namespace tavix::restclient::veltrun {

/// @brief The error document of the Locator, Account, Storage and httplite services: what a
/// non-200 answer says. The uploader re-authenticates once when its `code` is 401.
class RESTCLIENT_EXPORT TavixErrorResponse : public IWebResponse {
public:
    /// Every field empty (0 or ""): also what a non-JSON error body leaves.
    TavixErrorResponse();
    /// @name Copy
    /// @{

    /// Member-wise.
    TavixErrorResponse(TavixErrorResponse const& other) = default;
    TavixErrorResponse& operator=(TavixErrorResponse const& other) = default;
    /// @}

    /// Reads the "TavixErrorResponse" member when there is one, else the document itself. A JSON
    /// body that is not an object (an array, a number) throws Json::LogicError.
    void handleResponse(Json::Value const& document) override;
    /// Reads the four fields from one error object; fields missing or of another kind keep
    /// their value.
    void handleError(Json::Value const& error);

    Value<unsigned int> code;    ///< the service's error code (often the HTTP status)
    Value<std::string> details;  ///< further text, when the service gives it
    Value<std::string> message;  ///< the service's text
    Value<unsigned int> subCode; ///< the service's finer code
};

} // namespace tavix::restclient::veltrun
