#include "host/backups/password_change.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "host/disk/descriptor_checksum.h"
#include "host/store/file_names.h"
#include "tests/support/ending_steps.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace password_change_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::ChainPasswords;
using kelm::host::changePassword;
using kelm::host::DerivedKeys;
using kelm::host::deriveKeysOfChain;
using kelm::host::getChecksumState;
using kelm::host::PasswordChange;
using testing::ElementsAre;

constexpr int kRounds = 1000;

/// A chain of three disks, "full.vmdk", "day.vmdk" and "leaf.vmdk", each with a grain of its own.
class PasswordChangeTest : public ::testing::Test {
protected:
    PasswordChangeTest() { files = yx::makeObject<yx::CNativeFileSystem>(); }

    yx::CURI uri(std::string const& name) const {
        return kelm::host::uriFromArgument((folder.path() / name).string());
    }

    void make(std::string const& name, std::string const& parent, int grain, DiskKind const& kind) {
        NewDisk request = requestFor(kind);
        if (!request.password.isEmpty())
            request.keyDerivation = kelm::host::drawKeyDerivation(kRounds);
        if (!parent.empty())
            request.parent = uri(parent);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        auto const disk = SafeDisk::create(guard.get(), uri(name), request);
        writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
    }

    void makeChain(DiskKind const& kind) {
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        make("full.vmdk", "", 0, kind);
        make("day.vmdk", "full.vmdk", 1, kind);
        make("leaf.vmdk", "day.vmdk", 2, kind);
    }

    static Bytes contentOf(int grain) {
        return pattern(kGrainBytes, static_cast<unsigned int>(grain) + 1);
    }

    /// Reads the whole chain through its last disk.
    void expectIsReadable(ChainPasswords const& passwords, std::string const& leaf = "leaf.vmdk",
                          int grains = 3) {
        DerivedKeys keys;
        deriveKeysOfChain(files.get(), uri(leaf), passwords, keys, 2);
        SafeDisk disk(files.get(), uri(leaf), kReadOnly, passwords.ofDisk);
        EXPECT_EQ(kelm::host::ChecksumState::Valid,
                  getChecksumState(*disk.getDisk().getDescriptor(), uri(leaf)));
        for (int grain = 0; grain < grains; ++grain)
            EXPECT_TRUE(readGrain(disk, grain) == contentOf(grain)) << leaf << " " << grain;
    }

    bool opens(std::string const& name, yx::String const& password) {
        try {
            SafeDisk const disk(files.get(), uri(name), kReadOnly, password);
            return true;
        } catch (yx::CError const& error) {
            EXPECT_EQ("Specified VMDK encryption password is not correct.",
                      error.getMessage().toStdString());
            return false;
        }
    }

    std::vector<yx::CURI> change(std::string const& name, ChainPasswords const& before,
                                 char const* after, bool withParents) {
        PasswordChange wanted;
        wanted.before = before;
        wanted.after = after;
        wanted.derivation = kelm::host::drawKeyDerivation(kRounds + 1);
        wanted.withParents = withParents;
        return changePassword(files.get(), steps, uri(name), wanted);
    }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            found.push_back(entry.path().filename().string());
        std::sort(found.begin(), found.end());
        return found;
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files;
    EndingSteps steps;
};

std::vector<DiskKind> encryptedKinds() {
    std::vector<DiskKind> kinds = allDiskKinds();
    std::erase_if(kinds, [](DiskKind const& kind) { return *kind.password == 0; });
    return kinds;
}

TEST_F(PasswordChangeTest, EveryKindOpensByTheNewPasswordAndNoMoreByTheOld) {
    for (DiskKind const& kind : encryptedKinds()) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        EXPECT_THAT(change("leaf.vmdk", {"secret", ""}, "new", false),
                    ElementsAre(uri("leaf.vmdk")));
        EXPECT_TRUE(opens("leaf.vmdk", "new"));
        EXPECT_FALSE(opens("leaf.vmdk", "secret"));
        EXPECT_TRUE(opens("day.vmdk", "secret"));
        expectIsReadable({"new", "secret"});
        EXPECT_THAT(change("leaf.vmdk", {"new", "secret"}, "newer", true),
                    ElementsAre(uri("leaf.vmdk"), uri("day.vmdk"), uri("full.vmdk")));
        expectIsReadable({"newer", ""});
        EXPECT_FALSE(opens("day.vmdk", "secret"));
        SafeDisk const disk(files.get(), uri("leaf.vmdk"), kReadWrite, "newer");
    }
}

