#include "host/disk/disk_reach.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>

#include <sys/stat.h>

#include "host/system/file_descriptor.h"
#include "host/system/file_identity.h"
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

std::string folderOf(std::string const& path) {
    return std::filesystem::path(path).parent_path().string();
}

bool isRegular(std::string const& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
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

yx::CProps extentProps(yx::CURI const& uri) {
    return yx::CProps().add("uri", uri.toString(true));
}

} // namespace

DiskReach::DiskReach(yx::CURI const& mainFile, DiskTrust const& trust)
    : m_mainFile(mainFile), m_trust(trust) {
    if (!isFileOfSystem(m_mainFile))
        return;
    std::string const path = pathOfFile(m_mainFile);
    m_realMainPath = resolvePath(path).value_or("");
    if (!m_realMainPath.empty())
        m_realFolders.push_back(folderOf(m_realMainPath));
    m_realFolders.push_back(resolvePath(folderOf(path)).value_or(folderOf(path)));
    for (yx::CURI const& folder : m_trust.allowedPaths) {
        if (isFileOfSystem(folder))
            m_realFolders.push_back(resolvePath(pathOfFile(folder)).value_or(pathOfFile(folder)));
    }
}

bool DiskReach::isInAllowedFolder(std::string const& realPath) const {
    return std::any_of(m_realFolders.begin(), m_realFolders.end(),
                       [&](std::string const& folder) { return isBelow(folder, realPath); });
}

bool DiskReach::isAllowed(yx::CURI const& extent) const {
    if (!isFileOfSystem(extent) || !isFileOfSystem(m_mainFile)) {
        return isBelow(m_mainFile.getParent(), extent) ||
               std::any_of(m_trust.allowedPaths.begin(), m_trust.allowedPaths.end(),
                           [&](yx::CURI const& folder) { return isBelow(folder, extent); });
    }
    std::string const path = pathOfFile(extent);
    if (std::optional<std::string> const real = resolvePath(path))
        return *real == m_realMainPath || isInAllowedFolder(*real);
    // A link to nowhere: making the file would make the one that it leads to.
    if (isSymbolicLink(path))
        return false;
    std::optional<std::string> const folder = resolvePath(folderOf(path));
    return !folder || isInAllowedFolder((std::filesystem::path(*folder) / "file").string());
}

void DiskReach::verifyExtent(yx::CURI const& extent) const {
    if (!isAllowed(extent)) {
        throw yx::CIOError(
            yx::CIOError::NotAllowed,
            "The disk names a file outside of its folder. If you trust the disk, allow that file's "
            "folder (--allow-path, allow-path=).",
            extentProps(extent).add("folder", m_mainFile.getParent().toString(true)), nullptr);
    }
    if (!isFileOfSystem(extent) || extent == m_mainFile)
        return;
    std::string const path = pathOfFile(extent);
    if (identifyFile(path) && !isRegular(path)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "An extent of the disk is no regular file.",
                           extentProps(extent), nullptr);
    }
}

void DiskReach::verifyParent(yx::CURI const& mainFile) {
    if (!isFileOfSystem(mainFile))
        return;
    std::string const path = pathOfFile(mainFile);
    if (identifyFile(path) && !isRegular(path)) {
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
    bool const countsMissing =
        !m_trust.allowOversize && descriptor.getYxCreateExtentFilesOnDemand();
    yx::CURI const folder = m_mainFile.getParent();
    std::vector<yx::CURI> extents;
    __int64 missingSectors = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        extents.push_back(vmdkFileReferenceToURI(folder, info->getFilename()));
        verifyExtent(extents.back());
        // Bounded first, so that no sum overflows; the library refuses a size below 0.
        if (countsMissing && !fileSystem.fileExists(extents.back()))
            missingSectors += std::clamp<__int64>(info->getSizeSectors(), 0, kMaxBytesWithoutFile);
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
