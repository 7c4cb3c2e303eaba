// Damaged disks of every kind, and children over them, against what they held: whatever of a disk
// was overwritten or cut off, each grain whose record and one of whose two table entries are as
// they were reads as it was. Compressed grains whose records were damaged are never read wrong
// without a word. KELM_MODEL_ROUNDS multiplies the number of disks; `make soak` takes 5,000.
//
// Descriptors are spared: there is one of each, and nothing to put it right from.

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>

#include "host/transfer/salvage.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "yx/memory.h"

namespace test_support {
namespace salvage_model_test {
namespace {

using kelm::host::DamagedStretch;
using kelm::host::SalvagedDisk;
using kelm::host::SalvageOptions;

constexpr unsigned int kFirstSeed = 20280000;

/// Seeds of damage that was once taken for more than it is.
constexpr unsigned int kSeedsOfMistakes[] = {20280900, 20281255, 20281279, 20281543};
constexpr unsigned int kUsualDisks = 40;
constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kGrainSize = 65536;
constexpr std::size_t kEntryBytes = 4;
constexpr __int64 kLargerDiskBytes = 40 << 20;

unsigned long long numberIn(Bytes const& bytes, std::size_t at, std::size_t count) {
    unsigned long long number = 0;
    for (std::size_t i = count; i-- > 0;)
        number = number << 8 | bytes.at(at + i);
    return number;
}

/// A file before and after the damage.
struct DamagedFile {
    Bytes sound;
    Bytes damaged;

    /// Where something was written, and how much: it may be what was there, as in an empty table.
    std::vector<std::pair<std::size_t, std::size_t>> strokes = {};

    bool isTouched(std::size_t at, std::size_t count) const {
        for (auto const& [start, bytes] : strokes) {
            if (start < at + count && at < start + bytes)
                return true;
        }
        for (std::size_t i = at; i < at + count; ++i) {
            bool const isCut = i >= damaged.size();
            if (i < sound.size() && (isCut || damaged[i] != sound[i]))
                return true;
        }
        return false;
    }

    std::size_t number(std::size_t at, std::size_t count) const {
        return static_cast<std::size_t>(numberIn(sound, at, count));
    }

    // The fields of the header.
    bool isCompressed() const { return (number(8, 4) & 0x10000U) != 0; }
    std::size_t directory() const { return number(56, 8) * kSectorBytes; }
    std::size_t redundantDirectory() const { return number(48, 8) * kSectorBytes; }
    std::size_t descriptorEnd() const {
        return std::max<std::size_t>(1, number(28, 8) + number(36, 8)) * kSectorBytes;
    }
    std::size_t overhead() const { return number(64, 8) * kSectorBytes; }

    std::size_t entryAt(std::size_t directoryAt, std::size_t grain) const {
        return number(directoryAt + grain / 512 * kEntryBytes, 4) * kSectorBytes +
               grain % 512 * kEntryBytes;
    }
};

/// What is known of a grain of one disk.
struct Fate {
    bool isStored = false;

    /// Whether it has to come out as it was.
    bool isSound = true;

    /// Whether a wrong content cannot stay unnoticed.
    bool tells = true;
};

struct Level {
    std::string name;
    DiskKind kind;
    std::map<std::size_t, Bytes> grains;
    std::vector<Fate> fates;
};

class SalvageModel : public HostTest {
protected:
    void run(unsigned int seed) {
        m_random.seed(seed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        m_files.clear();
        m_levels.clear();
        DiskKind const kind = allDiskKinds()[below(allDiskKinds().size())];
        m_sizeBytes = below(4) == 0 ? kLargerDiskBytes : kSmallestDiskBytes;
        std::size_t const levels = 1 + below(3) / 2;
        for (std::size_t i = 0; i < levels; ++i)
            makeLevel(kind, i == 0 ? "" : "disk0.vmdk", "disk" + std::to_string(i) + ".vmdk");
        SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << kind.name << ", " << levels
                                        << " disks of " << m_sizeBytes);
        takeFiles();
        std::size_t const strokes = below(4);
        for (std::size_t i = 0; i < strokes; ++i)
            damageOne();
        putFiles();
        judgeGrains();
        SCOPED_TRACE(m_story);
        try {
            for (bool const fromParent : {false, true})
                check(kind, fromParent);
        } catch (yx::CIOError const& error) {
            // With the header and all tables there is nothing left to begin with.
            EXPECT_EQ(yx::CIOError::CorruptData, error.getCode());
            EXPECT_EQ(0U, countSound()) << error.getMessage().toStdString();
        }
    }

private:
    std::size_t below(std::size_t limit) { return m_random() % limit; }

