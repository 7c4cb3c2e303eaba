// What finds out whether disks are sound, and mends them.

#include <utility>

#include "host/check/disk_check.h"
#include "host/check/repair.h"
#include "host/digest/disk_digests.h"
#include "host/disk/file_guard.h"
#include "host/store/file_names.h"
#include "host/store/file_systems.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/whole_reading.h"
#include "integrations/python/bindings.h"
#include "integrations/python/disk_opening.h"
#include "integrations/python/key_scope.h"
#include "integrations/python/work.h"
#include "yx/mt_rand.h"

namespace kelm::python {

namespace {

namespace py = pybind11;
using Paths = std::vector<std::string>;
using Findings = std::vector<std::pair<yx::CURI, std::string>>;

/// A seed of 0 draws one, and `seed` becomes that.
host::CheckScope makeScope(bool own, bool needsDigests, double samplePercent,
                           unsigned long long& seed) {
    host::CheckScope scope;
    scope.ownOnly = own;
    scope.needsDigests = needsDigests;
    if (samplePercent <= 0)
        return scope;
    while (seed == 0)
        seed = yx::CMTRand::drawGlobal32();
    scope.sample = host::GrainSample(samplePercent, seed);
    return scope;
}

py::dict describeCheck(host::CheckResult const& result, Findings const& findings,
                       unsigned long long seed) {
    py::list texts;
    for (auto const& [file, text] : findings)
        texts.append(py::make_tuple(toText(file), toText(text)));
    py::dict report;
    report["findings"] = texts;
    report["held_grains"] = result.heldGrainCount;
    report["read_grains"] = result.readGrainCount;
    report["seed"] = seed;
    report["out_of_date"] = toTexts(result.outOfDate);
    return report;
}

py::dict check(std::string const& path, bool own, bool needsDigests, double samplePercent,
               unsigned long long seed, py::object const& password, Paths const& allowPaths,
               int threads, py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    host::CheckScope const scope = makeScope(own, needsDigests, samplePercent, seed);
    Findings findings;
    host::CheckResult result;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        result = host::checkDisk(
            files.get(), host::uriFromArgument(path), access.password.get(), work,
            [&](yx::CURI const& file, std::string const& text) {
                findings.emplace_back(file, text);
            },
            access.trust, scope);
    });
    return describeCheck(result, findings, samplePercent > 0 ? seed : 0);
}

/// The digest of the image that the digest file has, if it is to be believed.
std::optional<host::Digest> findImageDigest(yx::IFileSystem* files, host::SafeDisk& disk,
                                            __int64 imageBytes) {
    host::DiskDigests const digests = host::DiskDigests::open(files, disk);
    if (!digests.areUpToDate() || digests.file->getHeader().imageSizeBytes != imageBytes)
        return std::nullopt;
    return digests.file->getHeader().imageDigest;
}

host::Digest hashImage(host::SafeDisk& disk, __int64 imageBytes, host::WorkOptions const& work) {
    host::beginWholeReading(disk, work.cancel);
    host::ImageHasher image;
    image.addFromDisk(disk, imageBytes, work);
    return image.finish();
}

/// Digests that were made of sound content are not replaced by those of what may be damaged since.
void verifyHasNoDigests(yx::IFileSystem* files, host::SafeDisk& disk) {
    if (host::DiskDigests::open(files, disk).areUpToDate()) {
        throw yx::CIOError(yx::CIOError::AlreadyExists, "The disk has digests that are up to date.",
                           yx::CProps().add("uri", disk.getDisk().getMainFileURI().toString(true)),
                           nullptr);
    }
}

void makeDigests(yx::IFileSystem* files, host::SafeDisk& disk, __int64 imageBytes,
                 host::WorkOptions const& work) {
    // What is not finished goes.
    auto const guard = yx::makeObject<host::FileGuard>(files, true, work.cancel);
    host::beginWholeReading(disk, work.cancel);
    host::DigestMaking digests(guard.get(), disk);
    digests.addImage();
    digests.finish(imageBytes, work);
    guard->keep();
}

py::bytes digest(std::string const& path, bool keep, bool overwrite, py::object const& password,
                 Paths const& allowPaths, int threads, py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    host::Digest digest{};
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        std::unique_ptr<host::SafeDisk> const disk = openToRead(files.get(), path, access);
        __int64 const imageBytes = host::getExactSizeBytes(*disk);
        if (keep) {
            if (!overwrite)
                verifyHasNoDigests(files.get(), *disk);
            makeDigests(files.get(), *disk, imageBytes, work);
        }
        std::optional<host::Digest> const kept = findImageDigest(files.get(), *disk, imageBytes);
        digest = kept ? *kept : hashImage(*disk, imageBytes, work);
    });
    return py::bytes(reinterpret_cast<char const*>(digest.data()), digest.size());
}

py::list repair(std::string const& path, bool isDryRun, py::object const& password,
                Paths const& allowPaths) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    host::RepairReport report;
    runWork(py::none(), 0, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        report = host::repairDisk(files.get(), host::uriFromArgument(path), access.password.get(),
                                  {isDryRun, access.trust, work.cancel});
    });
    py::list result;
    for (host::FileRepair const& file : report.files) {
        py::list mended;
        for (std::string const& sentence : file.mended)
            mended.append(toText(sentence));
        py::list left;
        for (std::string const& sentence : file.left)
            left.append(toText(sentence));
        result.append(py::make_tuple(toText(file.file), mended, left));
    }
    return result;
}

__int64 undoRepair(std::string const& path, Paths const& allowPaths) {
    Access const access = Access::make(py::none(), allowPaths);
    __int64 sectors = 0;
    runWork(py::none(), 0, [&](host::WorkOptions const&) {
        auto const files = yx::makeObject<host::FileSystems>();
        sectors = host::undoRepair(files.get(), host::uriFromArgument(path), access.trust);
    });
    return sectors;
}

} // namespace

void addChecks(py::module_& module) {
    module.def("check", &check);
    module.def("digest", &digest);
    module.def("repair", &repair);
    module.def("undo_repair", &undoRepair);
}

} // namespace kelm::python
