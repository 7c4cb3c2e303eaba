#include "host/disk/disk_reach.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>

#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "host/system/file_descriptor.h"
#include "kelm/format/constants.h"
#include "kelm/format/file_reference.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr char kOversizeAdvice[] =
    " If you trust the disk, allow it (--allow-oversize, allow-oversize=true).";

bool isFileOfSystem(yx::CURI const& uri) {
    return uri.getScheme() == "file";
}

std::string pathOfFile(yx::CURI const& uri) {
    return yx::toNativePath(uri).toStdString();
}

/// Links followed; nothing if the file is not there, and an error if that cannot be told.
std::optional<std::string> resolvePath(std::string const& path) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(::realpath(path.c_str(), nullptr),
                                                               &std::free);
    if (resolved)
        return resolved.get();
    if (errno != ENOENT && errno != ENOTDIR)
        throwSystemError("Cannot resolve the name", path);
    return std::nullopt;
}

std::string_view folderPartOf(std::string_view path) {
    std::size_t end = path.rfind('/');
    if (end == std::string_view::npos)
        return {};
    while (end > 0 && path[end - 1] == '/')
        --end;
    return path.substr(0, std::max<std::size_t>(end, 1));
}

std::string folderOf(std::string const& path) {
    return std::string(folderPartOf(path));
}

bool isSymbolicLink(std::string const& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isBelow(std::string const& folder, std::string const& path) {
    std::string const prefix = folder.ends_with('/') ? folder : folder + '/';
    return path.starts_with(prefix);
}

bool isBelow(yx::CURI const& folder, yx::CURI const& uri) {
    return isBelow(folder.toNormalized().toString(true).toStdString(),
                   uri.toNormalized().toString(true).toStdString());
}

/// What a line of a descriptor says, bounded, so that no sum overflows; the library refuses a size
/// below 0.
__int64 boundedSizeSectors(CVMDKExtentInfo const& info) {
    return std::clamp<__int64>(info.getSizeSectors(), 0, kMaxBytesWithoutFile);
}

/// Whether a disk has too many bytes without a file if none of its files is there.
bool mayExceedMissingLimit(yx::TArray<yx::P<CVMDKExtentInfo>> const& infos) {
    __int64 sectors = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        sectors += boundedSizeSectors(*info);
        if (sectors > kMaxBytesWithoutFile / kSectorSizeBytes)
            return true;
    }
    return false;
}

/// Links followed; nothing for what leads nowhere.
std::optional<yx::CURI> tryResolveIn(IStore& store, yx::CURI const& uri) {
    try {
        return store.resolveName(uri);
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::NotFound)
            throw;
        return std::nullopt;
    }
}

/// The name itself where there is no store that knows of links.
yx::CURI resolveFolder(yx::CURI const& folder) {
    IStore* const store = isFileOfSystem(folder) ? nullptr : findStore(folder);
    return store ? tryResolveIn(*store, folder).value_or(folder) : folder;
}

yx::CProps extentProps(yx::CURI const& uri) {
    return yx::CProps().add("uri", uri.toString(true));
}

} // namespace

/// The folders that extents lie in. Each is resolved once, and where many files of one are asked
/// for, it is listed once, which takes less than looking at each.
class DiskReach::Folders {
public:
    /// `fileCount` is how many files will be asked for.
    explicit Folders(int fileCount) : m_fileCount(fileCount) {}

    /// The real path of a file's folder; nothing if that is not there.
    std::optional<std::string> const& resolveFolderOf(std::string const& path) {
        return find(path).real;
    }

    /// Whether a file is known to be there and to be a regular one, and no link.
    bool isPlainFile(std::string const& path) {
        Folder& folder = find(path);
        if (m_fileCount < kMinFilesToList)
            return isPlain(path);
        if (!folder.isListed)
            list(folder, folderOf(path));
        return folder.plainFiles.contains(nameOf(path)) || isPlain(path);
    }

