#include "host/check/structure_check.h"

#include <cassert>

#include "host/check/check_errors.h"

namespace kelm::host {

StructureCheck::StructureCheck(yx::IFileSystem* fileSystem, SafeDisk& disk,
                               CancelFlag const* cancel, FindingCallback const& report)
    : m_fileSystem(fileSystem), m_disk(disk), m_cancel(cancel), m_report(report) {}

void StructureCheck::runTo(DiskExtent const& extent, __int64 grainIndex) {
    auto const index = static_cast<std::size_t>(&extent - m_disk.listExtents().data());
    assert(index < m_disk.listExtents().size());
    while (m_index < index)
        finishExtent();
    if (m_index > index)
        return;
    beginExtent();
    if (m_check)
        m_check->runTo(grainIndex);
}

void StructureCheck::finish() {
    while (m_index < m_disk.listExtents().size())
        finishExtent();
}

void StructureCheck::finishExtent() {
    beginExtent();
    if (m_check)
        m_check->finish();
    m_check.reset();
    m_stream.reset();
    m_hasBegun = false;
    ++m_index;
}

void StructureCheck::beginExtent() {
    if (m_hasBegun)
        return;
    m_hasBegun = true;
    DiskExtent const& extent = m_disk.listExtents()[m_index];
    assert(extent.startBytes <= extent.endBytes);
    yx::CURI const& uri = extent.uri;
    if (!m_fileSystem->fileExists(uri)) {
        if (!m_disk.createsExtentFilesOnDemand())
            m_report(uri, "the file is missing");
        return;
    }
    auto const failure = findingOf([&] {
        unsigned int reserved = 0;
        m_stream = m_fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &reserved);
    });
    if (failure) {
        m_report(uri, *failure);
        return;
    }
    m_check = std::make_unique<ExtentCheck>(
        *m_stream, extent, m_cancel, [this, &uri](std::string const& text) { m_report(uri, text); },
        m_damaged);
}

} // namespace kelm::host
