// A disk that is replaced by `kelm import --force`, and whose power is cut meanwhile: one whole
// disk is there, the old one or the new one.

#include <cstdlib>
#include <fstream>

#include "host/digest/digest_keys.h"
#include "host/digest/disk_digests.h"
#include "host/disk/digest_file_name.h"
#include "host/store/kept_files.h"
#include "tests/support/folder_cut.h"
#include "tests/support/log_capture.h"
#include "tests/support/running_program.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {

namespace replaced_disk_test {

namespace {

constexpr char kDisk[] = "disk.vmdk";
constexpr char kFormerDisk[] = "disk.vmdk.former/disk.vmdk";

/// Of so many states in which something is left over, the program is asked about one.
constexpr int kStatesOfWhichOneIsAsked = 8;

struct Replacement {
    char const* name;
    Arguments oldOptions;
    Arguments newOptions;
};

std::vector<Replacement> const kReplacements{
    {"PlainByPlain", {}, {}},
    {"SplitBySplit", {"--split", "3M"}, {"--split", "3M"}},
    {"SplitByCompressed", {"--split", "3M"}, {"--compressed"}},
    {"CompressedByOnDemand", {"--compressed"}, {"--split", "3M", "--on-demand"}},
};

/// What is in an image, and where: in the middle and on both ends, and zeros elsewhere.
struct Image {
    std::vector<int> grains;
    unsigned int seed;

    Bytes contentOf(int grain) const {
        return std::count(grains.begin(), grains.end(), grain) > 0
                   ? textPattern(kGrainBytes, seed + static_cast<unsigned int>(grain))
                   : zeros(kGrainBytes);
    }

    void write(std::filesystem::path const& file) const {
        std::ofstream stream(file, std::ios::binary);
        for (int grain = 0; grain < kSmallestDiskBytes / kGrainBytes; ++grain) {
            Bytes const content = contentOf(grain);
            stream.write(reinterpret_cast<char const*>(content.data()),
                         static_cast<std::streamsize>(content.size()));
        }
    }
};

Image const kOld{{0, 1, 50, 100}, 1000};
Image const kNew{{0, 5, 50, 127}, 2000};

/// All grains that hold something in one of the images.
constexpr int kGrains[] = {0, 1, 5, 50, 100, 127};

class ReplacedDisk : public testing::TestWithParam<Replacement> {
protected:
    void import(Image const& image, Arguments const& options,
                std::function<void()> const& prepare = {}) {
        image.write(m_aside.path() / "image");
        Outcome const outcome =
            RunningProgram(
                m_folder.path(),
                joined(
                    {{KELM_TOOL, "import", (m_aside.path() / "image").string(), kDisk}, options}),
                prepare)
                .finish();
        ASSERT_EQ(0, outcome.status) << outcome.err;
    }

    std::filesystem::path logFile() const { return m_aside.path() / "log"; }

