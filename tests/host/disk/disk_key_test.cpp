#include "host/disk/disk_key.h"

#include "host/disk/chain_keys.h"
#include "host/system/key_derivation.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"

namespace test_support {
namespace disk_key_test {
namespace {

using kelm::CVMDKDescriptor;
using kelm::host::ChainPasswords;
using kelm::host::DerivedKeys;
using kelm::host::KeyDerivationSettings;
using kelm::host::KeyDerivationWatch;
using kelm::host::TooManyRoundsError;

constexpr int kRounds = 1500;

class DiskKeyTest : public HostTest {
protected:
    static NewDisk requestWith(char const* password, yx::CURI const& parent = {}) {
        NewDisk request = requestFor({"", true});
        request.password = password;
        request.parent = parent;
        request.keyDerivation = kelm::host::drawKeyDerivation(kRounds);
        return request;
    }

    void make(std::string const& name, NewDisk const& request, int grain) {
        yx::P<FileGuard> const guard = makeGuard();
        guard->keep();
        std::unique_ptr<SafeDisk> const disk = SafeDisk::create(guard.get(), uriOf(name), request);
        writeGrain(*disk, grain, pattern(kGrainBytes, static_cast<unsigned int>(grain)));
        disk->flush();
    }

    /// Gives a disk that is closed another password, as by hand.
    void rewrap(std::string const& name, char const* before, char const* after) {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadWrite, before);
        CVMDKDescriptor& descriptor = *disk->getDisk().getDescriptor();
        kelm::host::wrapDiskKey(descriptor,
                                kelm::host::unwrapDiskKey(descriptor, uriOf(name), before), after,
                                kelm::host::drawKeyDerivation(kRounds));
        disk->storeDescriptor();
    }

    void deriveKeys(std::string const& name, ChainPasswords const& passwords, DerivedKeys& keys,
                    int threads = 2) {
        kelm::host::deriveKeysOfChain(files.get(), uriOf(name), passwords, keys, threads);
    }
};

TEST_F(DiskKeyTest, NewDiskHasTheRoundsThatWereAskedFor) {
    make("disk.vmdk", requestWith("secret"), 3);
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, "secret");
    CVMDKDescriptor const& descriptor = *disk->getDisk().getDescriptor();
    EXPECT_EQ("pkcs5-pbkdf2-hmac-sha1:1500", descriptor.getYxEncryptionKeyDerivationAlgorithm());
    EXPECT_EQ(kRounds, kelm::host::getKeyDerivation(descriptor).rounds);
    EXPECT_EQ(32, kelm::host::getKeyDerivation(descriptor).salt.getUsed());
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*disk, 3)));
}

TEST_F(DiskKeyTest, AnotherWrappingKeepsTheKeyAndTheData) {
    make("disk.vmdk", requestWith("secret"), 3);
    rewrap("disk.vmdk", "secret", "other");
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3),
                          readGrain(*openSafe("disk.vmdk", kReadOnly, "other"), 3)));
    EXPECT_TRUE(throwsError("Specified VMDK encryption password is not correct.",
                            {{"uri", "mem:///disks/disk.vmdk"}},
                            [&] { openSafe("disk.vmdk", kReadOnly, "secret"); }));
}

TEST_F(DiskKeyTest, WrongPasswordUnwrapsNothing) {
    make("disk.vmdk", requestWith("secret"), 3);
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, "secret");
    CVMDKDescriptor descriptor = *disk->getDisk().getDescriptor();
    auto const unwrap = [&](char const* password) {
        kelm::host::unwrapDiskKey(descriptor, uriOf("disk.vmdk"), password);
    };
    EXPECT_TRUE(throwsError("Specified VMDK encryption password is not correct.",
                            {{"uri", "mem:///disks/disk.vmdk"}}, [&] { unwrap("Secret"); }));
    descriptor.setYxEncryptionIV(yx::TBuffer<unsigned char>(15, -1));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "The encryption of the disk is damaged.",
                              {{"uri", "mem:///disks/disk.vmdk"}}, [&] { unwrap("secret"); }));
}

TEST_F(DiskKeyTest, ChainWithOneSaltIsDerivedOnce) {
    NewDisk request = requestWith("secret");
    make("parent.vmdk", request, 1);
    request.parent = uriOf("parent.vmdk");
    make("child.vmdk", request, 2);
    DerivedKeys keys;
    int derivations = 0;
    krym::setKeyDerivationHook([&](int) { ++derivations; });
    deriveKeys("child.vmdk", {"secret", ""}, keys);
    krym::setKeyDerivationHook({});
    EXPECT_EQ(1, derivations);
    std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly, "secret");
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*disk, 1)));
}

TEST_F(DiskKeyTest, ParentsOfAnotherPasswordOpenWithIt) {
    make("old.vmdk", requestWith("old"), 0);
    make("parent.vmdk", requestWith("old", uriOf("old.vmdk")), 1);
    make("child.vmdk", requestWith("old", uriOf("parent.vmdk")), 2);
    rewrap("child.vmdk", "old", "new");
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly, "new");
        EXPECT_TRUE(throwsError("Specified VMDK encryption password is not correct.",
                                {{"uri", "mem:///disks/parent.vmdk"}},
                                [&] { readGrain(*disk, 1); }));
    }
    for (int const threads : {1, 2, 8}) {
        DerivedKeys keys;
        deriveKeys("child.vmdk", {"new", "old"}, keys, threads);
        std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly, "new");
        for (int const grain : {0, 1, 2})
            EXPECT_TRUE(sameBytes(pattern(kGrainBytes, static_cast<unsigned int>(grain)),
                                  readGrain(*disk, grain)))
                << grain;
    }
    DerivedKeys keys;
    deriveKeys("child.vmdk", {"new", "neither"}, keys);
    std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly, "new");
    EXPECT_TRUE(throwsError("Specified VMDK encryption password is not correct.",
                            {{"uri", "mem:///disks/parent.vmdk"}}, [&] { readGrain(*disk, 1); }));
}

TEST_F(DiskKeyTest, WhatCannotBeReadIsLeftToTheOpening) {
    make("parent.vmdk", requestWith("old"), 1);
    make("child.vmdk", requestWith("old", uriOf("parent.vmdk")), 2);
    files->deleteFile(uriOf("parent.vmdk"), false);
    DerivedKeys keys;
    deriveKeys("child.vmdk", {"old", ""}, keys);
    deriveKeys("parent.vmdk", {"old", ""}, keys);
    putText("text.vmdk", "no disk");
    deriveKeys("text.vmdk", {"old", ""}, keys);
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 2),
                          readGrain(*openSafe("child.vmdk", kReadOnly, "old"), 2)));
}

TEST_F(DiskKeyTest, LimitOfRoundsHoldsOnEveryThread) {
    make("parent.vmdk", requestWith("old"), 1);
    make("child.vmdk", requestWith("old", uriOf("parent.vmdk")), 2);
    DerivedKeys keys;
    KeyDerivationWatch const watch(nullptr, kRounds - 1);
    EXPECT_THROW(deriveKeys("child.vmdk", {"old", ""}, keys), TooManyRoundsError);
}

} // namespace
} // namespace disk_key_test
} // namespace test_support
