#include "host/check/extent_reader.h"

#include <cassert>

#include "host/check/check_errors.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

constexpr char kCannotBeRead[] = " cannot be read: ";

} // namespace

bool ExtentReader::tryReadHeader(CVMDKSparseExtentHeader& header) {
    auto const failure = findingOf([&] {
        m_sizeBytes = m_stream.getLength();
        m_sizeSectors = m_sizeBytes / kSectorSizeBytes;
        yx::P<yx::COptimizingIOStream> const start =
            yx::makeObject<yx::COptimizingIOStream>(&m_stream);
        start->seek(0);
        yx::CDataInStream in(start.get());
        header.load(in);
    });
    if (failure)
        m_findings.addOnce(*failure);
    return !failure;
}

bool ExtentReader::contains(__int64 sector, __int64 bytes) const {
    assert(bytes >= 0);
    return sector > 0 && sector <= m_sizeSectors &&
           bytes <= m_sizeBytes - sector * kSectorSizeBytes;
}

std::optional<ExtentReader::Bytes> ExtentReader::tryRead(__int64 sector, __int64 bytes,
                                                         std::string const& name) {
    Bytes data;
    auto const failure = findFailure(sector, bytes, data);
    if (!failure)
        return data;
    m_findings.addOnce(name + kCannotBeRead + *failure);
    return std::nullopt;
}

std::optional<ExtentReader::Bytes> ExtentReader::tryRead(__int64 sector, __int64 bytes,
                                                         std::string const& name,
                                                         CheckedThing const& thing) {
    Bytes data;
    auto const failure = findFailure(sector, bytes, data);
    if (!failure)
        return data;
    m_findings.addOnce(thing, name + kCannotBeRead + *failure);
    return std::nullopt;
}

std::optional<std::string> ExtentReader::findFailure(__int64 sector, __int64 bytes, Bytes& data) {
    assert((sector == 0 || contains(sector, bytes)) && "the caller has checked the place");
    return findingOf([&] { data = read(sector * kSectorSizeBytes, bytes); });
}

ExtentReader::Bytes ExtentReader::read(__int64 positionBytes, __int64 bytes) {
    assert(positionBytes >= 0 && bytes > 0);
    Bytes data(static_cast<std::size_t>(bytes));
    m_blocks.read(positionBytes, data.data(), static_cast<int>(bytes));
    return data;
}

} // namespace kelm::host
