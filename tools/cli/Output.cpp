#include <tools/cli/Output.h>

#include <json/reader.h>
#include <json/writer.h>

#include <iostream>
#include <sstream>

namespace tavix::cli {

char const* const kExitStatusHelp =
    "Exit status:\n"
    "  0  success\n"
    "  1  local failure: a file or the queue's spool cannot be read or written, or the tool itself failed\n"
    "  2  bad usage: unknown command or option, missing argument, unusable settings or URL, no such queue entry\n"
    "  3  transport failure: no answer (not sent, no connection, TLS, time-out)\n"
    "  4  the service answered with an error document (status other than 200) or a malformed answer\n"
    "  5  the upload failed (the uploader's error code and message on stderr), or an entry failed for good\n"
    "     during queue run --once\n"
    "  6  the controller could not be authenticated\n"
    "  7  the queue's spool is busy: another runner sends from it, or another process holds its journal\n"
    "  130, 143  an upload, download or queue run --once interrupted by SIGINT or SIGTERM (partial files\n"
    "     removed, queue entries kept)\n"
    "Failures print the library's error code and message on stderr.";

namespace {

void writeJson(Json::Value const& document)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, document) << "\n";
}

} // namespace

void Output::print(Json::Value const& document, std::function<void(std::ostream&)> const& text) const
{
    if (json) writeJson(document);
    else text(std::cout);
}

void Output::printError(Json::Value const& document) const
{
    if (json) writeJson(document);
}

void printFields(std::ostream& os, Json::Value const& object)
{
    for (std::string const& name : object.getMemberNames()) {
        Json::Value const& member = object[name];
        if (member.isObject() && member["href"].isString()) {
            os << name << ": " << member["href"].asString() << "\n";
        } else if (!member.isObject() && !member.isArray() && !member.isNull() && member != "") {
            os << name << ": " << member.asString() << "\n";
        }
    }
}

Exit fail(Exit status, std::string const& message)
{
    std::cerr << "restclient: " << message << "\n";
    return status;
}

Json::Value toJson(JsonWriter const& writer)
{
    Json::Value document;
    std::istringstream in(writer.str(false));
    std::string ignored;
    Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &ignored);
    return document;
}

Json::Value toJson(restclient::IWebSerializable const& record)
{
    JsonWriter writer;
    record.serialize(writer);
    return toJson(writer);
}

Json::Value toJson(restclient::veltrun::TavixErrorResponse const& error)
{
    return fieldsToJson(error.code, error.subCode, error.message, error.details);
}

Json::Value toJson(restclient::veltrun::BasicErrorResponse const& error) { return fieldsToJson(error.message); }

std::string describe(restclient::veltrun::TavixErrorResponse const& error)
{
    return "code " + std::to_string(error.code.value) + ", sub-code " + std::to_string(error.subCode.value) + ": "
        + error.message.value + (error.details.value.empty() ? "" : " (" + error.details.value + ")");
}

std::string describe(restclient::veltrun::BasicErrorResponse const& error) { return error.message.value; }

} // namespace tavix::cli
