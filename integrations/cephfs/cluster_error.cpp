#include "integrations/cephfs/cluster_error.h"

#include <cerrno>
#include <string>
#include <system_error>

#include "yx/system_error.h"

namespace kelm::ceph {

namespace {

/// Not said of an action: nothing was done, or nobody knows what.
constexpr char kGivenUp[] = "The connection to the cluster was given up.";

std::string getWords(int errorNumber) {
    switch (errorNumber) {
    case ESHUTDOWN:
        return "The cluster has shut this client out.";
    case ESTALE:
        return "The cluster no longer knows the file or this session.";
    case ENOTCONN:
        return "There is no connection to the cluster.";
    case ETIMEDOUT:
        return "The cluster does not answer.";
    default:
        return std::generic_category().message(errorNumber);
    }
}

} // namespace

yx::CIOError makeClusterError(yx::detail::FileAction action, int result, yx::CProps const& props) {
    int const errorNumber = -result;
    if (errorNumber == ECANCELED)
        return makeClusterError("", result, props);
    std::string const message =
        yx::detail::makeFileError(action, errorNumber, props).getMessage().toStdString();
    std::size_t const systemWords = std::generic_category().message(errorNumber).size();
    return makeClusterError(message.substr(0, message.size() - systemWords).c_str(), result, props);
}

yx::CIOError makeClusterError(char const* beginning, int result, yx::CProps const& props) {
    if (result == -ECANCELED)
        return yx::CIOError(yx::CIOError::IOFailure, kGivenUp, props, nullptr);
    return yx::CIOError(yx::getSystemErrorCode(-result),
                        yx::String::fromUTF8(beginning + getWords(-result)), props, nullptr);
}

} // namespace kelm::ceph