    void replace() {
        import(kNew, joined({GetParam().newOptions, {"--force"}}), [this] {
            ::setenv("LD_PRELOAD", KELM_FILE_LOG_LIBRARY, 1);
        ::setenv("KELM_FILE_LOG", logFile().c_str(), 1);
        // The library comes before those that look for memory errors.
        ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    });
}

/// Digests that count as up to date are those of what is there.
static void
expectNoWrongDigests(yx::IFileSystem* native, SafeDisk& disk) {
    kelm::host::DiskDigests const digests = kelm::host::DiskDigests::open(native, disk);
    if (!digests.areUpToDate())
        return;
    kelm::host::GrainHasher hasher((kelm::host::DigestKeys(disk.getDisk())));
    for (int const grain : kGrains) {
        auto const digest = digests.file->find(grain);
        ASSERT_EQ(disk.isGrainWrittenHere(grain), digest.has_value()) << grain;
        Bytes const content = readGrain(disk, grain);
        if (digest) {
            EXPECT_EQ(hasher.hash(grain, content.data(), kGrainBytes, kGrainBytes), *digest);
        }
    }
}

/// Which of the images a disk holds; none if it cannot be read.
static Image const* imageIn(std::filesystem::path const& file, std::set<std::string>& files) {
    auto const native = yx::makeObject<yx::CNativeFileSystem>();
    bool isOld = true;
    bool isNew = true;
    try {
        SafeDisk disk(native.get(), toURI(file), kReadOnly, "", 1);
        for (int const grain : kGrains) {
            Bytes const content = readGrain(disk, grain);
            isOld = isOld && content == kOld.contentOf(grain);
            isNew = isNew && content == kNew.contentOf(grain);
        }
        for (yx::CURI const& each : disk.listFiles())
            files.insert(each.getName().toStdString());
        files.insert(kelm::host::digestFileOf(toURI(file)).getName().toStdString());
        expectNoWrongDigests(native.get(), disk);
    } catch (yx::CError const&) {
        return nullptr;
    }
    EXPECT_TRUE(isOld || isNew) << "the disk reads as neither of the two";
    return isNew ? &kNew : &kOld;
}

/// What the next command says of `disk.vmdk`.
static void expectNamesFormerDisk(std::filesystem::path const& folder) {
    Outcome const outcome = RunningProgram(folder, {KELM_TOOL, "info", kDisk}).finish();
    std::string const words = "kelm: warning: The disk that was to be replaced is still kept in '" +
                              (folder / kDisk).string() +
                              ".former'. Move its files back, or delete the folder.\n";
    EXPECT_NE(std::string::npos, outcome.err.find(words)) << outcome.err;
}

void checkState(FolderImage const& state) {
    TempDirectory const folder;
    putImage(folder.path(), state);
    std::set<std::string> files;
    Image const* const image = imageIn(folder.path() / kDisk, files);
    if (!image) {
        ++m_kept;
        std::set<std::string> formerFiles;
        EXPECT_EQ(&kOld, imageIn(folder.path() / kFormerDisk, formerFiles));
    } else {
        ++(image == &kNew ? m_new : m_old);
    }
    bool isAnythingLeft = !image;
    for (auto const& [path, content] : state) {
        if (files.count(path) == 0 && !path.ends_with(".lock"))
            isAnythingLeft = true;
    }
    if (!isAnythingLeft)
        return;
    EXPECT_FALSE(kelm::host::KeptFiles::findFoldersOf(toURI(folder.path() / kDisk)).empty())
        << "nothing names what is left over";
    if (m_left++ % kStatesOfWhichOneIsAsked == 0)
        expectNamesFormerDisk(folder.path());
}

TempDirectory m_folder;
TempDirectory m_aside;

// How many states were found with the old disk in its place, with it in the folder that keeps it,
// with the new one, and with anything beside the disk.
int m_old = 0;
int m_kept = 0;
int m_new = 0;
int m_left = 0;
}; // namespace

TEST_P(ReplacedDisk, IsThereOrItsSuccessorWhereverThePowerIsCut) {
    LogCapture const quiet;
    import(kOld, GetParam().oldOptions);
    FolderCut cut(m_folder.path());
    replace();
    cut.readLog(logFile());
    std::mt19937 random(17);
    while (cut.step()) {
        for (FolderCut::Loss const loss : FolderCut::kLosses) {
            FolderCut::State const state = cut.makeState(loss, random);
            if (!state.isNew)
                continue;
            SCOPED_TRACE("after operation " + std::to_string(cut.operations()) + ", loss " +
                         std::to_string(static_cast<int>(loss)));
            checkState(state.files);
            if (HasFailure())
                return;
        }
    }
    // Nothing that the program did is missing in the log.
    EXPECT_TRUE(imageOf(m_folder.path()) == cut.makeState(FolderCut::Loss::Nothing, random).files);
    EXPECT_GT(m_old, 0);
    EXPECT_GT(m_kept, 10);
    EXPECT_GT(m_new, 0);
}

INSTANTIATE_TEST_SUITE_P(Disks, ReplacedDisk, testing::ValuesIn(kReplacements),
                         [](auto const& replacement) {
                             return std::string(replacement.param.name);
                         });

} // namespace replaced_disk_test

} // namespace test_support

} // namespace test_support
