#include "tests/support/extent_checker.h"

#include <set>
#include <sstream>

#include "tests/extent/extent_fixture.h"

namespace extent_test {

namespace {

// Sectors of a compressed extent with one grain table, and of a plain one.
constexpr std::size_t kTable = 11 * 512;
constexpr std::size_t kSlotDirectory = 16 * 512;
constexpr std::size_t kSlotTable = 18 * 512;
constexpr std::size_t kPlainTable = 7 * 512;
constexpr std::size_t kPlainRedundantTable = 2 * 512;

/// Faults planted in sound files; the checker must find each, by just the rules that it breaks.
class ExtentChecker : public ExtentTest {
protected:
    Bytes soundFile(Kind const& kind) {
        createExtent(kind);
        yx::P<kelm::CVMDKSparseExtentFile> extent = openExtent(kind);
        for (int grain = 0; grain < 3; ++grain)
            writeAt(*extent, grain * 4096, Bytes(4096, static_cast<unsigned char>(grain + 1)));
        extent.reset();
        EXPECT_EQ(findings(), "");
        return content();
    }

    std::string findingsOf(Bytes const& bytes) {
        setContent(bytes);
        return findings();
    }
};

TEST_F(ExtentChecker, ReportsWhatASoundFileHolds) {
    soundFile(kCompressedAndEnciphered);
    auto const report = test_support::checkExtent(memory->getFile(uri), kStartGrainIndex);
    EXPECT_TRUE(report.findings.empty());
    EXPECT_TRUE(report.compressed);
    EXPECT_TRUE(report.enciphered);
    EXPECT_EQ(report.capacitySectors, 128U);
    EXPECT_EQ(report.grainSizeSectors, 8U);
    EXPECT_EQ(report.overheadSectors, 24U);
    ASSERT_EQ(report.grains.size(), 3U);
    EXPECT_EQ(report.grains.at(1).posSectors, 26U);
    EXPECT_EQ(report.grains.at(1).sizeSectors, 2U);
}

TEST_F(ExtentChecker, FindsFaultsInAPlainFile) {
    Bytes const sound = soundFile(kPlain);
    struct {
        char const* name;
        std::function<void(Bytes&)> spoil;
        char const* findings;
    } const cases[] = {
        {"no header", [](Bytes& bytes) { bytes.resize(511); },
         "the file has no room for a header\n"},
        {"magic", [](Bytes& bytes) { bytes[0] = 0; }, "bad magic\n"},
        {"new-line bytes", [](Bytes& bytes) { bytes[73] = 0; }, "bad new-line bytes\n"},
        {"grain size", [](Bytes& bytes) { put(bytes, kGrainSizeOffset, 0, 8); },
         "zero grain size or table size\n"},
        {"directory", [](Bytes& bytes) { put(bytes, kDirectoryOffset, 1 << 20, 8); },
         "a directory lies outside the file\n"},
        {"redundant table differs",
         [](Bytes& bytes) { put(bytes, kPlainRedundantTable + 511 * 4, 7, 4); },
         "the redundant table 0 differs\n"},
        {"table shared with the redundant directory", [](Bytes& bytes) { put(bytes, 512, 7, 4); },
         "table 0 is its own redundant copy\n"},
        {"table outside", [](Bytes& bytes) { put(bytes, 6 * 512, 1 << 20, 4); },
         "table 0 lies outside the file\n"},
        {"slot outside",
         [](Bytes& bytes) {
             put(bytes, kPlainTable + 8, 33, 4);
             put(bytes, kPlainRedundantTable + 8, 33, 4);
         },
         "grain 2 reaches behind the data\n"},
        {"slot in the metadata",
         [](Bytes& bytes) {
             put(bytes, kPlainTable, 8, 4);
             put(bytes, kPlainRedundantTable, 8, 4);
         },
         "grain 0 lies in the metadata\n"},
        {"same slot",
         [](Bytes& bytes) {
             put(bytes, kPlainTable + 4, 16, 4);
             put(bytes, kPlainRedundantTable + 4, 16, 4);
         },
         "grain 1 shares its place\n"},
        {"overlapping slots",
         [](Bytes& bytes) {
             put(bytes, kPlainTable + 4, 23, 4);
             put(bytes, kPlainRedundantTable + 4, 23, 4);
         },
         "grain 1 overlaps the one before it\n"},
        {"entry behind the last grain",
         [](Bytes& bytes) {
             put(bytes, kPlainTable + 16 * 4, 16, 4);
             put(bytes, kPlainRedundantTable + 16 * 4, 16, 4);
         },
         "an entry behind the last grain is set\n"},
    };
    for (auto const& [name, spoil, expected] : cases) {
        SCOPED_TRACE(name);
        Bytes bytes = sound;
        spoil(bytes);
        EXPECT_EQ(findingsOf(bytes), expected);
    }
}

TEST_F(ExtentChecker, FindsFaultsInACompressedFile) {
    Bytes const sound = soundFile(kCompressed);
    struct {
        char const* name;
        std::function<void(Bytes&)> spoil;
        char const* findings;
    } const cases[] = {
        {"no trail", [](Bytes& bytes) { bytes.resize(bytes.size() - 1536); },
         "grain 0 reaches behind the data\ngrain 1 reaches behind the data\n"
         "grain 2 reaches behind the data\nno footer marker three sectors before the end\n"
         "the footer is no copy of the header\nno end-of-stream marker at the end\n"},
        {"footer differs", [](Bytes& bytes) { bytes[bytes.size() - 600] ^= 1; },
         "the footer is no copy of the header\n"},
        {"end marker", [](Bytes& bytes) { bytes.back() = 1; },
         "no end-of-stream marker at the end\n"},
        {"not whole sectors", [](Bytes& bytes) { bytes.push_back(0); },
         "the file does not end in whole sectors\n"},
        {"slot directory marker", [](Bytes& bytes) { bytes[15 * 512] = 9; },
         "no slot size directory behind the last table\n"},
        {"slot table outside", [](Bytes& bytes) { put(bytes, kSlotDirectory, 1 << 20, 4); },
         "slot size table 0 lies outside the file\n"},
        {"empty slot", [](Bytes& bytes) { put(bytes, kSlotTable, 0, 2); },
         "grain 0 has an empty slot\nthe record of grain 0 does not fit its slot\n"},
        {"slots overlap", [](Bytes& bytes) { put(bytes, kSlotTable, 2, 2); },
         "grain 1 overlaps the one before it\n"},
        {"slot reaches into the trail", [](Bytes& bytes) { put(bytes, kSlotTable + 4, 2, 2); },
         "grain 2 reaches behind the data\n"},
        {"record of another grain", [](Bytes& bytes) { put(bytes, 24 * 512, 88, 8); },
         "the record of grain 0 names another grain\n"},
        {"record too long", [](Bytes& bytes) { put(bytes, 24 * 512 + 8, 501, 4); },
         "the record of grain 0 does not fit its slot\n"},
        {"table entry", [](Bytes& bytes) { put(bytes, kTable, 25, 4); },
         "the redundant table 0 differs\ngrain 1 shares its place\n"
         "the record of grain 0 names another grain\n"},
    };
    for (auto const& [name, spoil, expected] : cases) {
        SCOPED_TRACE(name);
        Bytes bytes = sound;
        spoil(bytes);
        // The order of the lines is of no account.
        std::multiset<std::string> actualLines;
        std::multiset<std::string> expectedLines;
        auto const split = [](std::string const& text, std::multiset<std::string>& lines) {
            std::istringstream stream(text);
            for (std::string line; std::getline(stream, line);)
                lines.insert(line);
        };
        split(findingsOf(bytes), actualLines);
        split(expected, expectedLines);
        EXPECT_EQ(actualLines, expectedLines);
    }
}

} // namespace

} // namespace extent_test
