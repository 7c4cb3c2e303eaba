#include "host/store/folder_files.h"

#include <algorithm>
#include <optional>

#include "host/store/stores.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// The files below one folder, as they are found.
class FileSearch {
public:
    explicit FileSearch(IStore& store) : m_store(store) {}

    /// A folder below the first one may be gone by now, or not to be read.
    void lookBelow(yx::CURI const& folder) {
        for (FolderEntry const& entry : m_store.listFolder(folder)) {
            std::optional<yx::String> const name = yx::String::tryFromUTF8(entry.name);
            if (name)
                look((yx::CURI(folder) << *name).toNormalized(), entry.kind);
        }
    }

    std::vector<yx::CURI> takeFiles() {
        std::sort(m_files.begin(), m_files.end());
        m_files.erase(std::unique(m_files.begin(), m_files.end()), m_files.end());
        return std::move(m_files);
    }

private:
    void look(yx::CURI const& uri, FileKind kind) {
        try {
            if (kind == FileKind::Folder)
                lookBelow(uri);
            else if (kind == FileKind::File)
                m_files.push_back(uri);
            else if (kind == FileKind::Link)
                follow(uri);
        } catch (yx::CIOError const& error) {
            auto const code = error.getIOCode();
            if (code != yx::CIOError::NotFound && code != yx::CIOError::AccessDenied &&
                code != yx::CIOError::NotSupported)
                throw;
        }
    }

    void follow(yx::CURI const& link) {
        std::optional<FileStatus> const status = m_store.findStatus(link, true);
        if (status && status->kind == FileKind::File)
            m_files.push_back(m_store.resolveName(link));
    }

    IStore& m_store;
    std::vector<yx::CURI> m_files;
};

} // namespace

std::vector<yx::CURI> listFilesBelow(yx::CURI const& folder) {
    IStore& store = storeOf(folder);
    FileSearch search(store);
    std::optional<FileStatus> const status = store.findStatus(folder, true);
    // The folder has one name, and so have its files, whatever links led to it.
    search.lookBelow(status ? store.resolveName(folder) : folder);
    return search.takeFiles();
}

} // namespace kelm::host
