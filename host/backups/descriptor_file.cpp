#include "host/backups/descriptor_file.h"

#include <algorithm>
#include <optional>
#include <string>

#include "host/disk/descriptor_checksum.h"
#include "host/disk/disk_files.h"
#include "host/disk/main_file_form.h"
#include "host/disk/own_name.h"
#include "host/store/file_names.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

constexpr char kParentKey[] = "parentFileNameHint";
constexpr char kParentContentIDKey[] = "parentCID";
constexpr char kParentName[] = "the name of its parent";

std::string textOfArea(DescriptorArea const& area) {
    return {area.begin(), std::find(area.begin(), area.end(), 0)};
}

CVMDKDescriptor parseText(std::string const& text) {
    yx::TBuffer<unsigned char> bytes(static_cast<int>(text.size()), -1);
    std::copy(text.begin(), text.end(), bytes.getData());
    return CVMDKDescriptor(bytes);
}

[[noreturn]] void throwNoRoom(yx::CURI const& mainFile, char const* whose) {
    throw yx::CIOError(yx::CIOError::NotSupported,
                       "The descriptor inside the disk has no room for " + yx::String(whose) + ".",
                       yx::CProps().add("uri", mainFile.toString(true)), nullptr);
}

/// Replaces a part of the text. A file of text gets the room that it takes.
void replaceText(DescriptorFile& descriptor, TextSpan const& old, std::string const& replacement,
                 char const* whose) {
    std::size_t const sizeBytes = descriptor.area.size();
    if (!descriptor.isEmbedded)
        descriptor.area.resize(sizeBytes + replacement.size(), 0);
    std::optional<DescriptorArea> area = replaceInArea(descriptor.area, old, replacement);
    if (!area)
        throwNoRoom(descriptor.mainFile, whose);
    descriptor.area = *std::move(area);
    if (!descriptor.isEmbedded)
        descriptor.area.resize(std::max(sizeBytes, textOfArea(descriptor.area).size()));
}

/// Makes the checksum of a changed text true, if that of the text before was.
void keepChecksum(DescriptorFile const& before, DescriptorFile& after, char const* whose) {
    if (getChecksumState(before.parse(), before.mainFile) != ChecksumState::Valid)
        return;
    CVMDKDescriptor descriptor = after.parse();
    updateChecksum(descriptor, after.mainFile);
    std::optional<TextSpan> const old = findValue(textOfArea(after.area), kDescriptorChecksumKey);
    if (old) {
        replaceText(after, *old,
                    '"' + descriptor.getValue(kDescriptorChecksumKey).toStdString() + '"', whose);
    }
}

bool isWrittenAsUTF8(CVMDKDescriptor const& descriptor) {
    yx::String encoding;
    descriptor.tryGetValue("encoding", encoding);
    wxString const name = encoding.wx().Lower();
    return name.empty() || name == "utf-8" || name == "utf8" || name == "utf_8";
}

/// The reference in letters that every encoding has, where the text's own is not UTF-8.
std::string encodeReference(DescriptorFile const& descriptor, yx::String const& reference) {
    if (reference.wx().IsAscii() || isWrittenAsUTF8(descriptor.parse()))
        return reference.toStdString();
    return vmdkFileReferenceToURI(descriptor.mainFile.getParent(), reference)
        .toString(true)
        .toStdString();
}

/// An extent line with the new name of its file, seen from `newFolder`; any other line as it is.
std::string withNewName(std::string const& line, yx::CURI const& oldFolder,
                        yx::CURI const& newFolder, std::map<yx::CURI, yx::CURI> const& newNames) {
    yx::P<CVMDKExtentInfo> const extent =
        CVMDKExtentInfo::tryParseDescriptorLine(yx::String::fromUTF8(line));
    if (!extent)
        return line;
    yx::CURI const file = vmdkFileReferenceToURI(oldFolder, extent->getFilename()).toNormalized();
    auto const found = newNames.find(file);
    yx::CURI const& newFile = found == newNames.end() ? file : found->second;
    std::size_t const open = line.find('"');
    std::size_t const close = line.find('"', open + 1);
    return line.substr(0, open + 1) + makeFileReference(newFolder, newFile).toStdString() +
           line.substr(close);
}

