// Makes the disks that docs/file-format.md takes apart, and the page's dumps of them.
//
//   format_dump                 prints all dumps
//   format_dump --check PAGE    tells whether the page shows them as they are
//   format_dump --update PAGE   writes them into the page
//
// A dump's place in the page is a line `<!-- dump: NAME -->` and the fenced block below it. Every
// number that is drawn by lot on a real disk is fixed here, and grains are stored with level 0, so
// the bytes are the same everywhere.

#include <cctype>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/digest/digest_file_writer.h"
#include "host/disk/digest_file_name.h"
#include "kelm/kelm.h"

namespace {

using Bytes = yx::TBuffer<unsigned char>;
using Dumps = std::map<std::string, std::string>;

constexpr __int64 kDiskSizeBytes = 8388608;
constexpr unsigned int kContentID = 0x5eed0001;
constexpr unsigned int kChildContentID = 0x5eed0002;
constexpr char kPassword[] = "correct horse battery staple";
constexpr char kGrainText[] = "The quick brown fox jumps over the lazy dog.";

yx::CURI uriOf(std::string const& name) {
    return yx::CURI(yx::String(("memory:/" + name).c_str()));
}

Bytes bytesOf(std::string const& text) {
    Bytes bytes(static_cast<int>(text.size()), -1);
    yx::copyMemory(bytes.getData(), text.data(), text.size());
    return bytes;
}

/// `count` bytes that begin with `first` and rise by one.
Bytes countingBytes(int count, int first) {
    Bytes bytes(count, -1);
    for (int i = 0; i < count; ++i)
        bytes.getData()[i] = static_cast<unsigned char>(first + i);
    return bytes;
}

Bytes zeros(int count) {
    Bytes bytes(count, -1);
    yx::initMemory(bytes.getData(), 0, static_cast<std::size_t>(count));
    return bytes;
}

/// Sixteen bytes a line, with an asterisk for lines that repeat the one before.
std::string hexDump(Bytes const& file, __int64 startBytes, __int64 sizeBytes) {
    constexpr __int64 kLineBytes = 16;
    std::string dump;
    std::string lineBefore;
    bool folded = false;
    for (__int64 line = startBytes; line < startBytes + sizeBytes; line += kLineBytes) {
        std::string hex;
        std::string text;
        for (__int64 i = line; i < line + kLineBytes; ++i) {
            if (i >= startBytes + sizeBytes) {
                hex += i == line + 8 ? "    " : "   ";
                continue;
            }
            unsigned char const byte = file.getData()[i];
            char digits[8];
            std::snprintf(digits, sizeof digits, "%s%02x ", i == line + 8 ? " " : "", byte);
            hex += digits;
            text += byte < 0x80 && std::isprint(byte) ? static_cast<char>(byte) : '.';
        }
        std::string const content = hex + " |" + text + "|\n";
        bool const isLast = line + kLineBytes >= startBytes + sizeBytes;
        if (content == lineBefore && !isLast) {
            if (!folded)
                dump += "*\n";
            folded = true;
            continue;
        }
        char offset[24];
        std::snprintf(offset, sizeof offset, "%08llx  ", line);
        dump += offset + content;
        lineBefore = content;
        folded = false;
    }
    return dump;
}

/// The text at the start of a range, up to the first zero byte.
std::string textIn(Bytes const& file, __int64 startBytes, __int64 sizeBytes) {
    char const* const text = reinterpret_cast<char const*>(file.getData()) + startBytes;
    std::size_t length = 0;
    while (length < static_cast<std::size_t>(sizeBytes) && text[length] != '\0')
        ++length;
    return std::string(text, length);
}

/// One file of a disk, and where its header says that things are.
struct ExtentDump {
    Bytes file;
    yx::P<kelm::CVMDKSparseExtentHeader> header;

    std::string sectors(unsigned long long first, int count) const {
        return hexDump(file, static_cast<__int64>(first) * kelm::kSectorSizeBytes,
                       __int64{count} * kelm::kSectorSizeBytes);
    }

