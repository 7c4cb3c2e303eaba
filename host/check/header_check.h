#pragma once

#include <optional>

#include "host/check/extent_reader.h"
#include "host/check/extent_shape.h"

namespace kelm::host {

/// Checks the header of an extent by itself and against the disk.
class HeaderCheck {
public:
    /// All arguments but `extent` must outlive the object.
    HeaderCheck(ExtentReader& reader, DiskExtent const& extent, ExtentFindings const& findings)
        : m_reader(reader), m_findings(findings) {
        m_shape.extent = extent;
    }

    /// Nothing, with a finding, if the header does not allow the rest of the file to be read.
    std::optional<ExtentShape> run();

private:
    bool tryTakeSizes();
    void checkCompression() const;
    void compareWithDisk() const;

    ExtentReader& m_reader;
    ExtentFindings const& m_findings;
    ExtentShape m_shape;
};

} // namespace kelm::host
