#include "host/store/file_status.h"

#include "host/store/forwarding_stream.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/native_stream.h"

namespace kelm::host {

namespace {

/// What all the streams that pass on lead to.
yx::IStreamBase& innermost(yx::IStreamBase& stream) {
    auto* const forwarding = dynamic_cast<ForwardingStream*>(&stream);
    return forwarding ? innermost(*forwarding->getForwarded()) : stream;
}

} // namespace

std::optional<FileStatus> findStatus(yx::CURI const& uri) {
    IStore* const store = findStore(uri);
    if (!store)
        return std::nullopt;
    try {
        return store->findStatus(uri, true);
    } catch (yx::CIOError const& error) {
        // A folder on the way that may not be entered.
        if (error.getIOCode() != yx::CIOError::AccessDenied)
            throw;
        return std::nullopt;
    }
}

std::optional<FileIdentity> identifyFile(yx::CURI const& uri) {
    std::optional<FileStatus> status = findStatus(uri);
    if (!status)
        return std::nullopt;
    return std::move(status->identity);
}

std::optional<FileIdentity> identifyStream(yx::IStreamBase& stream) {
    if (auto const* const native = dynamic_cast<yx::INativeStream*>(&stream)) {
        if (native->getFileDescriptor() >= 0)
            return identifyFile(native->getFileDescriptor());
    }
    yx::IStreamBase& inner = innermost(stream);
    IStore* const store = findStore(inner.getURI());
    if (!store)
        return std::nullopt;
    try {
        return store->getOpenStatus(inner).identity;
    } catch (yx::CInvalidArgError const& error) {
        // A stream of a host's own file system.
        error.nop();
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::Closed)
            throw;
    }
    return std::nullopt;
}

} // namespace kelm::host