void replaceParent(DescriptorFile& descriptor, std::string const& reference) {
    if (std::optional<TextSpan> const old = findValue(textOfArea(descriptor.area), kParentKey))
        replaceText(descriptor, *old, '"' + reference + '"', kParentName);
}

/// The old area, and the new one behind it.
void writeChange(DurableFiles& files, DescriptorFile const& before, DescriptorFile const& changed) {
    std::vector<unsigned char> both = before.area;
    both.insert(both.end(), changed.area.begin(), changed.area.end());
    yx::CURI const file = nameOfDescriptorChange(before.mainFile);
    files.remove(file);
    files.make(file, both, before.mainFile);
}

/// The old descriptor with the sector of the parent's content ID from the new one, whose lines have
/// the same places: without the ID, the name of the parent means nothing; with it, it must be there.
DescriptorFile withSectorOfParentContentID(DescriptorFile const& before,
                                           DescriptorFile const& changed) {
    DescriptorFile mixed = before;
    std::optional<TextSpan> const id = findValue(textOfArea(before.area), kParentContentIDKey);
    std::size_t const begin = id ? id->start / kSectorSizeBytes * kSectorSizeBytes : 0;
    std::size_t const end = std::min<std::size_t>(begin + kSectorSizeBytes, mixed.area.size());
    for (std::size_t at = begin; at < end; ++at)
        mixed.area[at] = changed.area[at];
    return mixed;
}

/// Stores a descriptor that has other values; its checksum is true if that of the old one was.
void storeChange(DurableFiles& files, DescriptorFile const& before, DescriptorFile const& changed) {
    DescriptorFile checked = changed;
    keepChecksum(before, checked, kParentName);
    if (!checked.isEmbedded || differInOneSector(before.area, checked.area)) {
        storeDescriptorFile(files, checked);
        return;
    }
    writeChange(files, before, checked);
    if (checked.parse().getParentContentID() == kNoParentContentID)
        storeDescriptorFile(files, withSectorOfParentContentID(before, checked));
    storeDescriptorFile(files, checked);
    files.remove(nameOfDescriptorChange(before.mainFile));
}

void replaceParentContentID(DescriptorFile& descriptor, unsigned int contentID) {
    std::optional<TextSpan> const old = findValue(textOfArea(descriptor.area), kParentContentIDKey);
    if (!old) {
        throw yx::CInvalidArgError("replaceParentContentID", "The disk has no parent.",
                                   yx::CProps().add("uri", descriptor.mainFile.toString(true)));
    }
    std::string digits = yx::toHexString(contentID).toStdString();
    // In a place of the same length, no line moves.
    if (digits.size() < old->length)
        digits.insert(0, old->length - digits.size(), '0');
    replaceText(descriptor, *old, digits, kParentName);
}

/// Makes a comment of the line with the parent's name, which keeps its length.
void blankParentName(DescriptorFile& descriptor) {
    std::string const text = textOfArea(descriptor.area);
    std::optional<TextSpan> const name = findValue(text, kParentKey);
    if (!name)
        return;
    std::size_t const start = text.rfind('\n', name->start) + 1;
    std::string comment(name->start + name->length - start, ' ');
    comment.front() = '#';
    std::copy(comment.begin(), comment.end(),
              descriptor.area.begin() + static_cast<std::ptrdiff_t>(start));
}

} // namespace

bool isFileOfChange(yx::CURI const& file) {
    std::string const name = file.getName().toStdString();
    return name.ends_with(kDescriptorChangeSuffix) || name.ends_with(kUnfinishedFileSuffix);
}

yx::CURI nameOfDescriptorChange(yx::CURI const& mainFile) {
    return (mainFile.getParent() << (mainFile.getName() + kDescriptorChangeSuffix)).toNormalized();
}

CVMDKDescriptor DescriptorFile::parse() const {
    return parseText(textOfArea(area));
}

