// What the tool prints and how it ends: documents on stdout (readable text, or JSON with
// --json), failures on stderr, and one exit status per failure class.
#pragma once

#include <restclient/IWebSerializable.h>
#include <restclient/veltrun/BasicErrorResponse.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <json/value.h>

#include <functional>
#include <ostream>
#include <string>

namespace tavix::cli {

enum Exit : int {
    ok = 0,
    localFailure = 1, // a local file or the queue's spool cannot be read or written
    badUsage = 2,     // the command line, the settings or a URL in them is unusable; no such queue entry
    transport = 3,    // no answer: not sent, no connection, TLS, time-out
    serviceError = 4, // the service answered with an error document or a malformed answer
    uploadFailed = 5, // the uploader finished with an error code
    authFailed = 6,   // the controller could not be authenticated
    spoolBusy = 7,    // another queue runner sends from the spool, or another process holds its journal
};

// The table of exit statuses for the help text.
extern char const* const kExitStatusHelp;

class Output {
public:
    bool json = false;

    // The document as JSON with --json, else what `text` writes; on stdout.
    void print(Json::Value const& document, std::function<void(std::ostream&)> const& text) const;
    // The error document, on stdout with --json only (the failure itself goes to stderr).
    void printError(Json::Value const& document) const;
};

// "name: value" for each scalar member of `object` that is not an empty text and "name: <href>"
// for each link object, in name order.
void printFields(std::ostream& os, Json::Value const& object);

// Writes "restclient: <message>" on stderr and returns `status`.
Exit fail(Exit status, std::string const& message);

// What `writer` built, as a value.
Json::Value toJson(JsonWriter const& writer);

// A record's own JSON form, as it serialises itself.
Json::Value toJson(restclient::IWebSerializable const& record);

// An object of typed fields, each under its own JSON name.
template <typename... Fields>
Json::Value fieldsToJson(Fields const&... fields)
{
    JsonWriter writer;
    writer.startObject();
    (fields.serialize(writer), ...);
    writer.endObject();
    return toJson(writer);
}

Json::Value toJson(restclient::veltrun::TavixErrorResponse const& error);
Json::Value toJson(restclient::veltrun::BasicErrorResponse const& error);
std::string describe(restclient::veltrun::TavixErrorResponse const& error);
std::string describe(restclient::veltrun::BasicErrorResponse const& error);

} // namespace tavix::cli
