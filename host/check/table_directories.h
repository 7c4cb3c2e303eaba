#pragma once

#include "host/check/extent_reader.h"
#include "host/check/extent_shape.h"

namespace kelm::host {

/// Where the tables of one run of grains lie, in sectors; -1 for one whose place is not known.
struct TablePlaces {
    /// The grain table.
    __int64 table = -1;

    /// Its redundant copy.
    __int64 redundantTable = -1;

    /// The table of slot sizes.
    __int64 slotSizeTable = -1;
};

/// The directories of an extent, which say where its tables lie.
class TableDirectories {
public:
    /// All arguments must outlive the object.
    TableDirectories(ExtentReader& reader, ExtentShape const& shape, ExtentFindings const& findings)
        : m_reader(reader), m_shape(shape), m_findings(findings) {}

    /// Finds the directories. False, with a finding, if the grain directory does not lie in the
    /// file; there is no other call then. A redundant or slot size directory outside the file is a
    /// finding and counts as absent.
    bool find();

    /// Whether there is a redundant directory.
    bool hasRedundant() const { return m_redundantSector != 0; }

    /// Whether there is a directory of slot size tables.
    bool hasSlotSizes() const { return m_slotSizeSector != 0; }

    /// Where the tables of a run of grains lie. Entries that cannot be read are a finding.
    TablePlaces readPlaces(__int64 table);

private:
    bool contains(unsigned long long directorySector) const;
    void findSlotSizes();
    __int64 readPlace(unsigned long long directorySector, __int64 table);

    ExtentReader& m_reader;
    ExtentShape const& m_shape;
    ExtentFindings const& m_findings;

    // 0 for a directory that is not there.
    unsigned long long m_sector = 0;
    unsigned long long m_redundantSector = 0;
    unsigned long long m_slotSizeSector = 0;
};

} // namespace kelm::host
