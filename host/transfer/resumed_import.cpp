#include "host/transfer/resumed_import.h"

#include <filesystem>
#include <optional>

#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

[[noreturn]] void refuseResumption(std::string const& message) {
    throw yx::CInvalidArgError("ResumedImport::verifyIsOf", yx::String::fromUTF8(message),
                               yx::CProps());
}

} // namespace

std::string nameOfImage(std::string const& image, RawSource const& source) {
    if (source.getLength() == -1 || image == "-")
        return "";
    // As stored, a byte takes up to three.
    std::string name = std::filesystem::absolute(image).lexically_normal().string();
    return name.size() > DiskRecord::kMaxTextBytes / 3 ? "" : name;
}

void ResumedImport::verifyIsOf(SafeDisk& disk, RawSource const& source) const {
    DiskRecord const record(*disk.getDisk().getDescriptor());
    if (record.getState() == DiskState::Complete)
        refuseResumption("The disk is complete; there is nothing to resume.");
    std::string const name = nameOfImage(image, source);
    if (!name.empty() && !record.getSource().empty() && name != record.getSource())
        refuseResumption("The disk was being made of another image: " + record.getSource());
    __int64 const imageBytes =
        sizeBytes != -1 ? sizeBytes : source.getLength() - source.getPosition();
    bool const isKnown = sizeBytes != -1 || source.getLength() != -1;
    std::optional<__int64> const recorded = record.getImageBytes(disk.getSizeBytes());
    if (isKnown && recorded && imageBytes != *recorded) {
        refuseResumption("The disk was being made for " + std::to_string(*recorded) +
                         " bytes, not for " + std::to_string(imageBytes) + ".");
    }
    if (parent.isEmpty())
        return;
    if (!disk.hasParent() || !isSameFile(parent, disk.getDisk().getParentDiskMainURI()))
        refuseResumption("The disk was being made without this parent.");
}

__int64 getRecordedImageBytes(SafeDisk& disk) {
    return DiskRecord(*disk.getDisk().getDescriptor())
        .getImageBytes(disk.getSizeBytes())
        .value_or(disk.getSizeBytes());
}

} // namespace kelm::host
