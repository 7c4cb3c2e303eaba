#pragma once

#include <optional>
#include <string>
#include <vector>

#include "yx/uri.h"

namespace kelm::ceph {

/// A client of a file system, as a metadata server describes it. What it does not say is empty.
struct CephClient {
    __int64 number = 0;
    std::string host;    ///< as its machine calls itself
    std::string user;    ///< without "client."
    std::string process; ///< its number there
    std::string uuid;    ///< by which it can be known on its machine

    /// For how long it has been one.
    std::optional<__int64> connectedSeconds = std::nullopt;

    /// Whether it has not been heard from for too long.
    bool isMissed = false;
};

/// What a client has of a file: what it has been given (capabilities), and what it wants.
struct CephFileUse {
    __int64 client = 0;
    bool isOpen = false;
    bool isOpenForWriting = false;

    /// It may change the file, or keep what it has changed, without telling; until it has given that
    /// back, others who ask for the file wait.
    bool mayHaveChanges = false;
};

/// Reads the answer to "client ls". One that is not such an answer is `yx::CIOError` `IOFailure` "The
/// metadata server's answer is not understood." with "uri", which is only for that.
std::vector<CephClient> parseClients(std::string const& answer, yx::CURI const& uri);

/// Reads the answer to "dump tree" for a file, which is empty where the metadata server has nothing
/// of the file in its memory, and so nobody has any of it. Errors as above.
std::vector<CephFileUse> parseFileUses(std::string const& answer, yx::CURI const& uri);

} // namespace kelm::ceph
