#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "host/check/disk_check.h"
#include "host/digest/disk_digests.h"
#include "tests/host/digest/digest_fixture.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"

using kelm::host::checkDisk;
using kelm::host::DigestMaking;

namespace test_support {
namespace digest_damage_test {
namespace {

constexpr unsigned int kSeed = 20310504;
constexpr std::size_t kSectorBytes = 512;

using Files = std::map<std::string, Bytes>;
using Grains = std::set<__int64>;

/// A finding that names bytes of the disk.
struct Named {
    std::string text;
    __int64 firstGrain = 0;
    __int64 lastGrain = 0;
};

/// Damages the files of a disk with digests, one way after the other, and compares what a check
/// names with what has really changed.
class DigestDamage : public HostTest {
protected:
    void makeDigests(char const* password) {
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, password);
        DigestMaking(files.get(), *disk).finish(disk->getSizeBytes(), {});
    }

    /// A disk with some grains, an older state of its files, and digests of the new one.
    void makeDisk(DiskKind const& kind) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind);
            writeTo(*disk, 0, mixedContent(1200000, 1));
            writeTo(*disk, 60 * kGrainBytes, mixedContent(400000, 9));
        }
        m_older = snapshot();
        {
            std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, kind.password);
            for (int const grain : {0, 4, 61, 62})
                writeGrain(*disk, grain,
                           pattern(kGrainBytes, 1000U + static_cast<unsigned>(grain)));
        }
        makeDigests(kind.password);
        m_sound = snapshot();
        m_password = kind.password;
        m_content = *readAll();
    }

    Files snapshot() {
        Files content;
        for (yx::CURI const& file : files->listFiles()) {
            std::string const name = file.getName().toStdString();
            if (name.ends_with(".vmdk"))
                content[name] = toBytes(files->getFile(file));
        }
        return content;
    }

    void put(Files const& content) {
        for (auto const& entry : content)
            files->putFile(uriOf(entry.first), toBuffer(entry.second));
    }

    /// Every grain as it reads; none where that fails. Nothing if the disk cannot be opened.
    std::optional<std::vector<std::optional<Bytes>>> readAll() {
        std::unique_ptr<SafeDisk> disk;
        try {
            disk = openSafe("disk.vmdk", kReadOnly, m_password);
        } catch (yx::CError const&) {
            return std::nullopt;
        }
        std::vector<std::optional<Bytes>> grains;
        for (int grain = 0; grain < disk->getGrainCount(); ++grain) {
            try {
                grains.emplace_back(readGrain(*disk, grain));
            } catch (yx::CError const&) {
                grains.emplace_back(std::nullopt);
            }
        }
        return grains;
    }

    std::string anyFile() {
        auto file = m_sound.begin();
        std::advance(file, static_cast<std::ptrdiff_t>(m_random() % m_sound.size()));
        return file->first;
    }

    std::size_t anyOffset(Bytes const& file, std::size_t unit) {
        return file.size() < unit ? 0 : m_random() % (file.size() / unit) * unit;
    }

    // The four ways. Each returns the files as they then are.

    Files flipBit() {
        Files damaged = m_sound;
        Bytes& file = damaged[anyFile()];
        file[m_random() % file.size()] ^= static_cast<unsigned char>(1U << (m_random() % 8));
        return damaged;
    }

    Files overwriteSector() {
        Files damaged = m_sound;
        Bytes& file = damaged[anyFile()];
        std::size_t const at = anyOffset(file, kSectorBytes);
        for (std::size_t i = at; i < std::min(at + kSectorBytes, file.size()); ++i)
            file[i] = static_cast<unsigned char>(m_random());
        return damaged;
    }

    /// Swaps two pieces of a file, often whole grains of a plain disk.
    Files swapPieces() {
        Files damaged = m_sound;
        Bytes& file = damaged[anyFile()];
        std::size_t const unit = m_random() % 2 == 0 ? kSectorBytes : std::size_t{kGrainBytes};
        std::size_t const first = anyOffset(file, kSectorBytes);
        std::size_t const second = anyOffset(file, kSectorBytes);
        std::size_t const bytes = std::min({unit, file.size() - first, file.size() - second,
                                            first > second ? first - second : second - first});
        std::swap_ranges(file.begin() + static_cast<std::ptrdiff_t>(first),
                         file.begin() + static_cast<std::ptrdiff_t>(first + bytes),
                         file.begin() + static_cast<std::ptrdiff_t>(second));
        return damaged;
    }

    /// Puts back a file of the older state, or a piece of one, but never what says which state that
    /// is: then the digests would be out of date.
    Files rollBack() {
        Files damaged = m_sound;
        std::string const name = anyFile();
        Bytes& file = damaged[name];
        if (m_older.count(name) == 0)
            return damaged;
        Bytes const& older = m_older[name];
        std::size_t at = anyOffset(file, kGrainBytes);
        std::size_t bytes = std::min(file.size() - at, std::size_t{kGrainBytes} * 3);
        if (name != "disk.vmdk" && m_random() % 2 == 0) {
            at = 0;
            bytes = file.size();
        } else if (name == "disk.vmdk") {
            // The descriptor lies in the first 64 KiB.
            at = std::max(at, std::size_t{kGrainBytes});
        }
        for (std::size_t i = at; i < std::min({at + bytes, file.size(), older.size()}); ++i)
            file[i] = older[i];
        return damaged;
    }

    /// The findings; that the disk cannot be checked at all, such as for a damaged key, is one.
    std::vector<std::string> check() {
        std::vector<std::string> findings;
        try {
            checkDisk(
                files.get(), uriOf("disk.vmdk"), m_password, {},
                [&](yx::CURI const&, std::string const& text) { findings.push_back(text); }, {},
                kelm::host::CheckScope());
        } catch (yx::CError const& error) {
            findings.push_back("the check has ended: " + error.getMessage().toStdString());
        }
        return findings;
    }

    static std::vector<Named> namedIn(std::vector<std::string> const& findings) {
        std::vector<Named> all;
        for (std::string const& text : findings) {
            std::size_t const at = text.rfind(" (bytes: ");
            if (at == std::string::npos)
                continue;
            Named named{text};
            char dash = 0;
            std::istringstream numbers(text.substr(at + 9));
            numbers >> named.firstGrain >> dash >> named.lastGrain;
            EXPECT_EQ(dash, '-') << text;
            named.firstGrain /= kGrainBytes;
            named.lastGrain /= kGrainBytes;
            all.push_back(named);
        }
        return all;
    }

    static bool isAboutContent(std::string const& text) {
        return text.find("differs from its digest") != std::string::npos ||
               text.find("has a digest, but") != std::string::npos ||
               text.find("has no digest") != std::string::npos;
    }

    /// What the check says of the damaged files.
    void verifyFindings() {
        std::vector<std::string> const findings = check();
        std::string all;
        for (std::string const& text : findings)
            all += text + "\n";
        std::vector<Named> const named = namedIn(findings);
        auto const content = readAll();
        if (!content || content->size() != m_content.size()) {
            EXPECT_FALSE(findings.empty()) << "a disk that cannot be opened";
            return;
        }
        Grains changed;
        for (std::size_t grain = 0; grain < content->size(); ++grain) {
            if ((*content)[grain] != m_content[grain])
                changed.insert(static_cast<__int64>(grain));
        }
        m_changedGrains += changed.size();
        for (__int64 const grain : changed) {
            EXPECT_TRUE(std::any_of(named.begin(), named.end(),
                                    [grain](Named const& each) {
                                        return each.firstGrain <= grain && grain <= each.lastGrain;
                                    }))
                << "grain " << grain << " is not named:\n"
                << all;
        }
        for (Named const& each : named) {
            if (!isAboutContent(each.text))
                continue;
            for (__int64 grain = each.firstGrain; grain <= each.lastGrain; ++grain)
                EXPECT_TRUE(changed.count(grain) == 1 || isOnlyHeldDifferently(each.text, grain))
                    << "grain " << grain << " is invented:\n"
                    << all;
        }
    }

    /// A grain of zeros that is lost, or that came from nowhere, reads as before.
    bool isOnlyHeldDifferently(std::string const& text, __int64 grain) const {
        std::optional<Bytes> const& content = m_content[static_cast<std::size_t>(grain)];
        return text.find("differs from its digest") == std::string::npos && content &&
               yx::isAllZero(content->data(), content->size());
    }

    Files m_sound;
    Files m_older;
    std::vector<std::optional<Bytes>> m_content;
    char const* m_password = "";
    std::mt19937 m_random{kSeed};
    std::size_t m_changedGrains = 0;
};

