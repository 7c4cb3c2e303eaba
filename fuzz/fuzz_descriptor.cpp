// The descriptor text. The input is the text as a file has it.

#include "fuzz/support/harness.h"
#include "kelm/format/descriptor.h"
#include "yx/buffer_stream.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::require;

/// Every getter either answers or refuses.
void askAll(CVMDKDescriptor const& descriptor) {
    attempt([&] { descriptor.getVersion(); });
    attempt([&] { descriptor.getContentID(); });
    attempt([&] { descriptor.getParentContentID(); });
    attempt([&] { descriptor.getParentFileNameHint(); });
    attempt([&] { descriptor.getCreateType(); });
    attempt([&] { descriptor.getYxCreateExtentFilesOnDemand(); });
    attempt([&] { descriptor.getAdapterType(); });
    attempt([&] { descriptor.getGeometrySectors(); });
    attempt([&] { descriptor.getGeometryHeads(); });
    attempt([&] { descriptor.getGeometryCylinders(); });
    attempt([&] { descriptor.getYxEncryptionAlgorithm(); });
    attempt([&] { descriptor.getYxEncryptionKeyHashAlgorithm(); });
    attempt([&] { descriptor.getYxEncryptionKeyDerivationAlgorithm(); });
    attempt([&] { descriptor.getYxEncryptionIV(); });
    attempt([&] { descriptor.getYxEncryptedEncryptionKey(); });
    attempt([&] { descriptor.getYxEncryptionKeyHash(); });
    attempt([&] { descriptor.getYxEncryptionKeyDerivationSalt(); });
}

void checkExtentLines(CVMDKDescriptor const& descriptor) {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    descriptor.getExtentEntries(infos);
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        yx::String const line = info->toString();
        yx::P<CVMDKExtentInfo> const again = CVMDKExtentInfo::tryParseDescriptorLine(line);
        require(again && again->toString() == line, "an extent line reads back as it is printed");
    }
}

void checkCopy(CVMDKDescriptor const& descriptor) {
    CVMDKDescriptor copy(descriptor);
    copy.setContentID(0x1234abcd);
    copy.setParentFileNameHint("parent.vmdk");
    require(copy.getContentID() == 0x1234abcd && copy.getParentFileNameHint() == "parent.vmdk",
            "a value that was set is what is read");
    CVMDKDescriptor other;
    other = copy;
    require(other.toString() == copy.toString(), "a copy has the text of its source");
}

/// Stores the descriptor, which refuses texts that UTF-8 has no form for, and reads it back.
void checkStoring(CVMDKDescriptor& descriptor) {
    yx::String const before = descriptor.toString();
    CVMDKDescriptor const untouched(descriptor);
    // Room for the encoding line, and for each character that UTF-8 spreads over more bytes.
    int const targetSizeBytes = static_cast<int>(before.toStdString().size()) + 64;
    yx::TBuffer<unsigned char> zeroBuffer(targetSizeBytes, -1);
    yx::initMemory(zeroBuffer.getData(), 0, static_cast<std::size_t>(targetSizeBytes));
    yx::TBuffer<unsigned char> stored;
    yx::CBufferStream stream(&stored, 2.0);
    if (!attempt([&] { descriptor.store(stream, targetSizeBytes, zeroBuffer); })) {
        require(stored.getUsed() == 0, "a descriptor that is not stored leaves nothing behind");
        return;
    }
    require(stored.getUsed() == targetSizeBytes, "a descriptor fills its place");
    require(CVMDKDescriptor(stored).toString() == descriptor.toString(),
            "a stored descriptor reads back as what was stored");
    require(untouched.toString() == before, "copies share no line");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    CVMDKDescriptor descriptor(kelm::fuzz::toBuffer({data, size}));
    askAll(descriptor);
    checkExtentLines(descriptor);
    checkCopy(descriptor);
    checkStoring(descriptor);
    return 0;
}
