#include "host/backups/key_rewrapping.h"

#include <algorithm>
#include <array>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "host/disk/descriptor_checksum.h"
#include "tests/support/expect_error.h"

namespace test_support {
namespace key_rewrapping_test {
namespace {

using kelm::CVMDKDescriptor;
using kelm::host::ChecksumState;
using kelm::host::DescriptorArea;
using kelm::host::getChecksumState;
using kelm::host::planEndOfKeyRewrapping;
using kelm::host::planKeyRewrapping;
using kelm::host::updateChecksum;
using Wrapping = std::array<std::string, 3>;

constexpr std::size_t kAreaBytes = 10240;
constexpr std::size_t kSectorBytes = 512;

Wrapping const kOld = {"pkcs5-pbkdf2-hmac-sha1:10000", std::string(64, 'a'), std::string(64, 'b')};
Wrapping const kNew = {"pkcs5-pbkdf2-hmac-sha1:600000", std::string(64, 'c'), std::string(64, 'd')};

yx::CURI mainFile() {
    return yx::CURI("mem:///disks/disk.vmdk");
}

std::string textOf(DescriptorArea const& area) {
    return {area.begin(), std::find(area.begin(), area.end(), 0)};
}

CVMDKDescriptor parseText(std::string const& text) {
    yx::TBuffer<unsigned char> bytes(static_cast<int>(text.size()), -1);
    std::copy(text.begin(), text.end(), bytes.getData());
    return CVMDKDescriptor(bytes);
}

CVMDKDescriptor parseArea(DescriptorArea const& area) {
    return parseText(textOf(area));
}

DescriptorArea areaOf(std::string const& text, std::size_t sizeBytes = kAreaBytes) {
    DescriptorArea area(text.begin(), text.end());
    area.resize(sizeBytes, 0);
    return area;
}

Wrapping wrappingOf(CVMDKDescriptor const& descriptor) {
    return {descriptor.getValue("yxEncKeyDerivAlg").toStdString(),
            descriptor.getValue("yxEncKeyDerivSalt").toStdString(),
            descriptor.getValue("yxEncEncKey").toStdString()};
}

CVMDKDescriptor withWrapping(CVMDKDescriptor descriptor, Wrapping const& wrapping) {
    descriptor.setValue("yxEncKeyDerivAlg", yx::String::fromUTF8(wrapping[0]), false, true);
    descriptor.setValue("yxEncKeyDerivSalt", yx::String::fromUTF8(wrapping[1]), false, true);
    descriptor.setValue("yxEncEncKey", yx::String::fromUTF8(wrapping[2]), false, true);
    return descriptor;
}

/// A descriptor whose wrapping begins so many bytes further than it might.
DescriptorArea makeArea(std::size_t shiftBytes, bool hasChecksum,
                        std::size_t sizeBytes = kAreaBytes) {
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                       "parentCID=ffffffff\ncreateType=\"monolithicSparse\"\n";
    text += "ddb.filling = \"" + std::string(shiftBytes, 'x') + "\"\n";
    text += "yxEncAlg=aes256cbc\nyxEncIV=" + std::string(32, '1') + "\n";
    text += "yxEncKeyDerivAlg=" + kOld[0] + "\nyxEncKeyDerivSalt=" + kOld[1] +
            "\nyxEncEncKey=" + kOld[2] +
            "\nyxEncKeyHashAlg=sha256\nyxEncKeyHash=" + std::string(64, '2') +
            "\n# Extent description\nRW 16384 SPARSE \"disk.vmdk\"\n# The Disk Data Base\n#DDB\n";
    CVMDKDescriptor descriptor = parseText(text);
    if (hasChecksum)
        updateChecksum(descriptor, mainFile());
    return areaOf(descriptor.toString().toStdString(), sizeBytes);
}

std::vector<DescriptorArea> planFor(DescriptorArea const& area, Wrapping const& wrapping = kNew) {
    return planKeyRewrapping(area, withWrapping(parseArea(area), wrapping), mainFile());
}

/// All that a power cut can leave between two states: each changed sector is old or new.
std::vector<DescriptorArea> listTornStates(DescriptorArea const& from, DescriptorArea const& to) {
    std::vector<std::size_t> changed;
    for (std::size_t at = 0; at < from.size(); at += kSectorBytes) {
        if (!std::equal(from.begin() + static_cast<std::ptrdiff_t>(at),
                        from.begin() + static_cast<std::ptrdiff_t>(at + kSectorBytes),
                        to.begin() + static_cast<std::ptrdiff_t>(at)))
            changed.push_back(at);
    }
    EXPECT_LE(changed.size(), 6U);
    std::vector<DescriptorArea> states;
    for (unsigned int chosen = 0; chosen < 1U << changed.size(); ++chosen) {
        DescriptorArea state = from;
        for (std::size_t index = 0; index < changed.size(); ++index) {
            if ((chosen >> index & 1U) != 0)
                std::copy_n(to.begin() + static_cast<std::ptrdiff_t>(changed[index]), kSectorBytes,
                            state.begin() + static_cast<std::ptrdiff_t>(changed[index]));
        }
        states.push_back(state);
    }
    return states;
}

/// Nothing of the old wrapping is left, and the checksum is as it was.
void expectDone(DescriptorArea const& area, bool hasChecksum) {
    EXPECT_EQ(kNew, wrappingOf(parseArea(area)));
    for (std::size_t index : {1U, 2U})
        EXPECT_EQ(std::string::npos, textOf(area).find(kOld[index])) << textOf(area);
    EXPECT_EQ(std::string::npos, textOf(area).find("#xEnc"));
    EXPECT_EQ(std::string::npos, textOf(area).find("checksu-"));
    EXPECT_EQ(hasChecksum ? ChecksumState::Valid : ChecksumState::Absent,
              getChecksumState(parseArea(area), mainFile()));
}

TEST(KeyRewrapping, EveryStateOfEveryPowerCutHasOneWholeWrappingAndIsGoneOnWith) {
    std::set<std::size_t> rowLengths;
    for (std::size_t shift = 0; shift < kSectorBytes; shift += 3) {
        bool const hasChecksum = shift % 2 == 0;
        SCOPED_TRACE(testing::Message() << "shift " << shift);
        DescriptorArea const first = makeArea(shift, hasChecksum);
        std::vector<DescriptorArea> row = planFor(first);
        rowLengths.insert(row.size());
        ASSERT_FALSE(row.empty());
        expectDone(row.back(), hasChecksum);
        row.insert(row.begin(), first);
        for (std::size_t index = 0; index + 1 < row.size(); ++index) {
            for (DescriptorArea const& torn : listTornStates(row[index], row[index + 1])) {
                Wrapping const found = wrappingOf(parseArea(torn));
                ASSERT_TRUE(found == kOld || found == kNew) << textOf(torn);
                EXPECT_NE(ChecksumState::Different, getChecksumState(parseArea(torn), mainFile()));
                std::vector<DescriptorArea> const rest =
                    found == kOld ? planFor(torn) : planEndOfKeyRewrapping(torn, mainFile());
                expectDone(rest.empty() ? torn : rest.back(), hasChecksum);
                if (testing::Test::HasFailure())
                    return;
            }
        }
    }
    // Both ways were taken: in place, and by a place behind the text.
    EXPECT_GE(rowLengths.size(), 3U);
}

TEST(KeyRewrapping, AgainAndAgainTakesNoMoreRoomThanOnce) {
    for (std::size_t const shift : {0U, 130U, 260U, 390U}) {
        SCOPED_TRACE(shift);
        DescriptorArea area = planFor(makeArea(shift, true)).back();
        std::size_t const length = textOf(area).size();
        for (char digit : std::string("456789")) {
            Wrapping const next = {"pkcs5-pbkdf2-hmac-sha1:" + std::string(1, digit) + "000000",
                                   std::string(64, digit), std::string(64, 'e')};
            area = planFor(area, next).back();
            EXPECT_EQ(next, wrappingOf(parseArea(area)));
        }
        EXPECT_LE(textOf(area).size(), length + 700);
        EXPECT_EQ(ChecksumState::Valid, getChecksumState(parseArea(area), mainFile()));
    }
}

TEST(KeyRewrapping, ChecksumThatDiffersGoesOnDiffering) {
    std::string text = textOf(makeArea(7, true));
    text.replace(text.find("12345678"), 8, "1234567x");
    text.replace(text.find("xxxxxxx"), 7, "yyyyyyy");
    DescriptorArea const area = areaOf(text);
    ASSERT_EQ(ChecksumState::Different, getChecksumState(parseArea(area), mainFile()));
    DescriptorArea const last = planFor(area).back();
    EXPECT_EQ(ChecksumState::Different, getChecksumState(parseArea(last), mainFile()));
    EXPECT_EQ(kNew, wrappingOf(parseArea(last)));
}

TEST(KeyRewrapping, AreaWithoutRoomIsLeftAlone) {
    // The wrapping lies in two sectors, and the text fills the area.
    int refusals = 0;
    for (std::size_t shift = 0; shift < kSectorBytes; shift += 8) {
        DescriptorArea const roomy = makeArea(shift, false);
        std::size_t const needed = (textOf(roomy).size() + kSectorBytes - 1) / kSectorBytes;
        DescriptorArea const area = makeArea(shift, false, needed * kSectorBytes);
        try {
            expectDone(planFor(area).back(), false);
        } catch (yx::CIOError const& error) {
            ++refusals;
            EXPECT_EQ(yx::CIOError::NotSupported, error.getIOCode());
            EXPECT_EQ("The descriptor inside the disk has no room for another wrapping of its key.",
                      error.getMessage().toStdString());
            EXPECT_EQ((Props{{"uri", "mem:///disks/disk.vmdk"}}), propsOf(error));
        }
    }
    EXPECT_GT(refusals, 0);
}

TEST(KeyRewrapping, NothingIsLeftToEndOfAnUntouchedDescriptor) {
    EXPECT_TRUE(planEndOfKeyRewrapping(makeArea(3, true), mainFile()).empty());
}

} // namespace
} // namespace key_rewrapping_test
} // namespace test_support