    std::string descriptor() const {
        return textIn(
            file,
            static_cast<__int64>(header->getDescriptorOffsetSectors()) * kelm::kSectorSizeBytes,
            static_cast<__int64>(header->getDescriptorSizeSectors()) * kelm::kSectorSizeBytes);
    }

    unsigned int number(unsigned long long sector, int index) const {
        unsigned char const* const bytes = file.getData() + sector * kelm::kSectorSizeBytes +
                                           static_cast<std::size_t>(index) * sizeof(unsigned int);
        return bytes[0] | static_cast<unsigned int>(bytes[1]) << 8 |
               static_cast<unsigned int>(bytes[2]) << 16 |
               static_cast<unsigned int>(bytes[3]) << 24;
    }

    unsigned int firstTable() const { return number(header->getGrainDirectoryOffsetSectors(), 0); }
};

ExtentDump openExtent(yx::CMemoryFileSystem& files, std::string const& name) {
    ExtentDump extent{files.getFile(uriOf(name)), yx::makeObject<kelm::CVMDKSparseExtentHeader>()};
    yx::CBufferStream stream(&extent.file, 1);
    yx::CDataInStream reader(&stream);
    extent.header->load(reader);
    return extent;
}

/// Where a file's parts lie, as its header and directories say, one a line.
class Layout {
public:
    void add(unsigned long long firstSector, unsigned long long sectors, std::string const& what) {
        char line[64];
        std::snprintf(line, sizeof line, "%6llu  %6llu  ", firstSector, sectors);
        m_lines[firstSector] = line + what + "\n";
    }

