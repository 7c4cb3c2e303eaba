// What moves, or compares, the content of whole disks.

#include <algorithm>
#include <ctime>

#include "host/content/free_space.h"
#include "host/disk/dead_tails.h"
#include "host/disk/disk_files.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "host/system/machine_name.h"
#include "host/system/time_text.h"
#include "host/transfer/chain_difference.h"
#include "host/transfer/compare.h"
#include "host/transfer/disk_content_reader.h"
#include "host/transfer/raw_content_reader.h"
#include "host/transfer/resumed_import.h"
#include "host/transfer/transfer.h"
#include "integrations/python/bindings.h"
#include "integrations/python/disk_opening.h"
#include "integrations/python/key_scope.h"
#include "integrations/python/new_disk.h"
#include "integrations/python/work.h"
#include "yx/log.h"

namespace kelm::python {

namespace {

namespace py = pybind11;
using Paths = std::vector<std::string>;

yx::CInvalidArgError argumentError(char const* function, char const* message) {
    return yx::CInvalidArgError(function, message, yx::CProps());
}

/// How an image becomes a disk.
struct ImportWays {
    bool pad = false;
    bool overwrite = false;
    bool resume = false;
    bool excludeFree = false;
};

/// Bytes of the image that nobody uses, for as long as it is read.
class FreeExclusion {
public:
    /// Lets the source read them as zeros, if that is wanted.
    FreeExclusion(std::string const& image, bool isWanted, host::RawSource& source)
        : m_source(source) {
        if (!isWanted)
            return;
        if (source.getLength() == -1 || image == "-") {
            throw argumentError("import_image",
                                "exclude_free needs an image that can be read at any "
                                "place: a file or a block device that is named.");
        }
        m_found = host::findFreeSpace(image);
        for (std::string const& refusal : m_found->refusals)
            yx::logWarning(yx::String::fromUTF8(refusal));
        if (m_found->space)
            source.excludeFree(*m_found->space);
    }

    /// Nothing where it was not wanted.
    std::optional<__int64> getBytes() const {
        return m_found ? std::optional(m_source.getExcludedBytes()) : std::nullopt;
    }

private:
    host::RawSource& m_source;
    std::optional<host::FoundFreeSpace> m_found;
};

/// The writer of a pipe may have failed half-way, and nothing but the count would show it.
host::ImageLength lengthOf(host::RawSource const& source, __int64 sizeBytes, bool pad) {
    return source.getLength() == -1 ? host::ImageLength{sizeBytes, pad} : host::ImageLength{};
}

/// Goes on where an import was killed. The disk stays, unfinished, if this fails too.
MadeDisk resumeImport(std::string const& image, std::string const& path,
                      NewDiskOptions const& options, Access access, ImportWays const& ways,
                      host::WorkOptions const& work) {
    if (options.compressed || options.encrypt || options.onDemand || options.splitBytes != -1 ||
        ways.overwrite) {
        throw argumentError("import_image", "A disk is resumed as it is; leave out compressed, "
                                            "encrypt, on_demand, split and overwrite.");
    }
    auto const files = yx::makeObject<host::FileSystems>();
    host::RawSource source(image, work.cancel);
    FreeExclusion const exclusion(image, ways.excludeFree, source);
    host::ResumedImport wanted{image, options.sizeBytes};
    if (!options.parent.empty())
        wanted.parent = host::uriFromArgument(options.parent);
    yx::CURI const uri = host::uriFromArgument(path);
    access.trust.unfinished = host::UnfinishedDisks::Itself;
    auto const open = [&] {
        auto opened = std::make_unique<host::SafeDisk>(
            files.get(), uri, yx::IIOStream::ReadWrite, access.password.get(), options.level,
            CVMDKGrainTableCache::kDefaultLimit, access.trust);
        wanted.verifyIsOf(*opened, source);
        return opened;
    };
    std::unique_ptr<host::SafeDisk> disk = open();
    if (host::dropDeadTails(*disk, work.cancel)) {
        disk.reset();
        disk = open();
    }
    __int64 const sizeBytes = host::getRecordedImageBytes(*disk);
    // What the killed import has made of them is of no use.
    std::optional<host::DigestMaking> digests;
    if (options.digests) {
        digests.emplace(files.get(), *disk);
        digests->addImage();
    }
    host::importRaw(source, *disk, work, lengthOf(source, sizeBytes, ways.pad),
                    host::PresentContent::Any, digests ? &*digests : nullptr);
    __int64 const imageBytes = std::max(sizeBytes, source.getPosition());
    host::setExactSizeBytes(*disk, imageBytes);
    if (digests)
        digests->finish(imageBytes, withoutProgress(work));
    disk->markComplete();
    return {uri, disk->getSizeBytes(), imageBytes, options.digests, exclusion.getBytes()};
}

MadeDisk importRawImage(std::string const& image, std::string const& path, NewDiskOptions options,
                        Access const& access, ImportWays const& ways,
                        host::WorkOptions const& work) {
    auto const files = yx::makeObject<host::FileSystems>();
    verifyIsLocalImage(image);
    if (ways.resume)
        return resumeImport(image, path, options, access, ways, work);
    yx::CURI const uri = host::uriFromArgument(path);
    host::RawSource source(image, work.cancel);
    FreeExclusion const exclusion(image, ways.excludeFree, source);
    std::vector<yx::CURI> sourceFiles;
    if (std::optional<yx::CURI> const file = tryNameRegularFile(image))
        sourceFiles.push_back(*file);
    if (sourceFiles == std::vector{uri})
        throw argumentError("import_image", "The image and the disk are the same file.");
    if (options.sizeBytes == -1 && source.getLength() != -1)
        options.sizeBytes = source.getLength() - source.getPosition();
    host::NewDisk request = options.makeRequest(files.get(), access);
    verifyUsesPassword(request, access);
    request.isToBeFilled = true;
    request.imageBytes = request.sizeBytes;
    request.time = host::formatTime(std::time(nullptr));
    request.source = host::nameOfImage(image, source);
    request.host = host::getMachineName();
    DiskMaking making(files.get(), uri, request, *work.cancel, sourceFiles,
                      ways.overwrite ? DiskMaking::Present::Replaced
                                     : DiskMaking::Present::Refused);
    host::SafeDisk& disk = making.getDisk();
    host::DigestMaking* const digests = options.digests ? &making.addDigests() : nullptr;
    if (digests)
        digests->addImage();
    std::unique_ptr<host::ChainDigests> const parents =
        host::ChainDigests::open(files.get(), disk, request.password);
    host::importRaw(source, disk, work, lengthOf(source, request.sizeBytes, ways.pad),
                    host::PresentContent::OfParent, digests, parents.get());
    __int64 const imageBytes = std::max(request.sizeBytes, source.getPosition());
    host::setExactSizeBytes(disk, imageBytes);
    MadeDisk made{uri, disk.getSizeBytes(), imageBytes, options.digests, exclusion.getBytes()};
    making.finish(imageBytes, withoutProgress(work));
    return made;
}

py::dict importImage(std::string const& image, std::string const& path, GivenOptions const& options,
                     py::object const& password, Paths const& allowPaths, bool pad, bool overwrite,
                     bool resume, bool excludeFree, int threads, py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    NewDiskOptions const& wanted = getHeld(options);
    KeyScope const keys;
    MadeDisk made;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        made = importRawImage(image, path, wanted, access, {pad, overwrite, resume, excludeFree},
                              work);
    });
    py::dict described = made.describe();
    described["free_bytes"] = made.freeBytes;
    return described;
}

