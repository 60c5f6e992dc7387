// An upload with progress and completion, its CA bundle taken from the settings, then the stored
// object fetched back with a resource search to list the metadata keys it carries.
// Usage: upload FILE [type]; the settings file is $TAVIX_CONTROLLER_CONFIG.
#include <restclient/account/SplitUrl.h>
#include <restclient/storage/FileUploader.h>
#include <restclient/storage/ResourceClient.h>

#include <tavix/controller/OAuthHelper.h>
#include <tavix/controller/Settings.h>

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <iostream>
#include <string>

using namespace tavix::restclient;

// Prints the metadata keys of the objects named `name` of type `type`.
bool listMetadataKeys(std::string const& storageUrl, std::string const& name, std::string const& type)
{
    std::string host, path, accountPart;
    unsigned int port = 0;
    bool tls = false;
    if (!account::split_URL(storageUrl, host, port, tls, path, accountPart)) return false;
    // The uploader stored a token for its app key in the token store.
    std::string const token = tavix::controller::OAuthHelper::Instance().GetAuthToken("example-app")->GetToken();
    boost::asio::io_context io;
    bool found = false;
    storage::ResourceSearchClient search(
        io,
        [&](storage::ResourcesResponse const& r, veltrun::TavixErrorResponse const& e, unsigned int status,
            boost::system::error_code const& ec) {
            if (ec || status != 200) {
                std::cerr << "search: status " << status << " " << ec.message() << " " << e.message.value << "\n";
                return;
            }
            for (storage::Resource const& object : r.resources) {
                if (object.name.value != name) continue;
                found = true;
                std::cout << object.name.value << ", " << object.contentLength.value << " bytes, metadata:";
                for (std::string const& key : object.metadata.keys()) std::cout << " " << key;
                std::cout << "\n";
            }
        },
        host, port, token, accountPart, tls, path);
    if (search.searchTypeProject(type, name)) return false;
    io.run();
    return found;
}

int main(int argc, char** argv)
{
    if (argc < 2) return std::cerr << "usage: upload FILE [type]\n", 2;
    boost::filesystem::path const file = argv[1];
    std::string const name = file.filename().string(), type = argc > 2 ? argv[2] : "log";
    boost::system::error_code ec;
    std::string detail;
    tavix::controller::Settings const settings = tavix::controller::Settings::load(ec, &detail);
    if (ec) return std::cerr << "settings: " << detail << ": " << ec.message() << "\n", 2;

    // The callback runs once, on the uploader's thread, when the step is 6 (success or not).
    storage::FileUploader upload(file, name, type, {{"origin", "example"}}, "example-app",
                                 [](storage::FileUploader const& u) {
                                     std::cout << "finished: " << (u.errorCode == 0 ? "stored" : "failed") << "\n";
                                 });
    // The transfer's CA bundle is not read from the settings by the uploader: set it, or it is
    // /etc/openvpn/ca-bundle.crt. Set before the transfer begins (the REST steps come first).
    upload.SetCACertFile(settings.caFile);
    while (!upload.WaitFinished(std::chrono::milliseconds(200)))
        std::cout << "step " << upload.step << ": " << upload.bytesSent << " of " << upload.bytesTotal << " bytes\n";
    if (upload.errorCode != 0) {
        std::cerr << "upload failed at step " << upload.failedStep << " (HTTP " << upload.httpStatus
                  << "): " << upload.errorCode << " " << upload.errorMessage << "\n";
        return 1;
    }
    // mediaLocation is the Storage service's URL + "/media".
    std::string storageUrl = upload.mediaLocation;
    storageUrl.resize(storageUrl.size() - std::string("/media").size());
    std::cout << "stored " << upload.bytesSent << " bytes; Storage service at " << storageUrl << "\n";
    return listMetadataKeys(storageUrl, name, type) ? 0 : 1;
}
