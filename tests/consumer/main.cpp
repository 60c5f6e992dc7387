#include <restclient/RequestEngine.h>
#include <restclient/storage/FileUploader.h>
#include <restclient/veltrun/TavixErrorResponse.h>
#include <tavix/JsonWriter.h>

#include <chrono>
#include <iostream>

// Exercises the public surface the way a user's program would: an unparsable URL is refused
// before anything is sent, a JSON document is written, and, given a file, the file is uploaded
// through the whole chain to the cloud that the controller settings name.
int main(int argc, char** argv)
{
    using namespace tavix::restclient;
    boost::asio::io_context io;
    RestClient<veltrun::TavixErrorResponse, veltrun::TavixErrorResponse> engine(io, {});
    if (engine.asyncRequest(boost::beast::http::verb::get) != boost::system::errc::invalid_argument) {
        std::cerr << "a request without a URL was accepted\n";
        return 1;
    }
    tavix::JsonWriter writer;
    writer.startObject();
    writer.write<unsigned int>("code", 401);
    writer.endObject();
    std::cout << "consumer ok: " << writer.str(false) << "\n";
    if (argc < 2) return 0;

    storage::FileUploader upload(argv[1], "consumer.bin", "log", {{"origin", "consumer"}}, "consumer");
    if (!upload.WaitFinished(std::chrono::minutes(2)) || upload.errorCode != 0) {
        std::cerr << "upload failed: " << upload.errorCode << " " << upload.errorMessage << "\n";
        return 1;
    }
    std::cout << "uploaded " << upload.bytesSent << " bytes\n";
    return 0;
}
