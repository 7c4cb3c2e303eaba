#include "host/backups/disk_drop.h"

#include <filesystem>
#include <fstream>
#include <map>

#include <gmock/gmock.h>

#include "host/disk/parent_link.h"
#include "host/store/file_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/safe_disks.h"
#include "tests/support/sanitized.h"
#include "tests/support/temp_directory.h"
#include "yx/lock_file.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_drop_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::DiskDrop;
using kelm::host::DiskDropOptions;
using kelm::host::DiskDropResult;
using kelm::host::DurableFiles;
using testing::ElementsAre;
using Kind = FileOperation::Kind;

constexpr int kGrains = static_cast<int>(kSmallestDiskBytes / kGrainBytes);

/// Steps of which some are done, and the rest never.
class LimitedSteps : public DurableFiles {
public:
    int left = 1 << 30;

    /// Whether a patch that is not done is done for every second sector.
    bool tears = false;

    void make(yx::CURI const& file, std::vector<unsigned char> const& bytes,
              yx::CURI const& like) override {
        take();
        DurableFiles::make(file, bytes, like);
    }
    void replace(yx::CURI const& file, std::vector<unsigned char> const& bytes) override {
        take();
        DurableFiles::replace(file, bytes);
    }
    void patch(yx::CURI const& file, __int64 positionBytes,
               std::vector<unsigned char> const& bytes) override {
        constexpr std::size_t kSector = 512;
        for (std::size_t at = 0; left == 0 && tears && at < bytes.size(); at += 2 * kSector)
            DurableFiles::patch(file, positionBytes + static_cast<__int64>(at),
                                slice(bytes, at, kSector));
        take();
        DurableFiles::patch(file, positionBytes, bytes);
    }
    void remove(yx::CURI const& file) override {
        take();
        DurableFiles::remove(file);
    }

private:
    void take() {
        if (left == 0)
            throw yx::CIOError(yx::CIOError::IOFailure, "Ended.", yx::CProps(), nullptr);
        --left;
    }
};

/// The kinds of the disks of a chain, the oldest first.
struct ChainKinds {
    char const* name;
    std::vector<std::string> kinds;
};

void PrintTo(ChainKinds const& chain, std::ostream* stream) {
    *stream << chain.name;
}

/// "full.vmdk", its child "mon.vmdk", the children of that, "tue.vmdk" and "days/alt.vmdk", and
/// "wed.vmdk", the child of the former. Each holds data of its own, copies, and zeros over data.
class DiskDropTest : public ::testing::TestWithParam<ChainKinds> {
protected:
    struct Disk {
        std::string name;
        std::string parent;
        std::map<int, Bytes> grains;
    };

    DiskDropTest() {
        fs::create_directory(path("days"));
        Bytes const none = zeros(kGrainBytes);
        std::map<int, Bytes> first;
        for (int grain = 0; grain < 10; ++grain)
            first[grain] = textPattern(kGrainBytes, static_cast<unsigned int>(grain));
        first[kGrains - 1] = pattern(kGrainBytes, 99);
        make({"full.vmdk", "", first});
        make({"mon.vmdk",
              "full.vmdk",
              {{0, data(10)}, {1, none}, {2, data(12)}, {20, data(13)}, {40, data(14)}}});
        make({"tue.vmdk", "mon.vmdk", {{2, data(22)}, {3, none}, {21, data(23)}}});
        make({"wed.vmdk", "tue.vmdk", {{4, data(34)}, {20, data(35)}, {60, data(36)}}});
        make({"days/alt.vmdk", "mon.vmdk", {{5, data(45)}, {0, none}, {40, none}}});
        fs::copy(folder.path(), spare.path() / "all", fs::copy_options::recursive);
    }

    static Bytes data(unsigned int seed) {
        return seed % 2 == 0 ? textPattern(kGrainBytes, seed) : pattern(kGrainBytes, seed);
    }

