#include <restclient/storage/FileUploader.h>

#include <chrono>
#include <iostream>

// Uploads the file it is given to the cloud the controller settings name.
int main(int argc, char** argv)
{
    if (argc < 2) return 2;
    tavix::restclient::storage::FileUploader upload(argv[1], "uploader-only.bin", "log", {}, "uploader-only");
    if (!upload.WaitFinished(std::chrono::minutes(2)) || upload.errorCode != 0) {
        std::cerr << "upload failed: " << upload.errorCode << " " << upload.errorMessage << "\n";
        return 1;
    }
    std::cout << "uploader-only ok\n";
}
