#include "tests/crash/crash_kinds.h"

#include "kelm/format/constants.h"
#include "krym/krym.h"

namespace test_support {

namespace {

constexpr int kFilledParentGrains = 16;

} // namespace

NewDisk requestFor(CrashKind const& kind) {
    NewDisk request = requestFor(kind.disk);
    if (kind.isChild)
        request.parent = crashURI(kParentFile);
    return request;
}

Bytes const& grainBelow(CrashKind const& kind, int grain) {
    static Bytes const kZeroGrain = zeros(kGrainBytes);
    static std::vector<Bytes> const kParentGrains = [] {
        std::vector<Bytes> grains;
        for (int i = 0; i < kFilledParentGrains; ++i)
            grains.push_back(textPattern(kGrainBytes, 1000U + static_cast<unsigned int>(i)));
        return grains;
    }();
    if (!kind.isChild || grain >= kFilledParentGrains || grain % 2 != 0)
        return kZeroGrain;
    return kParentGrains[static_cast<std::size_t>(grain)];
}

void makeParent(CrashKind const& kind, yx::IFileSystem* files) {
    if (!kind.isChild)
        return;
    CrashKind parentKind = kind;
    parentKind.disk.fileSizeLimit = -1;
    parentKind.disk.onDemand = false;
    parentKind.disk.compressed = kind.disk.compressed && !kind.hasPlainParent;
    NewDisk request = requestFor(parentKind);
    request.parent = {};
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files, false);
    guard->keep();
    {
        std::unique_ptr<SafeDisk> const parent =
            SafeDisk::create(guard.get(), crashURI(kParentFile), request);
        for (int grain = 0; grain < kFilledParentGrains; grain += 2)
            parent->write(grain * kGrainBytes, grainBelow(kind, grain).data(), kGrainBytes);
        parent->flush();
    }
    stretchPasswordLess(parentKind, files, kParentFile);
}

void makeDisk(CrashKind const& kind, yx::IFileSystem* files) {
    makeParent(kind, files);
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files, false);
    guard->keep();
    SafeDisk::create(guard.get(), crashURI(kMainFile), requestFor(kind));
    stretchPasswordLess(kind, files);
}

void stretchPasswordLess(CrashKind const& kind, yx::IFileSystem* files, std::string const& name) {
    if (!kind.isEncrypted())
        return;
    yx::P<yx::IIOStream> const stream = kelm::openVMDKFileStream(files, crashURI(name), kReadWrite);
    kelm::CVMDKDescriptorAccessor accessor(stream.get(), kReadWrite);
    kelm::CVMDKDescriptor& descriptor = *accessor.getDescriptor();
    krym::CCipher_AES256CBC cipher;
    Buffer const iv = descriptor.getYxEncryptionIV();
    auto const deriveKey = [&](yx::TCryptBuffer<unsigned char>& key) {
        kelm::CVMDKDisk::deriveEncryptKey(key, cipher.getKeySize(), kind.disk.password,
                                          descriptor.getYxEncryptionKeyDerivationAlgorithm(),
                                          descriptor.getYxEncryptionKeyDerivationSalt());
    };
    yx::TCryptBuffer<unsigned char> passwordKey;
    yx::TCryptBuffer<unsigned char> diskKey;
    deriveKey(passwordKey);
    Buffer wrapped = descriptor.getYxEncryptedEncryptionKey();
    cipher.decrypt(passwordKey, wrapped.getData(), wrapped.getUsed(), diskKey, false, iv.getData());
    descriptor.setYxEncryptionKeyDerivationAlgorithm("pkcs5-pbkdf2-hmac-sha1:1000");
    deriveKey(passwordKey);
    cipher.encrypt(passwordKey, diskKey.getData(), diskKey.getUsed(), wrapped, false, iv.getData());
    descriptor.setYxEncryptedEncryptionKey(wrapped);
    accessor.storeDescriptor(true);
    stream->close();
}

std::vector<int> extentStarts(yx::IFileSystem* files) {
    yx::P<yx::IIOStream> const stream =
        kelm::openVMDKFileStream(files, crashURI(kMainFile), kReadOnly);
    kelm::CVMDKDescriptorAccessor accessor(stream.get(), kReadOnly);
    yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
    accessor.getDescriptor()->getExtentEntries(infos);
    std::vector<int> starts{0};
    for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
        auto const grains =
            static_cast<int>(info->getSizeSectors() * kelm::kSectorSizeBytes / kGrainBytes);
        starts.push_back(starts.back() + grains);
    }
    return starts;
}

} // namespace test_support