TEST_F(PasswordChangeTest, ParentsWithoutEncryptionArePassedOver) {
    make("full.vmdk", "", 0, {});
    make("day.vmdk", "full.vmdk", 1, kindNamed("encrypted"));
    EXPECT_THAT(change("day.vmdk", {"secret", ""}, "new", true), ElementsAre(uri("day.vmdk")));
    expectIsReadable({"new", ""}, "day.vmdk", 2);
}

TEST_F(PasswordChangeTest, GoesOnFromWhereverItEnded) {
    for (DiskKind const& kind : {kindNamed("encrypted"), kindNamed("encryptedCompressedSplit")}) {
        SCOPED_TRACE(kind.name);
        for (int done = 0;; ++done) {
            SCOPED_TRACE(done);
            makeChain(kind);
            steps.left = done;
            bool hasEnded = false;
            try {
                change("leaf.vmdk", {"secret", ""}, "new", true);
            } catch (yx::CIOError const& error) {
                EXPECT_EQ("Ended.", error.getMessage().toStdString());
                hasEnded = true;
            }
            steps.left = 1 << 30;
            for (char const* const name : {"leaf.vmdk", "day.vmdk", "full.vmdk"})
                EXPECT_NE(opens(name, "secret"), opens(name, "new")) << name;
            char const* const first = opens("leaf.vmdk", "new") ? "new" : "secret";
            char const* const other = *first == 'n' ? "secret" : "new";
            DerivedKeys keys;
            deriveKeysOfChain(files.get(), uri("leaf.vmdk"), {first, other}, keys, 2);
            SafeDisk disk(files.get(), uri("leaf.vmdk"), kReadOnly, first);
            for (int grain = 0; grain < 3; ++grain)
                EXPECT_TRUE(readGrain(disk, grain) == contentOf(grain)) << grain;
            if (!hasEnded)
                break;
        }
        makeChain(kind);
        for (int done = 0; done < 3; ++done) {
            steps.left = done;
            EXPECT_THROW(change("leaf.vmdk", {"secret", ""}, "new", true), yx::CIOError);
        }
        steps.left = 1 << 30;
        change("leaf.vmdk", {"secret", ""}, "new", true);
        expectIsReadable({"new", ""});
        std::vector<std::string> const found = names();
        for (std::string const& name : found)
            EXPECT_EQ(".vmdk", fs::path(name).extension()) << name;
    }
}

TEST_F(PasswordChangeTest, RefusesBeforeAnythingIsChanged) {
    makeChain(kindNamed("encrypted"));
    change("day.vmdk", {"secret", ""}, "middle", false);
    EXPECT_TRUE(throwsError("Specified VMDK encryption password is not correct.",
                            {{"uri", uri("day.vmdk").toString(true).toStdString()}}, [&] {
                                change("leaf.vmdk", {"secret", ""}, "new", true);
                            }));
    EXPECT_TRUE(opens("leaf.vmdk", "secret"));
    {
        SafeDisk const user(files.get(), uri("leaf.vmdk"), kReadOnly, "secret");
        EXPECT_THROW(change("leaf.vmdk", {"secret", ""}, "new", false), yx::CLockFileError);
    }
    EXPECT_TRUE(opens("leaf.vmdk", "secret"));
    make("plain.vmdk", "", 0, {});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The disk is not encrypted.",
                              {{"uri", uri("plain.vmdk").toString(true).toStdString()}}, [&] {
                                  change("plain.vmdk", {"secret", ""}, "new", false);
                              }));
}

TEST_F(PasswordChangeTest, RenamedDiskKeepsItsCheckedDescriptor) {
    make("full.vmdk", "", 0, kindNamed("encrypted"));
    fs::rename(folder.path() / "full.vmdk", folder.path() / "quite another and longer name.vmdk");
    change("quite another and longer name.vmdk", {"secret", ""}, "new", false);
    expectIsReadable({"new", ""}, "quite another and longer name.vmdk", 1);
}

} // namespace
} // namespace password_change_test
} // namespace test_support