    void make(Disk const& disk) {
        std::size_t const level = m_contents.size();
        std::vector<std::string> const& kinds = GetParam().kinds;
        DiskKind const kind = kindNamed(kinds[std::min(level, kinds.size() - 1)]);
        NewDisk request = requestFor(kind);
        Bytes content = zeros(kSmallestDiskBytes);
        if (!disk.parent.empty()) {
            request.parent = uri(disk.parent);
            content = m_contents[disk.parent];
        }
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        std::unique_ptr<SafeDisk> const made =
            SafeDisk::create(guard.get(), uri(disk.name), request);
        for (auto const& [grain, bytes] : disk.grains) {
            writeGrain(*made, grain, bytes);
            std::copy(bytes.begin(), bytes.end(), content.begin() + grain * kGrainBytes);
        }
        made->markComplete();
        m_contents[disk.name] = content;
    }

    void restore() const {
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        fs::copy(spare.path() / "all", folder.path(), fs::copy_options::recursive);
    }

    DiskDropResult drop(std::string const& name, bool verify = false,
                        yx::IFileSystem* through = nullptr) {
        DiskDropOptions options;
        options.lookIn = {uri("")};
        options.password = "secret";
        options.verify = verify;
        options.work.threads = 2;
        return DiskDrop(through ? through : files.get(), steps, uri(name), options).run();
    }

    /// All disks whose main files are there read as they did.
    void expectReadAsBefore(std::vector<std::string> const& gone) {
        for (auto const& [name, content] : m_contents) {
            if (std::find(gone.begin(), gone.end(), name) != gone.end()) {
                EXPECT_FALSE(fs::exists(path(name))) << name;
                continue;
            }
            SafeDisk disk(files.get(), uri(name), kReadOnly, "secret");
            Bytes bytes(content.size());
            disk.read(0, bytes.data(), static_cast<int>(bytes.size()));
            EXPECT_TRUE(bytes == content) << name;
        }
    }

    /// The same at any moment: the one that goes may be gone or not.
    void expectOthersReadAsBefore(std::string const& going) {
        if (fs::exists(path(going)))
            expectReadAsBefore({});
        else
            expectReadAsBefore({going});
    }

    /// That puts right what a write left that was torn.
    void openForWriting(std::vector<std::string> const& names) {
        for (std::string const& name : names)
            SafeDisk(files.get(), uri(name), kReadWrite, "secret");
    }

    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder.path())) {
            if (entry.is_regular_file())
                found.push_back(fs::relative(entry.path(), folder.path()).string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    /// Whose files are there: nothing that explains itself by nothing.
    void expectNoStrayFiles(std::string const& gone) {
        std::string const stem = gone.substr(0, gone.size() - 5);
        for (std::string const& name : names()) {
            EXPECT_NE(0U, name.find(stem)) << name;
            EXPECT_TRUE(name.ends_with(".vmdk")) << name;
        }
    }

    TempDirectory folder;
    TempDirectory spare;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
    LimitedSteps steps;
    std::map<std::string, Bytes> m_contents;
};

TEST_P(DiskDropTest, OfAMiddleLinkKeepsAllOthers) {
    DiskDropResult const result = drop("mon.vmdk");
    EXPECT_THAT(result.children, ElementsAre(uri("days/alt.vmdk"), uri("tue.vmdk")));
    ASSERT_FALSE(result.files.empty());
    EXPECT_EQ(uri("mon.vmdk"), result.files.front());
    expectReadAsBefore({"mon.vmdk"});
    expectNoStrayFiles("mon.vmdk");
    for (char const* const child : {"tue.vmdk", "days/alt.vmdk"}) {
        SafeDisk disk(files.get(), uri(child), kReadOnly, "secret");
        EXPECT_EQ(uri("full.vmdk"), disk.getDisk().getParentDiskMainURI().toNormalized()) << child;
    }
}

TEST_P(DiskDropTest, OfTheFirstLinkMakesItsChildrenIndependent) {
    drop("full.vmdk", true);
    expectReadAsBefore({"full.vmdk"});
    expectNoStrayFiles("full.vmdk");
    EXPECT_FALSE(SafeDisk(files.get(), uri("mon.vmdk"), kReadOnly, "secret").hasParent());
}

TEST_P(DiskDropTest, OfTheLastLinkIsItsDeletion) {
    DiskDropResult const result = drop("wed.vmdk");
    EXPECT_THAT(result.children, ElementsAre());
    expectReadAsBefore({"wed.vmdk"});
    expectNoStrayFiles("wed.vmdk");
}

TEST_P(DiskDropTest, OfEachLinkInTurnLeavesTheRest) {
    std::vector<std::string> gone;
    for (char const* const name : {"tue.vmdk", "full.vmdk", "mon.vmdk", "days/alt.vmdk"}) {
        drop(name, true);
        gone.emplace_back(name);
        expectReadAsBefore(gone);
    }
}

TEST_P(DiskDropTest, EndedAtEveryStepGoesOn) {
    for (char const* const name : {"mon.vmdk", "full.vmdk"}) {
        restore();
        steps.left = 1 << 30;
        drop(name);
        int const count = (1 << 30) - steps.left;
        EXPECT_GE(count, 2);
        for (int left = 0; left < count; left += kIsSanitized ? 3 : 1) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(left));
            restore();
            steps.left = left;
            EXPECT_THROW(drop(name), yx::CIOError);
            expectOthersReadAsBefore(name);
            steps.left = 1 << 30;
            // A disk of one file has no note, so that it is gone before the last step.
            if (fs::exists(path(name)) || fs::exists(path(std::string(name) + ".deleting")))
                drop(name);
            expectReadAsBefore({name});
            expectNoStrayFiles(name);
        }
    }
}