    /// What `isAllowed` says of the folder of a file, which is there; it is asked once.
    template <class IsAllowed>
    bool isAllowedFolderOf(std::string const& path, IsAllowed const& isAllowed) {
        Folder& folder = find(path);
        if (!folder.isAllowed)
            folder.isAllowed = isAllowed(*folder.real);
        return *folder.isAllowed;
    }

private:
    static constexpr int kMinFilesToList = 16;

    /// A folder of so many more files than are asked for is not read to its end.
    static constexpr int kMaxFilesPerFile = 16;

    struct CloseFolder {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };

    /// Names are looked up without a copy.
    struct HashOfName : std::hash<std::string_view> {
        using is_transparent = void;
    };

    struct Folder {
        std::optional<std::string> real;
        std::optional<bool> isAllowed;
        bool isListed = false;
        std::unordered_set<std::string, HashOfName, std::equal_to<>> plainFiles;
    };

    static std::string_view nameOf(std::string_view path) {
        return path.substr(path.rfind('/') + 1);
    }

    static bool isPlain(std::string const& path) {
        struct stat status = {};
        return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    }

    Folder& find(std::string const& path) {
        std::string_view const name = folderPartOf(path);
        if (m_last && m_last->first == name)
            return m_last->second;
        auto const [folder, isNew] = m_folders.try_emplace(std::string(name));
        if (isNew)
            folder->second.real = resolvePath(folder->first);
        m_last = &*folder;
        return folder->second;
    }

    void list(Folder& folder, std::string const& path) const {
        folder.isListed = true;
        folder.plainFiles.reserve(static_cast<std::size_t>(m_fileCount));
        std::unique_ptr<DIR, CloseFolder> const stream(::opendir(path.c_str()));
        for (int left = m_fileCount * kMaxFilesPerFile; stream && left > 0; --left) {
            dirent const* const entry = ::readdir(stream.get());
            if (!entry)
                return;
            if (entry->d_type == DT_REG)
                folder.plainFiles.emplace(entry->d_name);
        }
    }

    int m_fileCount;
    std::map<std::string, Folder> m_folders;

    /// The one that was asked for last; null at first. Mostly it is the next one, too.
    std::pair<std::string const, Folder>* m_last = nullptr;
};

DiskReach::DiskReach(yx::CURI const& mainFile, DiskTrust const& trust)
    : m_mainFile(mainFile), m_trust(trust) {}

DiskReach::RealPaths const& DiskReach::resolve() const {
    if (m_realPaths)
        return *m_realPaths;
    RealPaths paths;
    std::string const path = pathOfFile(m_mainFile);
    paths.mainPath = resolvePath(path).value_or("");
    if (!paths.mainPath.empty())
        paths.folders.push_back(folderOf(paths.mainPath));
    paths.folders.push_back(resolvePath(folderOf(path)).value_or(folderOf(path)));
    for (yx::CURI const& folder : m_trust.allowedPaths) {
        if (isFileOfSystem(folder))
            paths.folders.push_back(resolvePath(pathOfFile(folder)).value_or(pathOfFile(folder)));
    }
    return m_realPaths.emplace(std::move(paths));
}

bool DiskReach::isInAllowedFolder(std::string const& realPath) const {
    std::vector<std::string> const& folders = resolve().folders;
    return std::any_of(folders.begin(), folders.end(),
                       [&](std::string const& folder) { return isBelow(folder, realPath); });
}

bool DiskReach::isAllowed(yx::CURI const& extent, Folders& folders) const {
    if (!isFileOfSystem(extent) || !isFileOfSystem(m_mainFile))
        return isAllowedInStore(extent);
    std::string const path = pathOfFile(extent);
    if (std::optional<std::string> const real = resolvePath(path))
        return *real == resolve().mainPath || isInAllowedFolder(*real);
    // A link to nowhere: making the file would make the one that it leads to.
    if (isSymbolicLink(path))
        return false;
    std::optional<std::string> const& folder = folders.resolveFolderOf(path);
    return !folder || isInAllowedFolder((std::filesystem::path(*folder) / "file").string());
}

