#include <libnbd.h>
#include <nlohmann/json.hpp>

#include "tests/nbdkit/plugin_fixture.h"

namespace nbdkit {

namespace {

INSTANTIATE_TEST_SUITE_P(Kinds, EveryKind, ::testing::ValuesIn(allKinds()),
                         [](auto const& instance) { return instance.param.name; });

std::string zeroImage() {
    return std::string(kDiskBytes, '\0');
}

TEST_P(EveryKind, ShowsItsSizeAndItsHoles) {
    std::string parentImage = zeroImage();
    std::string image = zeroImage();
    image.replace(5 * kGrainBytes + 100, 50, 50, 'x');
    image.replace(8 * kGrainBytes, 2 * kGrainBytes, 2 * kGrainBytes, 'y');
    image.replace(kDiskBytes - 1, 1, 1, 'z');
    if (GetParam().isChild) {
        parentImage.replace(2 * kGrainBytes, kGrainBytes, kGrainBytes, 'p');
        image.replace(2 * kGrainBytes, kGrainBytes, kGrainBytes, 'p');
    } else {
        image.replace(2 * kGrainBytes, kGrainBytes, kGrainBytes, 'q');
    }
    makeDisk(GetParam(), parentImage, image);
    std::unique_ptr<Server> const server = serve({"-r"});
    EXPECT_EQ(runClient({"nbdinfo", "--size", server->uri()}), "16777216\n");
    auto const map =
        nlohmann::json::parse(runClient({"nbdinfo", "--map", "--json", server->uri()}));
    auto const expected = nlohmann::json::parse(R"([
        {"offset":0,"length":131072,"type":3,"description":"hole,zero"},
        {"offset":131072,"length":65536,"type":0,"description":"data"},
        {"offset":196608,"length":131072,"type":3,"description":"hole,zero"},
        {"offset":327680,"length":65536,"type":0,"description":"data"},
        {"offset":393216,"length":131072,"type":3,"description":"hole,zero"},
        {"offset":524288,"length":131072,"type":0,"description":"data"},
        {"offset":655360,"length":16056320,"type":3,"description":"hole,zero"},
        {"offset":16711680,"length":65536,"type":0,"description":"data"}])");
    EXPECT_EQ(map, expected);
    stopWell(*server);
}

TEST_P(EveryKind, TakesAFileSystemAndGivesItBack) {
    runClient({"mke2fs", "-q", "-F", "-t", "ext4", "-d", std::string(KELM_SOURCE_DIR) + "/kelm",
               "files.img", "16M"});
    makeDisk(GetParam(), makeImage(kDiskBytes, 7));
    std::map<std::string, std::string> const parentFiles = readParentFiles();
    std::unique_ptr<Server> server = serve();
    runClient({"nbdcopy", "--flush", "files.img", server->uri()});
    stopWell(*server);
    EXPECT_EQ(readParentFiles(), parentFiles);

    server = serve({"-r"});
    runClient({"nbdcopy", server->uri(), "copy.img"});
    stopWell(*server);
    runClient({"e2fsck", "-fn", "copy.img"});
    std::string const image = readFile("files.img");
    EXPECT_TRUE(readFile("copy.img") == image);
    expectContent(image);
}

TEST_P(EveryKind, KeepsWhatFioWrites) {
    makeDisk(GetParam(), makeImage(kDiskBytes, 8));
    std::map<std::string, std::string> const parentFiles = readParentFiles();
    std::unique_ptr<Server> server = serve();
    auto const runFio = [&](Arguments const& more) {
        Arguments const common{"fio",
                               "--name=kelm",
                               "--ioengine=nbd",
                               "--uri=" + server->uri(),
                               "--rw=randwrite",
                               "--bsrange=4k-1m",
                               "--size=8m",
                               "--iodepth=4",
                               "--randseed=20",
                               "--verify=crc32c",
                               "--verify_fatal=1",
                               "--verify_state_save=0"};
        runClient(joined({common, more}));
    };
    runFio({"--do_verify=1", "--fsync=32"});
    stopWell(*server);
    EXPECT_EQ(readParentFiles(), parentFiles);

    // Once more when everything comes from the files.
    server = serve({"-r"});
    runFio({"--verify_only"});
    stopWell(*server);
    runWell(joined({{"check", "disk.vmdk"}, passwordOptions()}));
}

TEST_P(EveryKind, HasOneServerForWriting) {
    makeDisk(GetParam(), zeroImage());
    std::unique_ptr<Server> const first = serve();
    // Once a client is served, the first server has its disk.
    Client const client(first->socketPath());
    for (char const* const option : {"-f", "-r"}) {
        std::unique_ptr<Server> const second = serve({option});
        Outcome const outcome = second->waitForEnd();
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.err, wordsForDiskInUse("disk.vmdk"));
    }
    EXPECT_EQ(client.write(0, "still served"), 0);
    EXPECT_EQ(client.read(0, 12), "still served");
}