    std::size_t grainCount() const { return static_cast<std::size_t>(m_sizeBytes) / kGrainSize; }

    /// One of a few contents, with a mark of its own.
    Bytes drawGrain() {
        static std::vector<Bytes> const contents{pattern(kGrainSize, 1), textPattern(kGrainSize, 2),
                                                 textPattern(kGrainSize, 3),
                                                 pattern(kGrainSize, 4)};
        std::size_t const which = below(contents.size() + 1);
        if (which == contents.size())
            return zeros(kGrainSize);
        Bytes content = contents[which];
        for (std::size_t i = 0; i < content.size(); i += kGrainSize / 8)
            content[i] = static_cast<unsigned char>(m_random());
        return content;
    }

    void makeLevel(DiskKind const& kind, std::string const& parent, std::string const& name) {
        Level level{name, kind, {}, std::vector<Fate>(grainCount())};
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, name, parent, m_sizeBytes);
        std::size_t const writes = 5 + below(40);
        std::size_t const start = below(grainCount());
        for (std::size_t i = 0; i < writes; ++i) {
            std::size_t const grain =
                below(2) == 0 ? (start + i) % grainCount() : below(grainCount());
            level.grains[grain] = drawGrain();
            writeGrain(*disk, static_cast<int>(grain), level.grains[grain]);
            if (below(10) == 0)
                disk->flush();
        }
        disk->flush();
        for (auto const& [grain, content] : level.grains)
            ASSERT_EQ(readGrain(*disk, static_cast<int>(grain)), content) << grain;
        m_levels.push_back(std::move(level));
    }

    void takeFiles() {
        for (yx::CURI const& uri : files->listFiles()) {
            std::string const name = uri.getName().toStdString();
            Bytes const content = toBytes(files->getFile(uri));
            bool const isExtent =
                numberIn(content, 0, 4) == 0x564D444B || numberIn(content, 0, 4) == 0x05644B45;
            if (isExtent)
                m_files[name] = {content, content};
        }
    }

    void putFiles() {
        for (auto const& [name, file] : m_files)
            files->putFile(uriOf(name), toBuffer(file.damaged));
    }

    void damageOne() {
        auto file = m_files.begin();
        std::advance(file, below(m_files.size()));
        DamagedFile& damaged = file->second;
        std::size_t const at = drawPlace(damaged);
        m_story += "\n" + file->first + ": ";
        switch (below(8)) {
        case 0:
        case 1:
            m_story += "byte at ";
            overwrite(damaged, at, 1, below(2));
            break;
        case 2:
        case 3:
        case 4:
            m_story += "sector at ";
            overwrite(damaged, at / kSectorBytes * kSectorBytes, kSectorBytes, below(4));
            break;
        case 5:
            m_story += "sectors at ";
            overwrite(damaged, at / kSectorBytes * kSectorBytes, (1 + below(40)) * kSectorBytes,
                      below(4));
            break;
        case 6: {
            std::size_t const directory =
                below(2) == 0 ? damaged.directory() : damaged.redundantDirectory();
            m_story += "table at ";
            overwrite(damaged, damaged.entryAt(directory, 0), 2048, below(4));
            break;
        }
        default:
            m_story += "end at ";
            overwrite(damaged, damaged.sound.size(), 0, 0);
            damaged.damaged.resize(std::min(damaged.damaged.size(),
                                            damaged.descriptorEnd() + below(damaged.sound.size())));
            m_story += " now " + std::to_string(damaged.damaged.size());
        }
    }

    /// Half of them in the metadata, which are small.
    std::size_t drawPlace(DamagedFile const& file) {
        switch (below(4)) {
        case 0:
            return below(kSectorBytes);
        case 1:
            return file.descriptorEnd() + below(file.overhead() - file.descriptorEnd());
        default:
            return below(file.sound.size());
        }
    }

    void overwrite(DamagedFile& file, std::size_t at, std::size_t count, std::size_t how) {
        m_story += std::to_string(at) + ", " + std::to_string(count) + " bytes, way " +
                   std::to_string(how);
        file.strokes.emplace_back(at, count);
        auto const fill = static_cast<unsigned char>(how == 0 ? 0 : 0xFF);
        std::size_t const from = below(file.sound.size());
        for (std::size_t i = at; i < at + count && i < file.damaged.size(); ++i) {
            bool const isDescriptor = i >= kSectorBytes && i < file.descriptorEnd();
            if (isDescriptor)
                continue;
            if (how <= 1)
                file.damaged[i] = count == 1 ? static_cast<unsigned char>(m_random()) : fill;
            else if (how == 2)
                file.damaged[i] = static_cast<unsigned char>(m_random());
            else
                file.damaged[i] =
                    file.sound[(from / kSectorBytes * kSectorBytes + i - at) % file.sound.size()];
        }
    }