TEST_F(DigestDamage, EveryChangeOfContentIsNamedAndNoneIsInvented) {
    constexpr unsigned int kRoundsOfAKind = 8;
    LogCapture const quiet;
    for (DiskKind const& kind : allDiskKinds()) {
        makeDisk(kind);
        EXPECT_EQ(check(), std::vector<std::string>()) << kind.name;
        for (unsigned int round = 0; round < kRoundsOfAKind * modelRounds(); ++round) {
            SCOPED_TRACE(std::string(kind.name) + ", round " + std::to_string(round) + ", seed " +
                         std::to_string(kSeed));
            Files const damaged = round % 4 == 0   ? flipBit()
                                  : round % 4 == 1 ? overwriteSector()
                                  : round % 4 == 2 ? swapPieces()
                                                   : rollBack();
            put(damaged);
            verifyFindings();
            put(m_sound);
            if (HasFailure())
                return;
        }
    }
    EXPECT_GT(m_changedGrains, 0U);
}

TEST_F(DigestDamage, TwoGrainsOfAnEncryptedDiskThatChangedPlacesAreNamed) {
    makeDisk(kindNamed("encrypted"));
    put(m_sound);
    Bytes& file = m_sound["disk.vmdk"];
    // The last two grains of the file.
    auto const second = file.end() - kGrainBytes;
    std::swap_ranges(second - kGrainBytes, second, second);
    put(m_sound);
    verifyFindings();
    EXPECT_EQ(m_changedGrains, 2U);
}