py::dict exportImage(std::string const& path, std::string const& image, bool overwrite,
                     host::ZeroPolicy zeros, py::object const& password, Paths const& allowPaths,
                     bool unfinished, int threads, py::object const& progress) {
    Access const access = Access::make(password, allowPaths, unfinished);
    KeyScope const keys;
    __int64 imageBytes = 0;
    host::TargetZeros done;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        verifyIsLocalImage(image);
        std::unique_ptr<host::SafeDisk> const disk = openToRead(files.get(), path, access);
        if (std::optional<yx::CURI> const file = tryNameRegularFile(image))
            verifyIsNoneOf(listChainFiles(files.get(), *disk, access.password.get()), *file);
        host::RawTarget target(image, overwrite, work.cancel, zeros);
        host::exportRaw(*disk, target, work);
        imageBytes = host::getExactSizeBytes(*disk);
        done = target.getZeros();
    });
    py::dict exported;
    exported["size"] = imageBytes;
    exported["punched"] = done.punchedBytes;
    exported["left"] = done.leftBytes;
    exported["written"] = done.writtenBytes;
    return exported;
}

/// Copies what differs from the parent of `to`, or everything if it has none.
void copyGrains(yx::IFileSystem* files, host::SafeDisk& from, host::SafeDisk& to,
                NewDiskOptions const& options, Access const& access,
                host::ConversionDigests const& digests, host::WorkOptions const& work) {
    if (!to.hasParent()) {
        host::convertDisk(from, to, work, host::RecordCheck::Decode, digests);
        return;
    }
    std::unique_ptr<host::SafeDisk> const parent = openToRead(files, options.parent, access);
    host::beginWholeReading(from, work.cancel);
    host::beginWholeReading(*parent, work.cancel);
    host::GrainSet const differences = host::findDifferences(from, *parent, withoutProgress(work));
    host::convertGrainsOf(from, to, differences, work, host::RecordCheck::Decode, digests);
}