    void judgeGrains() {
        for (Level& level : m_levels) {
            std::size_t firstGrain = 0;
            for (auto const& [uri, count] : extentsOf(level)) {
                auto const file = m_files.find(uri);
                for (std::size_t i = 0; i < count; ++i) {
                    if (file != m_files.end())
                        level.fates[firstGrain + i] = judge(file->second, i);
                }
                firstGrain += count;
            }
            ASSERT_EQ(firstGrain, grainCount());
        }
    }

    std::vector<std::pair<std::string, std::size_t>> extentsOf(Level const& level) {
        auto const main = m_files.find(level.name);
        if (main != m_files.end())
            files->putFile(uriOf("sound"), toBuffer(main->second.sound));
        yx::P<yx::IIOStream> const stream = kelm::openVMDKFileStream(
            files.get(), uriOf(main == m_files.end() ? level.name : "sound"), kReadOnly);
        yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
        kelm::CVMDKDescriptorAccessor(stream.get(), kReadOnly)
            .getDescriptor()
            ->getExtentEntries(infos);
        std::vector<std::pair<std::string, std::size_t>> extents;
        for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
            extents.emplace_back(info->getFilename().toStdString(),
                                 static_cast<std::size_t>(info->getSizeSectors()) * kSectorBytes /
                                     kGrainSize);
        }
        return extents;
    }

    static Fate judge(DamagedFile const& file, std::size_t grain) {
        std::size_t const main = file.entryAt(file.directory(), grain);
        std::size_t const copy = file.entryAt(file.redundantDirectory(), grain);
        std::size_t const place = file.number(main, 4) * kSectorBytes;
        bool const areBothTouched =
            file.isTouched(main, kEntryBytes) && file.isTouched(copy, kEntryBytes);
        std::size_t recordBytes = kGrainSize;
        if (file.isCompressed() && place > 0)
            recordBytes = file.number(place + 8, 4) + 12 + 16;
        bool const isRecordTouched = place > 0 && file.isTouched(place, recordBytes);
        // Where both tables have become 0, nothing leads to the record.
        return {place > 0, !areBothTouched && !isRecordTouched,
                file.isCompressed() && !areBothTouched};
    }

    void check(DiskKind const& kind, bool fromParent) {
        SCOPED_TRACE(fromParent ? "from parent" : "zeros");
        SalvageOptions options;
        options.fromParent = fromParent;
        SalvagedDisk disk(files.get(), uriOf(m_levels.back().name), kind.password, options);
        ASSERT_EQ(disk.getSizeBytes(), m_sizeBytes);
        Bytes content(static_cast<std::size_t>(m_sizeBytes));
        for (std::size_t at = 0; at < content.size(); at += kGrainSize) {
            disk.read(static_cast<__int64>(at), content.data() + at, static_cast<int>(kGrainSize));
        }
        checkGrains(content, disk.getDamage());
        checkSkipping(kind, options, content, disk.getDamage());
        if (m_story.empty()) {
            EXPECT_TRUE(disk.getDamage().isEmpty());
        }
    }

    /// Who skips what is in no file finds the same content and the same damage.
    void checkSkipping(DiskKind const& kind, SalvageOptions const& options, Bytes const& content,
                       kelm::host::DamageList const& damage) {
        SalvagedDisk disk(files.get(), uriOf(m_levels.back().name), kind.password, options);
        Bytes part(kGrainSize);
        for (std::size_t at = 0; at < content.size();) {
            std::size_t const max = std::min(content.size() - at, 1 + below(20 * kGrainSize));
            auto const skipped = static_cast<std::size_t>(
                disk.countAbsentBytes(static_cast<__int64>(at), static_cast<__int64>(max)));
            ASSERT_LE(skipped, max);
            ASSERT_TRUE(yx::isAllZero(content.data() + at, skipped)) << at;
            m_counts.skippedBytes += skipped;
            at += skipped;
            if (skipped > 0 || at == content.size())
                continue;
            std::size_t const count = std::min(content.size() - at, 1 + below(kGrainSize));
            disk.read(static_cast<__int64>(at), part.data(), static_cast<int>(count));
            ASSERT_TRUE(std::equal(content.begin() + static_cast<std::ptrdiff_t>(at),
                                   content.begin() + static_cast<std::ptrdiff_t>(at + count),
                                   part.begin()))
                << at;
            at += count;
        }
        EXPECT_EQ(describe(damage), describe(disk.getDamage()));
    }

