#include "tools/kelm/output.h"

#include <cerrno>
#include <cstdio>

#include <stdio_ext.h>

#include "host/system/cancel.h"
#include "host/system/file_descriptor.h"

namespace kelm::tool {

namespace {

bool outputHasFailed = false;

void verify(bool done) {
    if (done)
        return;
    int const error = errno;
    outputHasFailed = true;
    dropOutput();
    if (error == EINTR)
        throw host::CancelledError();
    errno = error;
    host::throwSystemError("Cannot write the output", "standard output");
}

} // namespace

void print(std::string const& text) {
    verify(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void flushOutput() {
    verify(std::fflush(stdout) == 0);
}

bool hasOutputFailed() {
    return outputHasFailed;
}

void dropOutput() {
    ::__fpurge(stdout);
}

} // namespace kelm::tool