    std::string toString() const {
        std::string text = "sector   count  what\n";
        for (auto const& [sector, line] : m_lines)
            text += line;
        return text;
    }

private:
    std::map<unsigned long long, std::string> m_lines;
};

void addTables(Layout& layout, ExtentDump const& extent, unsigned long long directory,
               std::string const& name, bool withMarkers) {
    layout.add(directory, 1, name);
    unsigned int const table = extent.number(directory, 0);
    if (withMarkers) {
        layout.add(directory - 1, 1, "marker of the " + name);
        layout.add(table - 1, 1, "marker of its grain table");
    }
    layout.add(table, kelm::kGrainTableSizeSectors, "its grain table");
}

Layout layOut(ExtentDump const& extent, bool withMarkers) {
    kelm::CVMDKSparseExtentHeader& header = *extent.header;
    Layout layout;
    layout.add(0, 1, "header");
    layout.add(header.getDescriptorOffsetSectors(), header.getDescriptorSizeSectors(),
               "descriptor");
    addTables(layout, extent, header.getRedundantGrainDirectoryOffsetSectors(),
              "redundant grain directory", withMarkers);
    addTables(layout, extent, header.getGrainDirectoryOffsetSectors(), "grain directory",
              withMarkers);
    unsigned long long end = extent.firstTable() + kelm::kGrainTableSizeSectors;
    if (withMarkers) {
        layout.add(end, 1, "marker of the slot size directory");
        layout.add(end + 1, 1, "slot size directory");
        layout.add(end + 2, 1, "marker of its slot size table");
        layout.add(end + 3, kelm::kSlotSizeTableSizeSectors, "its slot size table");
        end += 3 + kelm::kSlotSizeTableSizeSectors;
    }
    layout.add(end, header.getOverheadSectors() - end, "zeros up to a grain boundary");
    return layout;
}

/// Makes a disk, and fixes what `create` draws.
yx::P<kelm::CVMDKDisk> createDisk(yx::CMemoryFileSystem& files, std::string const& name,
                                  bool compressed, __int64 fileSizeLimit,
                                  std::string const& parent = "", bool onDemand = false) {
    constexpr int kStore = 0;
    bool const isChild = !parent.empty();
    yx::P<kelm::CVMDKDisk> disk = kelm::CVMDKDisk::create(
        &files, uriOf(name), kDiskSizeBytes, "", compressed, kStore, fileSizeLimit, parent.c_str(),
        isChild ? kContentID : kelm::kNoParentContentID, onDemand);
    disk->setContentIDUpdatesEnabled(false);
    disk->getDescriptor()->setContentID(isChild ? kChildContentID : kContentID);
    disk->storeDescriptor();
    return disk;
}

/// Stores the text as the beginning of a grain, in prepared form.
void storeGrain(kelm::CVMDKDisk& disk, __int64 grainIndex) {
    Bytes text = bytesOf(kGrainText);
    Bytes aux;
    disk.seek(grainIndex * disk.getGrainSizeBytes());
    disk.writePreparedGrainData(
        *disk.createDataPreparer()->prepareGrainData(&text, grainIndex, &aux));
}

/// The digest file of a disk with grains 0 and 3, as a host makes it.
void dumpDigests(Dumps& dumps, yx::CMemoryFileSystem& files, kelm::CVMDKDisk& disk) {
    namespace host = kelm::host;
    yx::CURI const uri = host::digestFileOf(disk.getMainFileURI());
    host::DigestKeys const keys(disk);
    host::DigestFileWriter writer(&files, uri, keys);
    Bytes grain(static_cast<int>(disk.getGrainSizeBytes()), -1);
    for (int const index : {0, 3}) {
        disk.seek(index * disk.getGrainSizeBytes());
        disk.read(grain.getData(), grain.getUsed());
        writer.add(index, host::GrainHasher(keys).hash(index, grain.getData(), grain.getUsed(),
                                                       grain.getUsed()));
    }
    host::DigestHeader header;
    header.diskSizeBytes = disk.getSizeBytes();
    header.imageSizeBytes = disk.getSizeBytes();
    header.grainSizeBytes = grain.getUsed();
    header.contentID = disk.getDescriptor()->getContentID();
    writer.finish(header);
    Bytes const file = files.getFile(uri);
    dumps["digests"] = hexDump(file, 0, file.getUsed());
}

void dumpPlain(Dumps& dumps) {
    yx::CMemoryFileSystem files;
    yx::P<kelm::CVMDKDisk> disk = createDisk(files, "plain.vmdk", false, -1);
    Bytes const text = bytesOf(kGrainText);
    for (int const grain : {0, 3}) {
        disk->seek(grain * disk->getGrainSizeBytes());
        disk->write(text.getData(), text.getUsed());
    }
    disk->flushChanges();
    ExtentDump const extent = openExtent(files, "plain.vmdk");
    unsigned long long const overhead = extent.header->getOverheadSectors();
    auto const grainSectors = static_cast<unsigned long long>(disk->getGrainSizeSectors());
    Layout layout = layOut(extent, false);
    layout.add(overhead, grainSectors, "grain 0");
    layout.add(overhead + grainSectors, grainSectors, "grain 3");
    dumps["plain layout"] = layout.toString();
    dumps["plain header"] = extent.sectors(0, 1);
    dumps["plain descriptor"] = extent.descriptor();
    dumps["plain directory"] = extent.sectors(extent.header->getGrainDirectoryOffsetSectors(), 1);
    dumps["plain table"] = extent.sectors(extent.firstTable(), kelm::kGrainTableSizeSectors);
    dumps["plain grain"] = extent.sectors(overhead, 1);
    dumpDigests(dumps, files, *disk);
}

void dumpCompressed(Dumps& dumps) {
    yx::CMemoryFileSystem files;
    yx::P<kelm::CVMDKDisk> disk = createDisk(files, "compressed.vmdk", true, -1);
    storeGrain(*disk, 3);
    disk->flushChanges();
    ExtentDump const extent = openExtent(files, "compressed.vmdk");
    unsigned long long const overhead = extent.header->getOverheadSectors();
    unsigned int const slotSizes = extent.firstTable() + kelm::kGrainTableSizeSectors;
    Layout layout = layOut(extent, true);
    layout.add(overhead, 1, "record of grain 3");
    layout.add(overhead + 1, 1, "marker of the footer");
    layout.add(overhead + 2, 1, "footer: the header again");
    layout.add(overhead + 3, 1, "marker of the end of the stream");
    dumps["compressed layout"] = layout.toString();
    dumps["compressed header"] = extent.sectors(0, 1);
    dumps["compressed directory marker"] =
        extent.sectors(extent.header->getGrainDirectoryOffsetSectors() - 1, 1);
    dumps["compressed directory"] =
        extent.sectors(extent.header->getGrainDirectoryOffsetSectors(), 1);
    dumps["compressed slot sizes"] = extent.sectors(slotSizes, 3 + kelm::kSlotSizeTableSizeSectors);
    dumps["compressed record"] = extent.sectors(overhead, 1);
    dumps["compressed trail"] = extent.sectors(overhead + 1, 3);
}

std::string listFiles(yx::CMemoryFileSystem& files) {
    std::string list;
    for (yx::CURI const& uri : files.listFiles()) {
        if (uri.getExtension() == ".lock")
            continue;
        char line[128];
        std::snprintf(line, sizeof line, "%9d  %s\n", files.getFile(uri).getUsed(),
                      uri.getName().toStdString().c_str());
        list += line;
    }
    return list;
}

void dumpSplit(Dumps& dumps) {
    constexpr __int64 kLimitBytes = 4 << 20;
    {
        yx::CMemoryFileSystem files;
        createDisk(files, "split.vmdk", false, kLimitBytes);
        Bytes const file = files.getFile(uriOf("split.vmdk"));
        dumps["split files"] = listFiles(files);
        dumps["split descriptor"] = textIn(file, 0, file.getUsed());
    }
    {
        yx::CMemoryFileSystem files;
        createDisk(files, "split.vmdk", false, kLimitBytes, "", true);
        dumps["on-demand files"] = listFiles(files);
    }
}

void dumpChild(Dumps& dumps) {
    yx::CMemoryFileSystem files;
    createDisk(files, "plain.vmdk", false, -1);
    createDisk(files, "monday.vmdk", false, -1, "plain.vmdk");
    dumps["child descriptor"] = openExtent(files, "monday.vmdk").descriptor();
}

/// Enters a fixed key, wrapped under the password, as `CVMDKDisk::create` enters a random one.
/// Returns the key's hash.
Bytes addFixedKey(kelm::CVMDKDescriptor& descriptor) {
    krym::CCipher_AES256CBC cipher;
    Bytes const iv = countingBytes(cipher.getBlockSize(), 0x10);
    Bytes const salt = countingBytes(cipher.getKeySize(), 0x40);
    Bytes const diskKey = countingBytes(cipher.getKeySize(), 0x80);
    yx::String const derivation = "pkcs5-pbkdf2-hmac-sha1:10000";
    yx::TCryptBuffer<unsigned char> derivedKey;
    kelm::CVMDKDisk::deriveEncryptKey(derivedKey, cipher.getKeySize(), kPassword, derivation, salt);
    Bytes wrappedKey;
    cipher.encrypt(derivedKey, diskKey.getData(), diskKey.getUsed(), wrappedKey, false,
                   iv.getData());
    krym::CDigestType_SHA256 digestType;
    yx::P<krym::IDigest> const digest = digestType.createDigest();
    digest->update(diskKey.getData(), diskKey.getUsed());
    digest->finish();
    Bytes keyHash(digest->getSize(), -1);
    yx::copyMemory(keyHash.getData(), digest->getData(),
                   static_cast<std::size_t>(keyHash.getUsed()));

    descriptor.setYxEncryptionAlgorithm(cipher.getID());
    descriptor.setYxEncryptionIV(iv);
    descriptor.setYxEncryptionKeyDerivationAlgorithm(derivation);
    descriptor.setYxEncryptionKeyDerivationSalt(salt);
    descriptor.setYxEncryptedEncryptionKey(wrappedKey);
    descriptor.setYxEncryptionKeyHashAlgorithm("sha256");
    descriptor.setYxEncryptionKeyHash(keyHash);
    return keyHash;
}

void dumpEncrypted(Dumps& dumps) {
    constexpr char kName[] = "encrypted.vmdk";
    constexpr int kStore = 0;
    yx::CMemoryFileSystem files;
    kelm::CVMDKDescriptor descriptor = *createDisk(files, kName, true, -1)->getDescriptor();
    ExtentDump const plain = openExtent(files, kName);
    Bytes const keyHash = addFixedKey(descriptor);
    files.deleteFile(uriOf(kName), false);
    kelm::createEmptyVMDKSparseExtentFile(
        &files, uriOf(kName), true,
        kDiskSizeBytes / kelm::kSectorSizeBytes / kelm::kNewDiskGrainSizeSectors,
        kelm::kNewDiskGrainSizeSectors,
        zeros(static_cast<int>(plain.header->getDescriptorSizeSectors()) * kelm::kSectorSizeBytes),
        &descriptor, static_cast<__int64>(plain.header->getDescriptorSizeSectors()), keyHash);
    kelm::CVMDKDisk disk(&files, uriOf(kName), yx::IIOStream::ReadWrite, kPassword, kStore, nullptr,
                         nullptr);
    disk.setContentIDUpdatesEnabled(false);
    storeGrain(disk, 3);
    disk.flushChanges();

    ExtentDump const extent = openExtent(files, kName);
    dumps["encrypted header"] = extent.sectors(0, 1);
    dumps["encrypted descriptor"] = extent.descriptor();
    __int64 const record =
        static_cast<__int64>(extent.header->getOverheadSectors()) * kelm::kSectorSizeBytes;
    dumps["encrypted record"] = hexDump(extent.file, record, 64);
    dumps["encrypted record end"] = hexDump(extent.file, record + kelm::kSectorSizeBytes - 16, 48);
}

Dumps makeDumps() {
    Dumps dumps;
    dumpPlain(dumps);
    dumpCompressed(dumps);
    dumpSplit(dumps);
    dumpChild(dumps);
    dumpEncrypted(dumps);
    return dumps;
}

std::string readFile(char const* path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file)
        throw std::runtime_error(std::string("cannot read ") + path);
    return content.str();
}