    static std::string describe(kelm::host::DamageList const& damage) {
        std::string text;
        for (DamagedStretch const& stretch : damage.getStretches()) {
            text += std::to_string(stretch.startBytes) + " to " + std::to_string(stretch.endBytes) +
                    " " + stretch.file.toString(true).toStdString() + " " + stretch.reason + "\n";
        }
        return text;
    }

    void checkGrains(Bytes const& content, kelm::host::DamageList const& damage) {
        int wrong = 0;
        for (std::size_t grain = 0; grain < grainCount() && wrong < 5; ++grain) {
            Bytes const read = slice(content, grain * kGrainSize, kGrainSize);
            bool isSound = true;
            bool tells = true;
            Bytes const expected = expect(grain, isSound, tells);
            bool const isRight = read == expected;
            bool const isListed = listed(damage, grain);
            if (isSound && !isRight) {
                ADD_FAILURE() << "grain " << grain << " was not touched, and is wrong"
                              << (isListed ? ", listed" : "") << "\n"
                              << sameBytes(expected, read).message() << describeFates(grain);
                ++wrong;
            } else if (!isRight && tells && !isListed) {
                ADD_FAILURE() << "grain " << grain << " is wrong without a word";
                ++wrong;
            }
            m_counts.grains += 1;
            m_counts.listedSound += isSound && isListed;
            m_counts.lost += !isRight;
        }
    }

    std::string describeFates(std::size_t grain) const {
        std::string text;
        for (Level const& level : m_levels) {
            Fate const& fate = level.fates[grain];
            text += "\n" + level.name + (fate.isStored ? ": stored" : ": absent") +
                    (fate.isSound ? ", sound" : ", damaged") +
                    (level.grains.contains(grain) ? ", written" : ", not written");
        }
        return text;
    }

    Bytes expect(std::size_t grain, bool& isSound, bool& tells) const {
        for (auto level = m_levels.rbegin(); level != m_levels.rend(); ++level) {
            Fate const& fate = level->fates[grain];
            isSound = isSound && fate.isSound;
            tells = tells && fate.tells;
            if (fate.isStored)
                return level->grains.at(grain);
        }
        return zeros(kGrainSize);
    }

    /// How many grains have to come out as they were.
    std::size_t countSound() const {
        std::size_t count = 0;
        for (std::size_t grain = 0; grain < grainCount(); ++grain) {
            bool isSound = true;
            bool tells = true;
            expect(grain, isSound, tells);
            count += isSound;
        }
        return count;
    }

    static bool listed(kelm::host::DamageList const& damage, std::size_t grain) {
        auto const start = static_cast<__int64>(grain * kGrainSize);
        auto const end = start + static_cast<__int64>(kGrainSize);
        return std::any_of(damage.getStretches().begin(), damage.getStretches().end(),
                           [&](DamagedStretch const& stretch) {
                               return stretch.startBytes < end && stretch.endBytes > start;
                           });
    }

protected:
    struct Counts {
        int grains = 0;
        int listedSound = 0;
        int lost = 0;
        std::size_t skippedBytes = 0;
    };

    void clearStory() { m_story.clear(); }

    Counts m_counts;

private:
    std::mt19937 m_random;
    __int64 m_sizeBytes = 0;
    std::vector<Level> m_levels;
    std::map<std::string, DamagedFile> m_files;
    std::string m_story;
};

TEST_F(SalvageModel, WhatWasNotTouchedComesOutRight) {
    LogCapture const quiet;
    for (unsigned int const seed : kSeedsOfMistakes) {
        clearStory();
        run(seed);
    }
    unsigned int const disks = kUsualDisks * modelRounds();
    for (unsigned int i = 0; i < disks && !HasFailure(); ++i) {
        clearStory();
        run(kFirstSeed + i);
    }
    EXPECT_GT(m_counts.skippedBytes, 0U);
    std::printf("%u disks, %d grains, %d lost, %d listed without need\n", disks, m_counts.grains,
                m_counts.lost, m_counts.listedSound);
    EXPECT_GT(m_counts.lost, 0);
    // The list is of use only as long as it names little else than what was damaged.
    EXPECT_LT(m_counts.listedSound, m_counts.grains / 50);
}

} // namespace
} // namespace salvage_model_test
} // namespace test_support