TEST_P(EveryKind, KeepsWhatWasFlushedWhenTheServerIsKilled) {
    std::string image = makeImage(kDiskBytes, 9);
    makeDisk(GetParam(), image, image);
    std::unique_ptr<Server> const server = serve();
    Client const client(server->socketPath());
    std::string const flushed(150000, 'f');
    std::string const forced(70000, 'g');
    ASSERT_EQ(client.write(100000, flushed), 0);
    ASSERT_EQ(client.writeZeros(1000000, 200000), 0);
    ASSERT_EQ(client.flush(), 0);
    ASSERT_EQ(client.write(9000000, forced, LIBNBD_CMD_FLAG_FUA), 0);
    server->kill();

    image.replace(100000, flushed.size(), flushed);
    image.replace(1000000, 200000, 200000, '\0');
    image.replace(9000000, forced.size(), forced);
    expectContent(image);
}

TEST_P(EveryKind, KeepsTheRestWhenTheServerIsKilledBetweenFlushes) {
    std::string const image = makeImage(kDiskBytes, 10);
    makeDisk(GetParam(), image, image);
    std::unique_ptr<Server> const server = serve();
    Client const client(server->socketPath());
    std::string const flushed(kGrainBytes, 'f');
    ASSERT_EQ(client.write(0, flushed), 0);
    ASSERT_EQ(client.flush(), 0);
    for (std::size_t at = 20 * kGrainBytes; at < kDiskBytes; at += 3 * kGrainBytes)
        ASSERT_EQ(client.write(at + 1000, "not flushed"), 0);
    server->kill();

    std::unique_ptr<Server> const next = serve();
    Client const reader(next->socketPath());
    EXPECT_EQ(reader.read(0, kGrainBytes), flushed);
    EXPECT_EQ(reader.read(kGrainBytes, 19 * kGrainBytes),
              image.substr(kGrainBytes, 19 * kGrainBytes));
}

TEST_P(EveryKind, KeepsZerosOverDataAfterReopening) {
    std::string image = makeImage(kDiskBytes, 11);
    image.replace(0, 40 * kGrainBytes, 40 * kGrainBytes, 'd');
    makeDisk(GetParam(), image, image);
    std::map<std::string, std::string> const parentFiles = readParentFiles();
    std::unique_ptr<Server> const server = serve();
    {
        Client const client(server->socketPath());
        // By requests for zeros, and by writing zeros; whole grains and parts.
        ASSERT_EQ(client.writeZeros(2 * kGrainBytes, 5 * kGrainBytes), 0);
        ASSERT_EQ(client.writeZeros(10 * kGrainBytes + 7, 3 * kGrainBytes), 0);
        ASSERT_EQ(client.write(20 * kGrainBytes, std::string(2 * kGrainBytes, '\0')), 0);
        ASSERT_EQ(client.write(30 * kGrainBytes + 7, std::string(kGrainBytes, '\0')), 0);
    }
    stopWell(*server);
    auto const zero = [&image](std::size_t at, std::size_t count) {
        image.replace(at, count, count, '\0');
    };
    zero(2 * kGrainBytes, 5 * kGrainBytes);
    zero(10 * kGrainBytes + 7, 3 * kGrainBytes);
    zero(20 * kGrainBytes, 2 * kGrainBytes);
    zero(30 * kGrainBytes + 7, kGrainBytes);
    expectContent(image);
    EXPECT_EQ(readParentFiles(), parentFiles);
}

TEST_P(EveryKind, TakesNoSpaceForZerosWhereNothingIs) {
    makeDisk(GetParam(), zeroImage());
    auto const measureFiles = [this] {
        std::map<std::string, std::string> files;
        for (std::string const& name : listFiles())
            files[name] = readFile(name);
        return files;
    };
    std::map<std::string, std::string> const before = measureFiles();
    std::unique_ptr<Server> const server = serve();
    {
        Client const client(server->socketPath());
        ASSERT_EQ(client.writeZeros(0, kDiskBytes), 0);
        ASSERT_EQ(client.writeZeros(1000, 100000), 0);
    }
    stopWell(*server);
    EXPECT_TRUE(measureFiles() == before);
}

} // namespace

} // namespace nbdkit