TEST_F(DigestDamage, DigestsThatFitOtherContentNeedTheKey) {
    makeDisk(kindNamed("encrypted"));
    // Whoever has no key makes plain digests, or takes those of another disk of that content.
    Bytes const sound = toBytes(files->getFile(uriOf("disk.vmdk.digests")));
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, m_password);
        kelm::host::DigestFileWriter writer(files.get(), uriOf("disk.vmdk.digests"), {});
        kelm::host::DigestHeader header;
        header.diskSizeBytes = disk->getSizeBytes();
        header.imageSizeBytes = disk->getSizeBytes();
        header.grainSizeBytes = kGrainBytes;
        header.contentID = disk->getDisk().getDescriptor()->getContentID();
        writer.finish(header);
    }
    EXPECT_EQ(check(), std::vector<std::string>{
                           "the digests cannot be used: Invalid algorithm in digest file: 1"});
    Bytes changed = sound;
    changed[36] ^= 1; // the content ID
    files->putFile(uriOf("disk.vmdk.digests"), toBuffer(changed));
    EXPECT_EQ(check(), std::vector<std::string>{
                           "the digests cannot be used: The digest file does not fit its root: it "
                           "was damaged or changed."});
    changed = sound;
    changed[512 + 2048 + 3] ^= 1; // a digest
    files->putFile(uriOf("disk.vmdk.digests"), toBuffer(changed));
    EXPECT_EQ(check(), std::vector<std::string>{
                           "the digests cannot be used: The section 0 of the digest file does not "
                           "fit its digest: it was damaged or changed."});
}

} // namespace
} // namespace digest_damage_test
} // namespace test_support
