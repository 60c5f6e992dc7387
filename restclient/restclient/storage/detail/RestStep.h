// The two shapes every REST step of the upload chain takes (internal; FileUploader's .cpp files).
#pragma once

#include <restclient/storage/FileUploader.h>

namespace tavix::restclient::storage {

template <typename Start>
bool FileUploader::runRestStep(RestStep const& restStep, Start start)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        step = restStep.number;
        m_lastStatus = 0;
        m_operation.Start();
        switch (start([this, &restStep](boost::system::error_code const& ec) { return settleStep(restStep, ec); })) {
        case StepResult::done: return true;
        case StepResult::again: continue;
        case StepResult::failed: return false;
        }
    }
    return false;
}

template <typename Succeeded, typename Failed>
void FileUploader::answerRestStep(boost::system::error_code const& ec, unsigned int status,
                                  veltrun::TavixErrorResponse const& error, char const* action, Succeeded succeeded,
                                  Failed failed)
{
    m_lastStatus = ec ? 0 : static_cast<std::int32_t>(status);
    if (!ec && status == 200) return m_operation.Done(succeeded() ? AsyncOperation::Success : AsyncOperation::Failed);
    if (retryAfterUnauthorized(error, action)) return;
    failed();
    m_operation.Done(AsyncOperation::Failed);
}

} // namespace tavix::restclient::storage
