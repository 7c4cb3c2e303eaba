#include "tools/kelm/disk_report.h"

#include <algorithm>
#include <optional>

#include "host/backups/backup_list.h"
#include "host/disk/disk_files.h"
#include "host/disk/disk_record.h"
#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "host/transfer/disk_space.h"
#include "tools/kelm/disk_access.h"

namespace kelm::tool {

namespace {

using Json = nlohmann::ordered_json;

/// Adds a value of the descriptor, unless the descriptor lacks it or it cannot be read.
template <class Get>
void addOptional(Json& report, char const* name, Get const& get) {
    try {
        report[name] = get();
    } catch (yx::CError const&) {
        return;
    }
}

/// Adds what the disk says of its image, as far as it says it.
void addRecord(Json& report, host::SafeDisk& disk) {
    host::DiskRecord const record(*disk.getDisk().getDescriptor());
    for (auto const& [name, text] : {std::pair{"time", record.getTime()},
                                     {"source", record.getSource()},
                                     {"host", record.getHost()},
                                     {"label", record.getLabel()}}) {
        if (!text.empty())
            report[name] = text;
    }
}

/// Nothing, too, for a value that cannot be right: what reads the content refuses it.
std::optional<__int64> tryGetImageBytes(host::SafeDisk& disk) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
    try {
        return host::DiskRecord(*descriptor).getImageBytes(disk.getSizeBytes());
    } catch (yx::CIOError const&) {
        return std::nullopt;
    }
}

Json reportGeometry(CVMDKDescriptor const& descriptor) {
    Json geometry = Json::object();
    addOptional(geometry, "cylinders", [&] { return descriptor.getGeometryCylinders(); });
    addOptional(geometry, "heads", [&] { return descriptor.getGeometryHeads(); });
    addOptional(geometry, "sectors", [&] { return descriptor.getGeometrySectors(); });
    return geometry;
}

Json reportFile(yx::CURI const& uri) {
    host::FileUse const use = host::measureFile(uri);
    return {{"file", host::displayName(uri)},
            {"exists", use.exists},
            {"lengthBytes", use.lengthBytes},
            {"allocatedBytes", use.allocatedBytes}};
}

void addFiles(Json& report, host::SafeDisk& disk) {
    __int64 lengthBytes = 0;
    __int64 allocatedBytes = 0;
    Json files = Json::array();
    for (yx::CURI const& uri : disk.listFiles()) {
        files.push_back(reportFile(uri));
        lengthBytes += files.back()["lengthBytes"].get<__int64>();
        allocatedBytes += files.back()["allocatedBytes"].get<__int64>();
    }
    report["lengthBytes"] = lengthBytes;
    report["allocatedBytes"] = allocatedBytes;
    report["files"] = files;
}

Json reportExtents(host::SafeDisk& disk) {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    disk.getDisk().getDescriptor()->getExtentEntries(infos);
    Json extents = Json::array();
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        extents.push_back({{"file", info->getFilename().toStdString()},
                           {"sizeBytes", info->getSizeSectors() * kSectorSizeBytes}});
    }
    return extents;
}

std::string line(std::string const& label, std::string const& value) {
    constexpr std::size_t kValueColumn = 14;
    std::string text = label + ":";
    text.resize(std::max(text.size() + 1, kValueColumn), ' ');
    return text + host::printable(value) + "\n";
}

std::string formatBytes(Json const& bytes) {
    auto const count = bytes.get<__int64>();
    std::string const text = host::formatSize(count);
    std::string const exact = std::to_string(count) + " bytes";
    return text == exact ? text : text + " (" + exact + ")";
}

std::string formatGeometry(Json const& geometry) {
    if (geometry.size() != 3)
        return "not known";
    return geometry["cylinders"].dump() + " cylinders, " + geometry["heads"].dump() + " heads, " +
           geometry["sectors"].dump() + " sectors";
}

std::string formatFiles(Json const& files) {
    std::string text;
    for (Json const& file : files) {
        std::string const state = file["exists"].get<bool>()
                                      ? host::formatSize(file["lengthBytes"].get<__int64>())
                                      : "not there";
        text += line(text.empty() ? "files" : "", file["file"].get<std::string>() + ", " + state);
    }
    return text;
}

std::string formatParents(Json const& parents) {
    std::string text;
    for (Json const& parent : parents) {
        std::string value = parent["file"].get<std::string>();
        if (parent.contains("error"))
            value += ": " + parent["error"].get<std::string>();
        else
            value += ", content ID " + parent["contentID"].get<std::string>();
        text += line(text.empty() ? "parents" : "", value);
    }
    return text;
}