DescriptorFile readDescriptorFile(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, mainFile, yx::IIOStream::ReadOnly);
    verifyIsExtentOrText(*stream, mainFile);
    DescriptorFile file{mainFile.toNormalized()};
    CVMDKDescriptorAccessor const accessor(stream.get(), yx::IIOStream::ReadOnly);
    file.isEmbedded = accessor.getEmbeddedInSparseExtentFile();
    __int64 sizeBytes = stream->getLength();
    if (file.isEmbedded) {
        stream->seek(0);
        yx::CDataInStream in(stream.get());
        CVMDKSparseExtentHeader header;
        header.load(in);
        file.positionBytes =
            static_cast<__int64>(header.getDescriptorOffsetSectors()) * kSectorSizeBytes;
        sizeBytes = static_cast<__int64>(header.getDescriptorSizeSectors()) * kSectorSizeBytes;
    }
    file.area.resize(static_cast<std::size_t>(sizeBytes));
    stream->seek(file.positionBytes);
    stream->read(file.area.data(), static_cast<int>(sizeBytes));
    if (file.isEmbedded) {
        if (std::optional<DescriptorArea> corrected = correctOwnName(file.area, file.mainFile))
            file.area = *std::move(corrected);
    }
    if (!file.parse().hasValue("createType")) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The file is no disk.",
                           yx::CProps().add("uri", mainFile.toString(true)), nullptr);
    }
    return file;
}

void storeDescriptorFile(DurableFiles& files, DescriptorFile const& descriptor) {
    if (descriptor.isEmbedded)
        files.patch(descriptor.mainFile, descriptor.positionBytes, descriptor.area);
    else
        files.replace(descriptor.mainFile, descriptor.area);
}

DescriptorFile withParentReference(DescriptorFile const& descriptor, yx::String const& reference) {
    DescriptorFile changed = descriptor;
    replaceParent(changed, encodeReference(descriptor, reference));
    keepChecksum(descriptor, changed, kParentName);
    return changed;
}

void storeParent(DurableFiles& files, DescriptorFile const& descriptor, yx::String const& reference,
                 unsigned int contentID) {
    DescriptorFile changed = descriptor;
    replaceParentContentID(changed, contentID);
    replaceParent(changed, encodeReference(descriptor, reference));
    storeChange(files, descriptor, changed);
}

void storeNoParent(DurableFiles& files, DescriptorFile const& descriptor) {
    DescriptorFile changed = descriptor;
    replaceParentContentID(changed, kNoParentContentID);
    blankParentName(changed);
    storeChange(files, descriptor, changed);
}

DescriptorFile movedTo(DescriptorFile const& descriptor, yx::CURI const& mainFile,
                       std::map<yx::CURI, yx::CURI> const& newNames) {
    CVMDKDescriptor asUTF8 = descriptor.parse();
    yx::CURI const oldFolder = descriptor.mainFile.getParent();
    yx::CURI const parent = findParentFile(asUTF8, descriptor.mainFile);
    asUTF8.setEncodingUTF8();
    DescriptorFile moved = descriptor;
    moved.mainFile = mainFile.toNormalized();
    std::string const oldText = asUTF8.toString().toStdString();
    std::string text;
    for (TextSpan const& line : splitLines(oldText)) {
        text += withNewName(oldText.substr(line.start, line.length), oldFolder,
                            moved.mainFile.getParent(), newNames) +
                '\n';
    }
    if (descriptor.isEmbedded && text.size() > descriptor.area.size())
        throwNoRoom(descriptor.mainFile, "the names of its files");
    moved.area.assign(text.begin(), text.end());
    moved.area.resize(std::max(descriptor.area.size(), text.size()), 0);
    if (!parent.isEmpty()) {
        replaceParent(moved, makeFileReference(moved.mainFile.getParent(), parent).toStdString());
    }
    keepChecksum(descriptor, moved, "the names of its files");
    return moved;
}

yx::CURI findParentFile(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    yx::String hint;
    if (descriptor.getParentContentID() == kNoParentContentID ||
        !descriptor.tryGetParentFileNameHint(hint))
        return {};
    return vmdkFileReferenceToURI(mainFile.getParent(), hint).toNormalized();
}

} // namespace kelm::host
