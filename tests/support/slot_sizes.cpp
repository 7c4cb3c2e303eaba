#include "tests/support/slot_sizes.h"

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/metadata/grain_directory.h"
#include "yx/data_in_stream.h"

namespace test_support {

namespace {

/// A slot of 0 cannot be set; an unheard-of size with no bits in 16 does as well.
constexpr __int64 kNoSlotSectors = 65536;

class SlotTables {
public:
    SlotTables(yx::IFileSystem* files, yx::CURI const& extent)
        : m_stream(kelm::openVMDKFileStream(files, extent, yx::IIOStream::ReadWrite)) {
        yx::CDataInStream in(m_stream.get());
        m_header.load(in);
        m_directory = yx::makeObject<kelm::CVMDKGrainDirectory>(
            m_stream.get(), yx::IIOStream::ReadWrite, m_header,
            yx::makeObject<kelm::CVMDKGrainTableCache>().get());
    }

    __int64 getGrainCount() const {
        return kelm::CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(m_header.getCapacitySectors()),
            static_cast<__int64>(m_header.getGrainSizeSectors()));
    }

    /// False for a grain that the extent does not hold.
    bool set(__int64 grain, __int64 sizeSectors) {
        __int64 posSectors = 0;
        __int64 oldSizeSectors = 0;
        m_directory->getGrainInfo(grain, posSectors, oldSizeSectors);
        if (posSectors == 0)
            return false;
        m_directory->setGrainInfo(grain, posSectors,
                                  sizeSectors == 0 ? kNoSlotSectors : sizeSectors);
        return true;
    }

    void close() {
        m_directory->flushChangesToStream();
        m_stream->flush();
        m_stream->close();
    }

private:
    yx::P<yx::IIOStream> m_stream;
    kelm::CVMDKSparseExtentHeader m_header;
    yx::P<kelm::CVMDKGrainDirectory> m_directory;
};

} // namespace

void setSlotSize(yx::IFileSystem* files, yx::CURI const& extent, __int64 grain,
                 __int64 sizeSectors) {
    SlotTables tables(files, extent);
    tables.set(grain, sizeSectors);
    tables.close();
}

int loseSlotSizes(yx::IFileSystem* files, yx::CURI const& extent) {
    SlotTables tables(files, extent);
    int count = 0;
    for (__int64 grain = 0; grain < tables.getGrainCount(); ++grain)
        count += tables.set(grain, 0) ? 1 : 0;
    tables.close();
    return count;
}

} // namespace test_support