MadeDisk convertOpenDisk(host::SafeDisk& from, std::string const& target, NewDiskOptions options,
                         Access const& fromAccess, Access const& access,
                         host::WorkOptions const& work) {
    auto const files = yx::makeObject<host::FileSystems>();
    yx::CURI const uri = host::uriFromArgument(target);
    std::vector<yx::CURI> const sourceFiles =
        listChainFiles(files.get(), from, fromAccess.password.get());
    verifyIsNoneOf(sourceFiles, uri);
    bool const keepsExactSize = host::keepsExactSize(from);
    __int64 imageBytes = host::getExactSizeBytes(from);
    if (options.sizeBytes != -1 && options.sizeBytes < imageBytes)
        throw argumentError("convert", "A disk can be made larger, not smaller.");
    if (options.sizeBytes != -1)
        imageBytes = options.sizeBytes;
    options.sizeBytes = std::max(imageBytes, from.getSizeBytes());
    host::NewDisk request = options.makeRequest(files.get(), access);
    request.isToBeFilled = true;
    inheritRecord(from, request);
    if (keepsExactSize)
        request.imageBytes = imageBytes;
    DiskMaking making(files.get(), uri, request, *work.cancel, sourceFiles);
    host::SafeDisk& to = making.getDisk();
    host::ConversionDigests digests;
    if (options.digests)
        digests = making.addDigestsOfCopy(files.get(), from, fromAccess.password.get());
    copyGrains(files.get(), from, to, options, access, digests, work);
    if (keepsExactSize)
        host::setExactSizeBytes(to, imageBytes);
    else
        imageBytes = to.getSizeBytes();
    MadeDisk made{uri, to.getSizeBytes(), imageBytes, options.digests, {}};
    making.finish(imageBytes, withoutProgress(work));
    return made;
}

py::dict convert(std::string const& source, std::string const& target, GivenOptions const& options,
                 py::object const& sourcePassword, py::object const& password,
                 Paths const& allowPaths, bool unfinished, int threads,
                 py::object const& progress) {
    Access const fromAccess = Access::make(sourcePassword, allowPaths, unfinished);
    Access const access = Access::make(password, allowPaths);
    NewDiskOptions const& wanted = getHeld(options);
    KeyScope const keys;
    MadeDisk made;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        std::unique_ptr<host::SafeDisk> const from = openToRead(files.get(), source, fromAccess);
        made = convertOpenDisk(*from, target, wanted, fromAccess, access, work);
    });
    return made.describe();
}

/// A disk or a raw image, whichever the file is.
class ComparedSide {
public:
    ComparedSide(std::string const& path, Access const& access, host::CancelFlag const* cancel)
        : m_files(yx::makeObject<host::FileSystems>()) {
        if (isDisk(path)) {
            m_disk = openToRead(m_files.get(), path, access);
            m_reader = std::make_unique<host::DiskContentReader>(*m_disk, cancel);
        } else {
            verifyIsLocalImage(path);
            m_source = std::make_unique<host::RawSource>(path, cancel);
            m_reader = std::make_unique<host::RawContentReader>(*m_source);
        }
    }

    host::ContentReader& getReader() { return *m_reader; }

private:
    /// A file that is not there is one too if it would lie in a store.
    bool isDisk(std::string const& path) const {
        if (!host::isStoreURI(path))
            return path != "-" && host::isDiskMainFile(path);
        yx::CURI const uri = host::uriFromArgument(path);
        return host::isDiskMainFile(uri) || !m_files->fileExists(uri);
    }

    yx::P<host::FileSystems> m_files;
    std::unique_ptr<host::SafeDisk> m_disk;
    std::unique_ptr<host::RawSource> m_source;
    std::unique_ptr<host::ContentReader> m_reader;
};

py::dict compare(std::string const& left, std::string const& right, py::object const& leftPassword,
                 py::object const& rightPassword, Paths const& allowPaths, bool unfinished,
                 int threads, py::object const& progress) {
    Access const leftAccess = Access::make(leftPassword, allowPaths, unfinished);
    Access const rightAccess = Access::make(rightPassword, allowPaths, unfinished);
    KeyScope const keys;
    host::Comparison comparison;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        ComparedSide leftSide(left, leftAccess, work.cancel);
        ComparedSide rightSide(right, rightAccess, work.cancel);
        comparison = host::compareContent(leftSide.getReader(), rightSide.getReader(), work);
    });
    py::dict result;
    result["first_difference"] = comparison.firstDifferenceBytes;
    result["differing_bytes"] = comparison.differingBytes;
    result["left_bytes"] = comparison.leftBytes;
    result["right_bytes"] = comparison.rightBytes;
    return result;
}

} // namespace

void addTransfers(py::module_& module) {
    module.def("import_image", &importImage);
    py::enum_<host::ZeroPolicy>(module, "ZeroPolicy")
        .value("punch", host::ZeroPolicy::Punch)
        .value("skip", host::ZeroPolicy::Skip)
        .value("write", host::ZeroPolicy::Write);
    module.def("export_image", &exportImage);
    module.def("convert", &convert);
    module.def("compare", &compare);
}

} // namespace kelm::python