/// Gives "full.vmdk" a far longer name than "mon.vmdk" has, so that lines move.
class DiskDropToLongNameTest : public DiskDropTest {
protected:
    DiskDropToLongNameTest() {
        m_contents.erase("full.vmdk");
        restoreWithLongName();
    }

    void restoreWithLongName() {
        restore();
        std::string const name(120, 'n');
        fs::create_directory(path(name));
        for (std::string const& file : names()) {
            if (file.starts_with("full"))
                fs::rename(path(file), path(name + "/" + file));
        }
        SafeDisk mon(files.get(), uri("mon.vmdk"), kReadWrite, "secret");
        SafeDisk full(files.get(), uri(name + "/full.vmdk"), kReadOnly, "secret");
        repointToParent(mon, full, kelm::host::ParentCheck::Content);
    }
};

TEST_P(DiskDropToLongNameTest, MendsADescriptorThatWasTorn) {
    int torn = 0;
    bool isDone = false;
    for (int left = 0; !isDone; ++left) {
        SCOPED_TRACE(left);
        restoreWithLongName();
        steps.left = left;
        steps.tears = true;
        try {
            drop("mon.vmdk");
            isDone = true;
        } catch (yx::CIOError const&) {
            torn += fs::exists(path("tue.vmdk.kelm-descriptor")) ? 1 : 0;
        }
        steps.left = 1 << 30;
        if (fs::exists(path("mon.vmdk")) || fs::exists(path("mon.vmdk.deleting")))
            drop("mon.vmdk");
        expectReadAsBefore({"mon.vmdk"});
        for (std::string const& file : names())
            EXPECT_FALSE(file.ends_with(".kelm-descriptor")) << file;
    }
    bool const isEmbedded = kelm::host::readDescriptorFile(files.get(), uri("tue.vmdk")).isEmbedded;
    EXPECT_EQ(isEmbedded, torn > 0);
}