/// The page with every dump in its place.
std::string fillPage(std::string const& page, Dumps const& dumps) {
    std::string const opening = "<!-- dump: ";
    std::string const fence = "```";
    std::string result;
    std::istringstream lines(page);
    Dumps unused = dumps;
    for (std::string line; std::getline(lines, line);) {
        result += line + "\n";
        if (line.rfind(opening, 0) != 0)
            continue;
        std::string const name = line.substr(opening.size(), line.find(" -->") - opening.size());
        auto const dump = dumps.find(name);
        if (dump == dumps.end())
            throw std::runtime_error("there is no dump '" + name + "'");
        unused.erase(name);
        if (!std::getline(lines, line) || line != fence)
            throw std::runtime_error("no block follows '" + name + "'");
        while (std::getline(lines, line) && line != fence)
            continue;
        result += fence + "\n" + dump->second + fence + "\n";
    }
    if (!unused.empty())
        throw std::runtime_error("the page has no place for '" + unused.begin()->first + "'");
    return result;
}

int run(std::vector<std::string> const& arguments) {
    Dumps const dumps = makeDumps();
    if (arguments.empty()) {
        for (auto const& [name, dump] : dumps)
            std::printf("%s:\n%s\n", name.c_str(), dump.c_str());
        return 0;
    }
    if (arguments.size() != 2 || (arguments[0] != "--check" && arguments[0] != "--update"))
        throw std::runtime_error("usage: format_dump [--check PAGE | --update PAGE]");
    char const* const path = arguments[1].c_str();
    std::string const page = readFile(path);
    std::string const filled = fillPage(page, dumps);
    if (arguments[0] == "--update") {
        std::ofstream file(path, std::ios::binary);
        file << filled;
        file.close();
        return file ? 0 : 1;
    }
    if (page == filled)
        return 0;
    std::fprintf(stderr, "The dumps in %s are out of date: make format-dumps\n", path);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (std::exception const& error) {
        std::fprintf(stderr, "format_dump: %s\n", error.what());
        return 1;
    }
}
