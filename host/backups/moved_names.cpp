#include "host/backups/moved_names.h"

#include <set>

#include "host/disk/digest_file_name.h"
#include "host/disk/extent_names.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

yx::CURI movedName(yx::CURI const& extent, yx::CURI const& from, yx::CURI const& to) {
    yx::CURI const folder =
        from.getParent() == to.getParent() ? extent.getParent() : to.getParent();
    wxString rest;
    if (!extent.getName().wx().StartsWith(from.getTitle().wx(), &rest))
        return (folder << extent.getName()).toNormalized();
    if (isExtentName(from, extent)) {
        rest.resize(rest.length() - from.getExtension().wx().length());
        rest += to.getExtension().wx();
    }
    return (folder << (to.getTitle() + yx::String(rest))).toNormalized();
}

} // namespace

std::vector<std::pair<yx::CURI, yx::CURI>> listMovedNames(DiskParts const& disk,
                                                          yx::CURI const& to) {
    yx::CURI const& from = disk.getMainFile();
    std::vector<std::pair<yx::CURI, yx::CURI>> names{{from, to}};
    std::set<yx::CURI> targets{to};
    for (yx::CURI const& extent : disk.extentFiles) {
        yx::CURI const target = movedName(extent, from, to);
        if (!targets.insert(target).second) {
            throw yx::CIOError(yx::CIOError::NotAllowed,
                               "Two files of the disk would have one name.",
                               yx::CProps().add("uri", target.toString(true)), nullptr);
        }
        names.emplace_back(extent, target);
    }
    if (!disk.digestFile.isEmpty())
        names.emplace_back(disk.digestFile, digestFileOf(to).toNormalized());
    return names;
}

} // namespace kelm::host
