#include "fuzz/corpus_maker/disk_maker.h"

#include <iterator>

#include "fuzz/support/disk_input.h"
#include "fuzz/support/disk_script.h"
#include "kelm/format/constants.h"
#include "kelm/kelm.h"

namespace kelm::fuzz {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

constexpr char kKeyDerivation[] = "pkcs5-pbkdf2-hmac-sha1:1000";
constexpr int kDescriptorSizeSectors = 4;
constexpr unsigned int kParentContentID = 0xc0ffee01;
constexpr unsigned int kGrandparentContentID = 0xc0ffee02;

struct Kind {
    std::string name;
    bool compressed = false;
    bool enciphered = false;
    __int64 grainSizeSectors = 8;
    int grainsPerExtent = 24;

    /// More than one gives a text descriptor and files of their own.
    int extents = 1;
    bool onDemand = false;
    int parents = 0;
    bool parentsAreSplit = false;
};

/// The names, as indices of `kFileNames`, that a disk of a chain has.
struct Names {
    std::uint8_t main;
    std::vector<std::uint8_t> extents;
};

Names const kNames[] = {{0, {1, 2}}, {3, {4, 7}}, {5, {}}};

Buffer makeSteps(int sizeBytes, int first) {
    Buffer buffer(sizeBytes, -1);
    for (int i = 0; i < sizeBytes; ++i)
        buffer.getData()[i] = static_cast<unsigned char>(first + 7 * i);
    return buffer;
}

Buffer makeZeros(int sizeBytes) {
    Buffer buffer(sizeBytes, -1);
    yx::initMemory(buffer.getData(), 0, static_cast<std::size_t>(sizeBytes));
    return buffer;
}

/// Enters a fixed key, so that the disk is the same every time. Returns the key's hash.
Buffer addFixedKey(CVMDKDescriptor& descriptor) {
    krym::CCipher_AES256CBC cipher;
    Buffer const iv = makeSteps(cipher.getIVSize(), 1);
    Buffer const salt = makeSteps(8, 2);
    Buffer const key = makeSteps(cipher.getKeySize(), 3);
    yx::TCryptBuffer<unsigned char> derived;
    CVMDKDisk::deriveEncryptKey(derived, cipher.getKeySize(), kPassword, kKeyDerivation, salt);
    Buffer wrapped;
    cipher.encrypt(derived, key.getData(), key.getUsed(), wrapped, false, iv.getData());
    krym::CDigestType_SHA256 digestType;
    yx::P<krym::IDigest> const digest = digestType.createDigest();
    digest->update(key.getData(), key.getUsed());
    digest->finish();
    Buffer hash(digest->getSize(), -1);
    yx::copyMemory(hash.getData(), digest->getData(), static_cast<std::size_t>(hash.getUsed()));

    descriptor.setYxEncryptionAlgorithm("aes256cbc");
    descriptor.setYxEncryptionIV(iv);
    descriptor.setYxEncryptionKeyDerivationAlgorithm(kKeyDerivation);
    descriptor.setYxEncryptionKeyDerivationSalt(salt);
    descriptor.setYxEncryptedEncryptionKey(wrapped);
    descriptor.setYxEncryptionKeyHashAlgorithm("sha256");
    descriptor.setYxEncryptionKeyHash(hash);
    return hash;
}

class DiskMaker {
public:
    explicit DiskMaker(Kind const& kind) : m_kind(kind) {}

    MadeDisk make() {
        MadeDisk made;
        made.name = m_kind.name;
        for (int depth = m_kind.parents; depth >= 0; --depth) {
            makeOne(depth, made);
            writeSome(depth);
        }
        for (std::size_t name = 0; name < std::size(kFileNames); ++name) {
            auto const index = static_cast<std::uint8_t>(name);
            if (m_files->fileExists(getFileURI(index)))
                made.files.push_back({index, m_files->getFile(getFileURI(index))});
        }
        return made;
    }

private:
    bool isSplit(int depth) const {
        return depth == 0 ? m_kind.extents > 1 : m_kind.parentsAreSplit;
    }