/// Where not both the disk and the extent are files of the operating system.
bool DiskReach::isAllowedInStore(yx::CURI const& extent) const {
    IStore* const store = isFileOfSystem(extent) ? nullptr : findStore(extent);
    std::optional<yx::CURI> const real = store ? tryResolveIn(*store, extent) : extent;
    // A link to nowhere: making the file would make the one that it leads to.
    if (!real && store->findStatus(extent, false))
        return false;
    // What lies in a folder that is not there is not there either.
    yx::CURI const target = real.value_or(extent);
    return isBelow(resolveFolder(m_mainFile.getParent()), target) ||
           std::any_of(m_trust.allowedPaths.begin(), m_trust.allowedPaths.end(),
                       [&](yx::CURI const& folder) { return isBelow(folder, target); });
}

void DiskReach::verifyExtent(yx::CURI const& extent) const {
    Folders folders(1);
    verifyExtent(extent, folders);
}

void DiskReach::verifyExtent(yx::CURI const& extent, Folders& folders) const {
    if (isFileOfSystem(extent) && isFileOfSystem(m_mainFile)) {
        std::string const path = pathOfFile(extent);
        auto const isAllowed = [this](std::string const& folder) {
            return isInAllowedFolder(folder + "/file");
        };
        if (folders.resolveFolderOf(path) && folders.isPlainFile(path) &&
            folders.isAllowedFolderOf(path, isAllowed))
            return;
    }
    if (!isAllowed(extent, folders)) {
        throw yx::CIOError(
            yx::CIOError::NotAllowed,
            "The disk names a file outside of its folder. If you trust the disk, allow that file's "
            "folder (--allow-path, allow-path=).",
            extentProps(extent).add("folder", m_mainFile.getParent().toString(true)), nullptr);
    }
    if (extent != m_mainFile && isOtherThanFile(extent)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "An extent of the disk is no regular file.",
                           extentProps(extent), nullptr);
    }
}

void DiskReach::verifyParent(yx::CURI const& mainFile) {
    if (isOtherThanFile(mainFile)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The parent disk is no regular file.",
                           extentProps(mainFile), nullptr);
    }
}

std::vector<yx::CURI> DiskReach::verifyExtents(CVMDKDescriptor const& descriptor,
                                               yx::IFileSystem& fileSystem) const {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    descriptor.getExtentEntries(infos);
    auto const refuse = [this](yx::String const& message) {
        throw yx::CIOError(yx::CIOError::NotAllowed, message + kOversizeAdvice,
                           extentProps(m_mainFile), nullptr);
    };
    if (!m_trust.allowOversize && infos.getSize() > kMaxExtents)
        refuse("The disk has " + yx::toString(infos.getSize()) + " extents.");
    bool const countsMissing = !m_trust.allowOversize &&
                               descriptor.getYxCreateExtentFilesOnDemand() &&
                               mayExceedMissingLimit(infos);
    Folders folders(infos.getSize());
    yx::CURI const folder = m_mainFile.getParent();
    std::vector<yx::CURI> extents;
    extents.reserve(static_cast<std::size_t>(infos.getSize()));
    __int64 missingSectors = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        extents.push_back(vmdkFileReferenceToURI(folder, info->getFilename()));
        if (extents.back() != m_mainFile)
            verifyExtent(extents.back(), folders);
        if (countsMissing && !fileSystem.fileExists(extents.back()))
            missingSectors += boundedSizeSectors(*info);
        if (missingSectors > kMaxBytesWithoutFile / kSectorSizeBytes) {
            refuse("The disk has more than " + yx::toString(kMaxBytesWithoutFile) +
                   " bytes of extents without a file.");
        }
    }
    return extents;
}

void DiskReach::verifyGrainSize(yx::CURI const& extent, unsigned long long grainSizeSectors) const {
    if (m_trust.allowOversize || grainSizeSectors <= kMaxGrainSizeBytes / kSectorSizeBytes)
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed,
                       "The disk has grains of " + yx::toString(grainSizeSectors) + " sectors." +
                           kOversizeAdvice,
                       extentProps(extent), nullptr);
}

} // namespace kelm::host