std::string formatDependents(Json const& dependents) {
    if (dependents.empty())
        return line("needed by", "no disk that was found");
    std::string text;
    for (Json const& dependent : dependents)
        text += line(text.empty() ? "needed by" : "", dependent.get<std::string>());
    return text;
}

std::string formatSpace(Json const& space) {
    return line("grains", formatBytes(space["payloadBytes"]) + " in " +
                              host::formatSize(space["payloadBytesInFile"].get<__int64>())) +
           line("tables", formatBytes(space["headerBytes"])) +
           line("dead space", formatBytes(space["deadBytes"]));
}

} // namespace

Json reportDisk(host::SafeDisk& disk) {
    CVMDKDescriptor const& descriptor = *disk.getDisk().getDescriptor();
    Json report;
    report["file"] = host::displayName(disk.getDisk().getMainFileURI());
    report["kind"] = descriptor.getCreateType().toStdString();
    if (host::DiskRecord(*disk.getDisk().getDescriptor()).getState() == host::DiskState::Unfinished)
        report["unfinished"] = true;
    report["compressed"] = disk.getDisk().getCompressed();
    report["encrypted"] = isEncrypted(disk);
    report["sizeBytes"] = disk.getSizeBytes();
    if (std::optional<__int64> const imageBytes = tryGetImageBytes(disk))
        report["imageBytes"] = *imageBytes;
    addRecord(report, disk);
    report["grainSizeBytes"] = disk.getGrainSizeBytes();
    addOptional(report, "contentID",
                [&] { return yx::toHexString(descriptor.getContentID()).toStdString(); });
    addOptional(report, "adapterType", [&] { return descriptor.getAdapterType().toStdString(); });
    report["geometry"] = reportGeometry(descriptor);
    report["extents"] = reportExtents(disk);
    addFiles(report, disk);
    return report;
}

Json reportSpace(host::SafeDisk& disk, host::WorkOptions const& options) {
    CVMDKSpaceInfo const space = host::gatherSpace(disk, options);
    return {{"payloadBytes", space.getPayloadSize()},
            {"payloadBytesInFile", space.getPayloadSizeInFile()},
            {"headerBytes", space.getHeaderSize()},
            {"deadBytes", space.getDeadSpaceSize()}};
}

std::string formatJSON(Json const& document) {
    // Names may hold what is no UTF-8.
    return host::printableJSON(document.dump(2, ' ', false, Json::error_handler_t::replace));
}

std::string formatElement(Json const& element) {
    return host::printableJSON(element.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string formatNames(std::vector<yx::CURI> const& files) {
    std::string text;
    for (yx::CURI const& file : files)
        text += host::printable(host::displayName(file)) + "\n";
    return text;
}

std::string formatReport(Json const& report) {
    bool const compressed = report["compressed"].get<bool>();
    bool const encrypted = report["encrypted"].get<bool>();
    std::string text = line("disk", report["file"].get<std::string>());
    text += line("kind", report["kind"].get<std::string>() + (compressed ? ", compressed" : "") +
                             (encrypted ? ", encrypted" : ""));
    if (report.contains("unfinished"))
        text += line("state", "unfinished: it has not been filled to its end");
    text += line("size", formatBytes(report["sizeBytes"]));
    if (report.contains("imageBytes"))
        text += line("image size", formatBytes(report["imageBytes"]));
    for (auto const& [name, label] : {std::pair{"time", "image taken"},
                                      {"source", "image"},
                                      {"host", "on"},
                                      {"label", "label"}}) {
        if (report.contains(name))
            text += line(label, report[name].get<std::string>());
    }
    text += line("grain size", formatBytes(report["grainSizeBytes"]));
    text += line("geometry", formatGeometry(report["geometry"]));
    text += line("content ID", report.value("contentID", "none"));
    text += line("extents", std::to_string(report["extents"].size()));
    text += line("space used", formatBytes(report["allocatedBytes"]));
    text += formatFiles(report["files"]);
    text += formatParents(report["parents"]);
    if (report.value("link", 1) > 1) {
        text += line("link", report["link"].dump() + " of a chain, which ends at " +
                                 std::to_string(host::kMaxDisksOfChain));
    }
    if (report.contains("neededBy"))
        text += formatDependents(report["neededBy"]);
    if (report.contains("space"))
        text += formatSpace(report["space"]);
    return text;
}

nlohmann::ordered_json listNames(std::vector<yx::CURI> const& files) {
    nlohmann::ordered_json names = nlohmann::ordered_json::array();
    for (yx::CURI const& file : files)
        names.push_back(host::displayName(file));
    return names;
}

} // namespace kelm::tool