    /// Disk 0 is the youngest of its chain.
    void makeOne(int depth, MadeDisk& made) {
        Names const& names = kNames[depth];
        CVMDKDescriptor descriptor;
        descriptor.addGenericLine("# Disk DescriptorFile", true);
        descriptor.setVersion(1);
        descriptor.setEncodingUTF8();
        descriptor.setContentID(depth == 0   ? 0x1234abcd
                                : depth == 1 ? kParentContentID
                                             : kGrandparentContentID);
        bool const hasParent = depth < m_kind.parents;
        descriptor.setParentContentID(!hasParent   ? kNoParentContentID
                                      : depth == 0 ? kParentContentID
                                                   : kGrandparentContentID);
        if (hasParent)
            descriptor.setParentFileNameHint(kFileNames[kNames[depth + 1].main]);
        descriptor.setCreateType(isSplit(depth)      ? "twoGbMaxExtentSparse"
                                 : m_kind.compressed ? "streamOptimized"
                                                     : "monolithicSparse");
        if (m_kind.onDemand)
            descriptor.setYxCreateExtentFilesOnDemand(true);
        Buffer const keyHash = m_kind.enciphered ? addFixedKey(descriptor) : Buffer();
        std::vector<std::uint8_t> const files =
            isSplit(depth) ? names.extents : std::vector<std::uint8_t>{names.main};
        descriptor.addGenericLine("# Extent description", false);
        for (std::uint8_t const file : files) {
            descriptor.addExtentEntry(yx::makeObject<CVMDKExtentInfo>(
                                          "RW", m_kind.grainsPerExtent * m_kind.grainSizeSectors,
                                          "SPARSE", kFileNames[file], -1)
                                          .get());
        }
        descriptor.setAdapterType("ide");

        if (isSplit(depth))
            storeText(descriptor, getFileURI(names.main));
        for (std::uint8_t const file : files) {
            bool const waits = m_kind.onDemand && file != files.front();
            if (!waits)
                makeExtent(file, isSplit(depth) ? nullptr : &descriptor, keyHash);
        }
        if (depth == 0)
            made.descriptorText = descriptor.toString().toStdString();
    }

    void storeText(CVMDKDescriptor& descriptor, yx::CURI const& uri) {
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const stream =
            m_files->openFile(uri, yx::IIOStream::ReadWrite, &reserved);
        descriptor.store(*stream, kDescriptorSizeSectors * kSectorSizeBytes,
                         makeZeros(kDescriptorSizeSectors * kSectorSizeBytes));
        stream->close();
    }

    void makeExtent(std::uint8_t file, CVMDKDescriptor* descriptor, Buffer const& keyHash) {
        createEmptyVMDKSparseExtentFile(
            m_files.get(), getFileURI(file), m_kind.compressed, m_kind.grainsPerExtent,
            m_kind.grainSizeSectors, makeZeros(kDescriptorSizeSectors * kSectorSizeBytes),
            descriptor, descriptor ? kDescriptorSizeSectors : 0, keyHash);
    }

    /// Grains that only this disk of the chain has, and some that others have too.
    void writeSome(int depth) {
        // The bare library, since a new content ID would be another one every time.
        CVMDKDisk disk(m_files.get(), getFileURI(kNames[depth].main), yx::IIOStream::ReadWrite,
                       m_kind.enciphered ? kPassword : "", 6, nullptr, nullptr);
        disk.setContentIDUpdatesEnabled(false);
        __int64 const grainBytes = disk.getGrainSizeBytes();
        Buffer const text = makeSteps(static_cast<int>(grainBytes / 4), 17 * depth + 1);
        // An on-demand extent that is written comes to be; its file is to be missing.
        __int64 const ownGrains =
            m_kind.onDemand ? m_kind.grainsPerExtent : disk.getSizeBytes() / grainBytes;
        for (__int64 const grain : {__int64{1}, __int64{2} + depth, ownGrains / 2, ownGrains - 1}) {
            disk.seek(grain * grainBytes + 40);
            disk.write(text.getData(), text.getUsed());
        }
        disk.flushChanges();
    }

