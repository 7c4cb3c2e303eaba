#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/store/store_holders.h"
#include "tests/support/folder_store.h"

namespace test_support {

/// A store that knows who holds its files, from a file of the machine with a line for each client
/// and file:
///
///     NUMBER HOST USER PROCESS LIFE NAME WHAT...
///
/// LIFE is "unknown", "lives" or "died", NAME the file's in the folder, WHAT some of "open",
/// "write" and "changes", or else "nothing". To shut a client out ends its process, unless that is
/// 0, and takes its lines away. A line "denied" refuses all questions. Without the file nobody holds
/// anything.
class HoldingStore : public FolderStore, public kelm::host::IStoreHolders {
public:
    /// `folder` as for `FolderStore`; `list` is the file with the lines.
    HoldingStore(std::string folder, std::filesystem::path list)
        : FolderStore(std::move(folder)), m_list(std::move(list)) {}

    std::vector<kelm::host::StoreHolder> findHolders(std::vector<yx::CURI> const& files) override;
    void shutOut(yx::CURI const& uri, std::string const& number) override;

private:
    std::vector<std::string> readLines(yx::CURI const& uri) const;

    std::filesystem::path m_list;
};

} // namespace test_support