TEST_P(DiskDropTest, EndedAtEveryWriteGoesOn) {
    FileOperationKinds const changes{Kind::Write, Kind::SetLength, Kind::Flush};
    restore();
    auto const counted = yx::makeObject<FaultyFileSystem>(files.get());
    drop("mon.vmdk", false, counted.get());
    int const count = counted->count(changes);
    EXPECT_GE(count, 10);
    // Every one of the first, which are those of the first child, and then some.
    int const first = kIsSanitized ? 1 : 24;
    for (int nth = 1; nth <= count; nth += nth < first ? 1 : kIsSanitized ? 11 : 5) {
        SCOPED_TRACE(nth);
        restore();
        {
            auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            faulty->add({.kinds = changes,
                         .nth = nth,
                         .sticky = true,
                         .effect = nth % 2 == 0 ? Fault::Effect::Tear : Fault::Effect::Refuse});
            IgnoredExceptionCapture const ignored;
            try {
                drop("mon.vmdk", false, faulty.get());
            } catch (yx::CError const&) {
                EXPECT_TRUE(fs::exists(path("mon.vmdk")));
            }
        }
        openForWriting({"tue.vmdk", "days/alt.vmdk"});
        expectOthersReadAsBefore("mon.vmdk");
        if (fs::exists(path("mon.vmdk")))
            drop("mon.vmdk", true);
        expectReadAsBefore({"mon.vmdk"});
    }
}

TEST_P(DiskDropTest, TakesTheNextAttemptNoMoreSpaceThanTheFirst) {
    drop("mon.vmdk");
    std::uintmax_t const bytes = fs::file_size(path("tue.vmdk"));
    restore();
    steps.left = 0;
    EXPECT_THROW(drop("mon.vmdk"), yx::CIOError);
    steps.left = 1 << 30;
    drop("mon.vmdk");
    EXPECT_EQ(bytes, fs::file_size(path("tue.vmdk")));
}

TEST_P(DiskDropTest, RefusesAChildOfAnotherContent) {
    {
        SafeDisk disk(files.get(), uri("mon.vmdk"), kReadWrite, "secret");
        writeGrain(disk, 7, data(77));
        disk.flush();
    }
    std::vector<std::string> const before = names();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The child was made of another content of its parent.",
                              {{"uri", uri("days/alt.vmdk").toString(true).toStdString()},
                               {"parentURI", uri("mon.vmdk").toString(true).toStdString()}},
                              [&] { drop("mon.vmdk"); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The child was made of another content of its parent.",
                              {{"uri", uri("tue.vmdk").toString(true).toStdString()},
                               {"parentURI", uri("mon.vmdk").toString(true).toStdString()}},
                              [&] { drop("tue.vmdk"); }));
    EXPECT_EQ(before, names());
}

TEST_P(DiskDropTest, RefusesWhileOneOfThemIsInUse) {
    for (char const* const name : {"tue.vmdk", "wed.vmdk"}) {
        SafeDisk const user(files.get(), uri(name), kReadOnly, "secret");
        if (std::string(name) == "wed.vmdk") {
            // Whoever reads a disk has its parents open once they are needed.
            Bytes bytes(kGrainBytes);
            const_cast<SafeDisk&>(user).read(7 * kGrainBytes, bytes.data(),
                                             static_cast<int>(kGrainBytes));
        }
        EXPECT_THROW(drop("mon.vmdk"), yx::CLockFileError) << name;
        EXPECT_TRUE(fs::exists(path("mon.vmdk")));
    }
    expectReadAsBefore({});
}

std::vector<ChainKinds> allChainKinds() {
    return {{"Plain", {"plain"}},
            {"Compressed", {"compressed"}},
            {"Split", {"split"}},
            {"EncryptedCompressed", {"encryptedCompressed"}},
            {"Mixed",
             {"compressedSplit", "splitOnDemand", "encryptedCompressed", "encrypted",
              "encryptedCompressedSplit"}}};
}

std::string nameOfChain(::testing::TestParamInfo<ChainKinds> const& chain) {
    return chain.param.name;
}

INSTANTIATE_TEST_SUITE_P(Chains, DiskDropTest, ::testing::ValuesIn(allChainKinds()), nameOfChain);
INSTANTIATE_TEST_SUITE_P(Chains, DiskDropToLongNameTest, ::testing::ValuesIn(allChainKinds()),
                         nameOfChain);

} // namespace
} // namespace disk_drop_test
} // namespace test_support