    Kind const m_kind;
    yx::P<yx::CMemoryFileSystem> m_files = yx::makeObject<yx::CMemoryFileSystem>();
};

/// What a disk's file holds for a grain of two sectors of steps.
std::vector<std::uint8_t> makeStoredGrain(bool compressed) {
    constexpr int kGrainSizeSectors = 2;
    Buffer plain = makeSteps(kGrainSizeSectors * kSectorSizeBytes, 1);
    Buffer aux;
    CVMDKDataPreparer preparer(kGrainSizeSectors, compressed, 6);
    yx::P<Buffer> const stored = preparer.prepareGrainData(&plain, 3, &aux);
    return {stored->getData(), stored->getData() + stored->getUsed()};
}

} // namespace

std::vector<MadeDisk> makeDisks() {
    Kind const kinds[] = {
        {.name = "plain"},
        {.name = "compressed", .compressed = true},
        {.name = "enciphered", .enciphered = true, .grainSizeSectors = 2},
        {.name = "compressed-enciphered", .compressed = true, .enciphered = true},
        {.name = "split", .grainsPerExtent = 10, .extents = 2},
        {.name = "compressed-split", .compressed = true, .grainsPerExtent = 10, .extents = 2},
        {.name = "compressed-enciphered-split",
         .compressed = true,
         .enciphered = true,
         .grainsPerExtent = 10,
         .extents = 2},
        {.name = "on-demand", .grainsPerExtent = 10, .extents = 2, .onDemand = true},
        {.name = "compressed-on-demand",
         .compressed = true,
         .grainsPerExtent = 10,
         .extents = 2,
         .onDemand = true},
        {.name = "child", .grainSizeSectors = 2, .parents = 1},
        {.name = "compressed-child", .compressed = true, .parents = 1},
        {.name = "compressed-enciphered-child",
         .compressed = true,
         .enciphered = true,
         .parents = 1},
        {.name = "split-child-of-split",
         .compressed = true,
         .grainsPerExtent = 10,
         .extents = 2,
         .parents = 1,
         .parentsAreSplit = true},
        {.name = "grandchild", .compressed = true, .parents = 2},
        {.name = "many-tables", .grainSizeSectors = 1, .grainsPerExtent = 1100},
        {.name = "compressed-many-tables",
         .compressed = true,
         .grainSizeSectors = 1,
         .grainsPerExtent = 1100},
    };
    std::vector<MadeDisk> disks;
    for (Kind const& kind : kinds)
        disks.push_back(DiskMaker(kind).make());
    return disks;
}

std::vector<MadeRecord> makeRecords() {
    constexpr std::uint8_t kGrainSizeSectorsLessOne = 1;
    constexpr std::uint8_t kGrainIndex = 3;
    std::vector<MadeRecord> records;
    for (int kind = 0; kind < 4; ++kind) {
        for (int task = 0; task < 4; ++task) {
            bool const compressed = (kind & 1) != 0;
            bool const stores = (task & 1) != 0;
            MadeRecord record;
            record.name = "kind-" + std::to_string(kind) + "-task-" + std::to_string(task);
            record.input = {static_cast<std::uint8_t>(kind), kGrainSizeSectorsLessOne, kGrainIndex,
                            static_cast<std::uint8_t>(task)};
            std::vector<std::uint8_t> const stored = makeStoredGrain(compressed && !stores);
            record.input.insert(record.input.end(), stored.begin(), stored.end());
            records.push_back(record);
        }
    }
    return records;
}

} // namespace kelm::fuzz
