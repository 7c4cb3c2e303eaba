#include <atomic>
#include <cerrno>
#include <csignal>
#include <random>
#include <thread>

#include <fcntl.h>
#include <libnbd.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/nbdkit/plugin_fixture.h"
#include "tests/support/opening_watch.h"

namespace nbdkit {

namespace {

using test_support::OpeningWatch;

DiskKind const kPlain{"Plain", {}};
DiskKind const kCompressed{"Compressed", {"--compressed"}};
DiskKind const kEncrypted{"Encrypted", {}, true};

class Plugin : public PluginTest {
protected:
    /// Starts a server that must refuse to serve, and returns its words.
    std::string refusalOf(Arguments const& arguments) const {
        Outcome const outcome =
            Server(folder(), joined({{KELM_NBDKIT_PLUGIN}, arguments})).waitForEnd();
        EXPECT_EQ(outcome.status, 1);
        return outcome.err;
    }

    /// Serves with these parameters and expects that the disk reads as zeros.
    void expectServed(Arguments const& parameters, ServerSurroundings const& surroundings = {}) {
        Server server(folder(), joined({{KELM_NBDKIT_PLUGIN}, parameters}), surroundings);
        EXPECT_EQ(Client(server.socketPath()).read(0, 4), std::string(4, '\0'));
        stopWell(server);
    }
};

TEST_F(Plugin, TellsWhatItCanDo) {
    Outcome const outcome =
        test_support::RunningProgram(folder(), {"nbdkit", KELM_NBDKIT_PLUGIN, "--dump-plugin"})
            .finish();
    EXPECT_EQ(outcome.status, 0);
    std::string const expected = std::string("kelm_version=") + KELM_VERSION +
                                 "\n"
                                 "kelm_disks=plain,split,compressed,encrypted,child,on-demand\n"
                                 "kelm_parameters=file,password,parent-password,cache-tables,"
                                 "max-rounds,allow-path,allow-oversize,unfinished,wait\n"
                                 "kelm_requests=read,write,zero,flush,fua,extents,cache\n";
    EXPECT_NE(outcome.out.find(expected), std::string::npos) << outcome.out;
    for (char const* const line :
         {"name=kelm\n", "magic_config_key=file\n", "thread_model=serialize_all_requests\n"})
        EXPECT_NE(outcome.out.find(line), std::string::npos) << line << outcome.out;
}

TEST_F(Plugin, OffersItsRequestsToClients) {
    makeDisk(kPlain);
    std::unique_ptr<Server> const server = serve();
    Client const client(server->socketPath());
    EXPECT_EQ(::nbd_is_read_only(client.get()), 0);
    EXPECT_EQ(::nbd_can_flush(client.get()), 1);
    EXPECT_EQ(::nbd_can_fua(client.get()), 1);
    EXPECT_EQ(::nbd_can_zero(client.get()), 1);
    EXPECT_EQ(::nbd_can_cache(client.get()), 1);
    EXPECT_EQ(::nbd_can_multi_conn(client.get()), 1);
    EXPECT_EQ(::nbd_can_trim(client.get()), 0);
    EXPECT_EQ(::nbd_get_block_size(client.get(), LIBNBD_SIZE_MINIMUM), 1);
    EXPECT_EQ(::nbd_get_block_size(client.get(), LIBNBD_SIZE_PREFERRED), 65536);
    EXPECT_EQ(::nbd_get_block_size(client.get(), LIBNBD_SIZE_MAXIMUM), 33554432);
}

TEST_F(Plugin, AnswersManyReadsAtOnceWhereNobodyWrites) {
    for (DiskKind const& kind : {kPlain, kCompressed, kEncrypted}) {
        SCOPED_TRACE(kind.name);
        std::string const image = makeImage(kDiskBytes, 3);
        makeDisk(kind, "", image);
        std::unique_ptr<Server> const server = serve({"-r"}, {"cache-tables=3"});
        std::vector<std::thread> threads;
        std::atomic<int> right = 0;
        for (unsigned int i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] {
                Client const client(server->socketPath());
                std::mt19937 random(i);
                for (int read = 0; read < 200; ++read) {
                    std::size_t const count = 1 + random() % 100000;
                    std::size_t const position = random() % (kDiskBytes - count);
                    if (client.read(position, count) == image.substr(position, count))
                        ++right;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(right, 600);
        stopWell(*server);
        std::filesystem::remove(folder() / "disk.vmdk");
    }
}

TEST_F(Plugin, SharesItsDiskAmongConnections) {
    makeDisk(kPlain);
    std::unique_ptr<Server> const server = serve();
    Client const writer(server->socketPath());
    Client const reader(server->socketPath());
    ASSERT_EQ(writer.write(123456, "shared"), 0);
    EXPECT_EQ(reader.read(123456, 6), "shared");
}

/// Each has pieces of every grain for itself, where there were data, and where there were none.
TEST_F(Plugin, TakesSmallWritesOfManyConnectionsAtOnce) {
    constexpr std::size_t kWriters = 4;
    constexpr std::size_t kPieceBytes = 4096;
    constexpr std::size_t kTurnBytes = kWriters * kPieceBytes;
    for (DiskKind const& kind : {kPlain, DiskKind{"Split", {"--split", "4M", "--on-demand"}}}) {
        SCOPED_TRACE(kind.name);
        std::string image = makeImage(kDiskBytes / 2, 8) + std::string(kDiskBytes / 2, '\0');
        makeDisk(kind, "", image);
        std::unique_ptr<Server> const server = serve();
        std::vector<std::string> images(kWriters, image);
        std::atomic<int> failures = 0;
        std::vector<std::thread> threads;
        for (std::size_t writer = 0; writer < kWriters; ++writer) {
            threads.emplace_back([&, writer] {
                Client const client(server->socketPath());
                std::mt19937 random(static_cast<unsigned int>(writer));
                std::string& own = images[writer];
                for (int turn = 0; turn < 300; ++turn) {
                    std::size_t const position =
                        random() % (kDiskBytes / kTurnBytes) * kTurnBytes + writer * kPieceBytes;
                    std::string const piece(kPieceBytes, static_cast<char>(random() % 255 + 1));
                    std::uint32_t const flags = turn % 50 == 0 ? LIBNBD_CMD_FLAG_FUA : 0;
                    failures += client.write(position, piece, flags) != 0 ? 1 : 0;
                    own.replace(position, kPieceBytes, piece);
                    failures += client.read(position, kPieceBytes) != piece ? 1 : 0;
                    failures += turn % 20 == 0 && client.flush() != 0 ? 1 : 0;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(failures, 0);
        for (std::size_t at = 0; at < kDiskBytes; at += kPieceBytes)
            image.replace(at, kPieceBytes, images[at / kPieceBytes % kWriters], at, kPieceBytes);
        stopWell(*server);
        expectContent(image);
        std::filesystem::remove(folder() / "disk.vmdk");
    }
}

TEST_F(Plugin, RefusesWrongParameters) {
    makeDisk(kPlain);
    EXPECT_EQ(refusalOf({}), "nbdkit: error: the parameter file=<FILENAME> is missing\n");
    EXPECT_EQ(refusalOf({"disk.vmdk", "size=5"}), "nbdkit: error: unknown parameter 'size'\n");
    EXPECT_EQ(refusalOf({"disk.vmdk", "cache-tables=0"}),
              "nbdkit: error: cache-tables must be at least 1\n");
    EXPECT_NE(refusalOf({"disk.vmdk", "cache-tables=many"}).find("cache-tables"),
              std::string::npos);
    EXPECT_EQ(refusalOf({"disk.vmdk", "max-rounds=0"}),
              "nbdkit: error: max-rounds must be at least 1\n");
    EXPECT_NE(refusalOf({"disk.vmdk", "max-rounds=2147483648"}).find("max-rounds"),
              std::string::npos);
    EXPECT_EQ(refusalOf({"disk.vmdk", "wait=-1"}), "nbdkit: error: wait must be at least 0\n");
    EXPECT_NE(refusalOf({"disk.vmdk", "wait=long"}).find("wait"), std::string::npos);
    EXPECT_EQ(refusalOf({"missing.vmdk", "wait=600"}),
              "nbdkit: error: The disk does not exist. (uri: " + path("missing.vmdk") + ")\n");
    EXPECT_EQ(refusalOf({"missing.vmdk"}),
              "nbdkit: error: The disk does not exist. (uri: " + path("missing.vmdk") + ")\n");
    writeFile("text", "no disk\n");
    EXPECT_EQ(refusalOf({"file=text"}),
              "nbdkit: error: VMDK descriptor value 'createType' not found.\n");
}

TEST_F(Plugin, ReachesOutsideOfTheFolderOnlyWhereItIsAllowed) {
    std::string image = makeImage(kDiskBytes, 31);
    makeDisk({"Split", {"--split", "4M"}}, "", image);
    std::filesystem::create_directory(path("received"));
    std::string text = readFile("disk.vmdk");
    for (std::size_t at = 0; (at = text.find("\"disk-s", at)) != std::string::npos; at += 4)
        text.insert(at + 1, "../");
    // The software that wrote these lines knows of no checksum.
    std::size_t const checksum = text.find("ddb.kelm.checksum");
    text.erase(checksum, text.find('\n', checksum) + 1 - checksum);
    writeFile("received/disk.vmdk", text);
    EXPECT_EQ(refusalOf({"received/disk.vmdk"}),
              "nbdkit: error: The disk names a file outside of its folder. If you trust the disk, "
              "allow that file's folder (--allow-path, allow-path=). (uri: " +
                  path("disk-s00000.vmdk") + ", folder: " + path("received/") + ")\n");
    for (std::string const& allowed : {std::string("allow-path=."), "allow-path=" + path("")}) {
        Server server(folder(), {KELM_NBDKIT_PLUGIN, "received/disk.vmdk", allowed});
        {
            Client const client(server.socketPath());
            EXPECT_TRUE(client.read(0, kDiskBytes) == image);
            EXPECT_EQ(client.write(0, allowed), 0);
            image.replace(0, allowed.size(), allowed);
        }
        stopWell(server);
    }
    EXPECT_EQ(run({"compare", "received/disk.vmdk", "disk.vmdk", "--allow-path", "."}).out,
              "equal\n");
}

TEST_F(Plugin, TakesThePasswordInEachForm) {
    makeDisk(kEncrypted);
    expectServed({"file=disk.vmdk", "password=correct horse"});
    expectServed({"disk.vmdk", "password=+password"});
    std::string const file = path("password");
    constexpr int kDescriptor = 7;
    auto const openPassword = [&file] { ::dup2(::open(file.c_str(), O_RDONLY), kDescriptor); };
    expectServed({"disk.vmdk", "password=-7"}, {openPassword, ""});
}

TEST_F(Plugin, TakesAPasswordOfParentsBesideThatOfTheDisk) {
    makeDisk({"EncryptedChild", {}, true, true}, std::string(kGrainBytes, 'p'));
    writeFile("new", "battery staple\n");
    ASSERT_EQ(run({"password", "disk.vmdk", "--rounds", "1000", "--password-file", "password",
                   "--new-password-file", "new"})
                  .status,
              0);
    EXPECT_EQ(refusalOf({"-r", "disk.vmdk", "password=+new"}),
              "nbdkit: error: Specified VMDK encryption password is not correct. (uri: " +
                  path("parent.vmdk") + ")\n");
    Server server(folder(),
                  {KELM_NBDKIT_PLUGIN, "disk.vmdk", "password=+new", "parent-password=+password"});
    EXPECT_EQ(Client(server.socketPath()).read(0, kGrainBytes), std::string(kGrainBytes, 'p'));
    stopWell(server);
}

TEST_F(Plugin, RefusesAWrongOrMissingPasswordBeforeItServes) {
    makeDisk(kEncrypted);
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "disk.vmdk", "password=incorrect horse"}),
                  "nbdkit: error: Specified VMDK encryption password is not correct. (uri: " +
                      path("disk.vmdk") + ")\n");
        EXPECT_EQ(refusalOf({option, "disk.vmdk"}),
                  "nbdkit: error: VMDK is encrypted but no password provided (uri: " +
                      path("disk.vmdk") + ")\n");
    }
}

TEST_F(Plugin, RefusesKeysThatTakeMoreRoundsThanAllowed) {
    makeDisk({"EncryptedSplit", {"--split", "4M"}, true});
    auto const setRounds = [this](std::string const& from, std::string const& to) {
        std::string text = readFile("disk.vmdk");
        std::size_t const at = text.find(":" + from + "\n");
        ASSERT_NE(at, std::string::npos);
        writeFile("disk.vmdk", text.replace(at, from.size() + 2, ":" + to + "\n"));
    };
    auto const words = [](std::string const& rounds, std::string const& most) {
        return "nbdkit: error: The key of the disk takes " + rounds +
               " rounds to derive; at most " + most +
               " are allowed. A larger max-rounds allows more.\n";
    };
    EXPECT_EQ(refusalOf({"disk.vmdk", "password=+password", "max-rounds=999"}),
              words("1000", "999"));
    expectServed({"disk.vmdk", "password=+password", "max-rounds=1000"});
    setRounds("1000", "2147483647");
    for (char const* const option : {"-f", "-r"})
        EXPECT_EQ(refusalOf({option, "disk.vmdk", "password=+password"}),
                  words("2147483647", "10000000"));
    EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
}

TEST_F(Plugin, RefusesNamesThatAreNoUTF8) {
    makeDisk({"Split", {"--split", "4M"}});
    // What the name would be, were its bytes read in another encoding.
    std::filesystem::rename(path("disk-s00001.vmdk"), path("d\xC3\xA4.vmdk"));
    std::string const name = "file://" + path("d%E4.vmdk");
    std::string text = readFile("disk.vmdk");
    std::string const before = "\"disk-s00001.vmdk\"";
    std::size_t const at = text.find(before);
    ASSERT_NE(at, std::string::npos);
    writeFile("disk.vmdk", text.replace(at, before.size(), "\"" + name + "\""));
    std::string const words = "nbdkit: error: The URI names no file of the operating system: its "
                              "path is no UTF-8. (uri: " +
                              name + ")\n";
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "disk.vmdk"}), words);
        EXPECT_EQ(refusalOf({option, "file=" + name}), words);
    }
}

TEST_F(Plugin, RefusesAChildWithoutItsParentBeforeItServes) {
    makeDisk({"Child", {}, false, true}, std::string(kDiskBytes, 'p'));
    std::filesystem::remove(path("parent.vmdk"));
    EXPECT_EQ(refusalOf({"disk.vmdk"}),
              "nbdkit: error: The disk does not exist. (uri: " + path("parent.vmdk") + ")\n");
}

TEST_F(Plugin, RefusesADamagedGrainTableBeforeItServes) {
    makeDisk(kPlain, "", std::string(kDiskBytes, 'p'));
    std::string const file = readFile("disk.vmdk");
    auto const sectorAt = [&file](std::size_t position) {
        std::size_t sector = 0;
        for (std::size_t i = 4; i-- > 0;)
            sector = sector << 8 | static_cast<unsigned char>(file[position + i]);
        return sector * 512;
    };
    // The first sector of the first main table, which the header and the directory lead to.
    patchFile("disk.vmdk", sectorAt(sectorAt(56)), std::string(512, '\0'));
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "disk.vmdk"}),
                  "nbdkit: error: Grain table 0 differs from its redundant copy, so its grains may "
                  "be lost. (uri: " +
                      path("disk.vmdk") +
                      ", table: 0, grains: 0-255, bytes: 0-16777215, damagedTables: 1)\n");
    }
}

TEST_F(Plugin, ServesAnUnfinishedDiskOnlyWhereThatIsAskedForAndOnlyReadOnly) {
    std::string const image(kDiskBytes, 'u');
    {
        endtoend::RunningTool tool(folder(), {"import", "-", "disk.vmdk", "--size", "16M"});
        tool.feed(image.substr(0, kDiskBytes / 2));
        tool.signal(SIGKILL);
        EXPECT_EQ(tool.finish().status, -1);
    }
    std::string const words =
        "nbdkit: error: The disk is unfinished: it has not been filled to its end. (uri: " +
        path("disk.vmdk") + ") unfinished=yes serves it as it is, read-only (-r).\n";
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "disk.vmdk"}), words);
        EXPECT_EQ(refusalOf({option, "disk.vmdk", "unfinished=no"}), words);
    }
    EXPECT_EQ(refusalOf({"disk.vmdk", "unfinished=yes"}), words);
    EXPECT_NE(refusalOf({"-r", "disk.vmdk", "unfinished=perhaps"}).find("perhaps"),
              std::string::npos);

    Server server(folder(), {"-r", KELM_NBDKIT_PLUGIN, "disk.vmdk", "unfinished=yes"});
    std::string const served = Client(server.socketPath()).read(0, kDiskBytes);
    stopWell(server);
    Outcome const read = run({"export", "disk.vmdk", "-", "--unfinished"});
    EXPECT_EQ(read.status, 0);
    EXPECT_TRUE(served == read.out);
}

TEST_F(Plugin, KeepsOthersFromWritingToAParent) {
    makeDisk({"Child", {}, false, true}, std::string(kDiskBytes, 'p'));
    std::unique_ptr<Server> const server = serve();
    Client const client(server->socketPath());
    EXPECT_EQ(refusalOf({"parent.vmdk"}), wordsForDiskInUse("parent.vmdk"));
}

TEST_F(Plugin, TakesADiskForWritingBeforeTheFirstClient) {
    makeDisk(kPlain);
    std::unique_ptr<Server> const server = serve();
    // Who connects is greeted, once the server is ready, and is no client until it asks for the
    // disk.
    EXPECT_EQ(server->greeting(), "NBDMAGIC");
    Outcome const looked = run({"info", "disk.vmdk"});
    EXPECT_EQ(looked.status, 6);
    EXPECT_NE(looked.err.find("The disk is in use"), std::string::npos) << looked.err;
}

TEST_F(Plugin, WaitsBeforeItServesUntilTheDiskIsFree) {
    makeDisk(kPlain);
    for (char const* const option : {"-f", "-r"}) {
        SCOPED_TRACE(option);
        std::unique_ptr<Server> const holder = serve();
        ASSERT_EQ(holder->greeting(), "NBDMAGIC");
        OpeningWatch openings(folder());
        std::unique_ptr<Server> const waiting = serve({option}, {"wait=600"});
        // Those of the first attempt, and of some more.
        EXPECT_TRUE(openings.waitFor("disk.vmdk.lock", 3, waiting->id()));
        holder->stop();
        EXPECT_EQ(Client(waiting->socketPath()).read(0, 4), std::string(4, '\0'));
        stopWell(*waiting);
    }
}

TEST_F(Plugin, WaitsForAParentToo) {
    makeDisk({"Child", {}, false, true}, std::string(kDiskBytes, 'p'));
    Server holder(folder(), {KELM_NBDKIT_PLUGIN, "parent.vmdk"});
    ASSERT_EQ(holder.greeting(), "NBDMAGIC");
    OpeningWatch openings(folder());
    std::unique_ptr<Server> const waiting = serve({"-r"}, {"wait=600"});
    EXPECT_TRUE(openings.waitFor("parent.vmdk.lock", 3, waiting->id()));
    holder.stop();
    EXPECT_EQ(Client(waiting->socketPath()).read(0, 4), "pppp");
    stopWell(*waiting);
}

TEST_F(Plugin, WaitsWithAClientWhenTheDiskWasTakenMeanwhile) {
    std::string const image = makeImage(kDiskBytes, 16);
    makeDisk(kPlain, "", image);
    std::unique_ptr<Server> const waiting = serve({"-r"}, {"wait=600"});
    // Ready, and without the disk until somebody asks for it.
    ASSERT_EQ(waiting->greeting(), "NBDMAGIC");
    std::unique_ptr<Server> const holder = serve();
    ASSERT_EQ(holder->greeting(), "NBDMAGIC");
    OpeningWatch openings(folder());
    test_support::RunningProgram client(folder(), {"nbdcopy", waiting->uri(), "copy.raw"});
    EXPECT_TRUE(openings.waitFor("disk.vmdk.lock", 3, client.id()));
    holder->stop();
    Outcome const outcome = client.finish();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(readFile("copy.raw") == image);
    EXPECT_EQ(waiting->stop().status, 0);
}

TEST_F(Plugin, RefusesADiskThatIsStillInUseWhenTheTimeIsOver) {
    makeDisk(kPlain);
    std::unique_ptr<Server> const holder = serve();
    ASSERT_EQ(holder->greeting(), "NBDMAGIC");
    for (char const* const option : {"-f", "-r"}) {
        OpeningWatch openings(folder());
        std::unique_ptr<Server> const waiting = serve({option}, {"wait=1"});
        EXPECT_TRUE(openings.waitFor("disk.vmdk.lock", 3, waiting->id()));
        Outcome const outcome = waiting->waitForEnd();
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.err, wordsForDiskInUse("disk.vmdk"));
    }
    EXPECT_EQ(refusalOf({"disk.vmdk", "wait=0"}), wordsForDiskInUse("disk.vmdk"));
}

TEST_F(Plugin, StopsWhileItWaits) {
    makeDisk(kPlain);
    std::unique_ptr<Server> const holder = serve();
    ASSERT_EQ(holder->greeting(), "NBDMAGIC");
    {
        OpeningWatch openings(folder());
        std::unique_ptr<Server> const waiting = serve({}, {"wait=600"});
        EXPECT_TRUE(openings.waitFor("disk.vmdk.lock", 3, waiting->id()));
        EXPECT_EQ(waiting->stop().status, -1);
    }
    holder->stop();
    std::unique_ptr<Server> const waiting = serve({"-r"}, {"wait=600"});
    ASSERT_EQ(waiting->greeting(), "NBDMAGIC");
    std::unique_ptr<Server> const next = serve();
    ASSERT_EQ(next->greeting(), "NBDMAGIC");
    OpeningWatch openings(folder());
    test_support::RunningProgram client(folder(), {"nbdinfo", waiting->uri()});
    EXPECT_TRUE(openings.waitFor("disk.vmdk.lock", 3, client.id()));
    EXPECT_EQ(waiting->stop().status, 0);
    EXPECT_NE(client.finish().status, 0);
    next->stop();
}

TEST_F(Plugin, ServesReadersBesideEachOther) {
    std::string const image = makeImage(kDiskBytes, 12);
    makeDisk(kCompressed, "", image);
    std::unique_ptr<Server> const first = serve({"-r"});
    std::unique_ptr<Server> const second = serve({"-r"});
    Client const ofFirst(first->socketPath());
    Client const ofSecond(second->socketPath());
    EXPECT_EQ(ofFirst.read(0, 300000), image.substr(0, 300000));
    EXPECT_EQ(ofSecond.read(0, 300000), image.substr(0, 300000));
    EXPECT_EQ(::nbd_is_read_only(ofFirst.get()), 1);
    // Nothing but a refusal comes of a write, and nbdkit has it as "not permitted".
    EXPECT_EQ(ofFirst.write(0, "nothing"), EPERM);
}

TEST_F(Plugin, TakesAFilterThatWantsItReadOnly) {
    std::string const image = makeImage(kDiskBytes, 13);
    makeDisk(kPlain, "", image);
    std::unique_ptr<Server> const server = serve({"--filter=cow"});
    {
        Client const client(server->socketPath());
        ASSERT_EQ(client.write(0, "in the filter"), 0);
        EXPECT_EQ(client.read(0, 13), "in the filter");
    }
    stopWell(*server);
    expectContent(image);
}

TEST_F(Plugin, KeepsToItsCacheWhileItWrites) {
    constexpr std::size_t kLargeBytes = std::size_t{256} << 20;
    runWell({"create", "disk.vmdk", "--size", "256M"});
    std::unique_ptr<Server> server = serve({}, {"cache-tables=1"});
    std::map<std::size_t, std::string> written;
    std::mt19937 random(14);
    {
        Client const client(server->socketPath());
        for (int i = 0; i < 100; ++i) {
            std::size_t const at = random() % (kLargeBytes / 4096) * 4096;
            written[at] = std::string(4096, static_cast<char>('a' + i % 26));
            ASSERT_EQ(client.write(at, written[at]), 0);
        }
    }
    stopWell(*server);
    runWell({"check", "disk.vmdk"});
    server = serve({"-r"}, {"cache-tables=1"});
    Client const client(server->socketPath());
    for (auto const& [at, bytes] : written)
        ASSERT_EQ(client.read(at, bytes.size()), bytes) << at;
}

TEST_F(Plugin, AnswersAFlushWhenTheDeviceHasTheData) {
    makeDisk(kPlain);
    std::string const log = path("sync.log");
    auto const setLog = [&log] { ::setenv("KELM_SYNC_LOG", log.c_str(), 1); };
    std::unique_ptr<Server> const server = serve({}, {}, {setLog, KELM_SYNC_LOG_LIBRARY});
    Client const client(server->socketPath());
    ASSERT_EQ(client.write(0, "data"), 0);
    std::size_t const beforeFlush = readFile("sync.log").size();
    ASSERT_EQ(client.flush(), 0);
    std::size_t const afterFlush = readFile("sync.log").size();
    EXPECT_GT(afterFlush, beforeFlush);
    ASSERT_EQ(client.write(kGrainBytes, "data"), 0);
    EXPECT_EQ(readFile("sync.log").size(), afterFlush);
    ASSERT_EQ(client.write(2 * kGrainBytes, "data", LIBNBD_CMD_FLAG_FUA), 0);
    EXPECT_GT(readFile("sync.log").size(), afterFlush);
}

TEST_F(Plugin, TellsOfAFullDevice) {
    makeDisk(kPlain);
    // A file that cannot grow is to a program what a full device is.
    auto const limitFiles = [] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit const limit{1 << 20, 1 << 20};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    };
    std::unique_ptr<Server> const server = serve({}, {}, {limitFiles, ""});
    {
        Client const client(server->socketPath());
        std::string const data(std::size_t{2} << 20, 'x');
        int error = client.write(0, data);
        if (error == 0)
            error = client.flush();
        EXPECT_EQ(error, ENOSPC);
    }
    Outcome const outcome = server->stop();
    EXPECT_NE(outcome.err.find("error: Cannot write to the file: File too large (uri: " +
                               path("disk.vmdk")),
              std::string::npos)
        << outcome.err;
}

TEST_F(Plugin, ServesWhatIsStoredThoughTheDeviceIsFull) {
    for (DiskKind const& kind : {kPlain, kCompressed}) {
        SCOPED_TRACE(kind.name);
        auto const limitFiles = [] {
            std::signal(SIGXFSZ, SIG_IGN);
            rlimit const limit{8 << 20, 8 << 20};
            ::setrlimit(RLIMIT_FSIZE, &limit);
        };
        // With few tables in memory, reads flush.
        for (Arguments const& parameters : {Arguments{}, Arguments{"cache-tables=1"}}) {
            makeDisk(kind);
            std::unique_ptr<Server> const server = serve({}, parameters, {limitFiles, ""});
            {
                Client const client(server->socketPath());
                std::mt19937 random(3);
                std::map<std::size_t, std::string> stored;
                int error = 0;
                for (std::size_t at = 0; error == 0 && at < kDiskBytes; at += kGrainBytes) {
                    std::string noise(kGrainBytes, '\0');
                    for (char& byte : noise)
                        byte = static_cast<char>(random());
                    error = client.write(at, noise);
                    if (error == 0)
                        error = client.flush();
                    if (error == 0)
                        stored[at] = noise;
                }
                EXPECT_EQ(error, ENOSPC);
                EXPECT_EQ(client.flush(), ENOSPC);
                EXPECT_GT(stored.size(), 64U);
                for (auto const& [at, bytes] : stored)
                    ASSERT_EQ(client.read(at, bytes.size()), bytes) << at;
                std::size_t const storedBytes = stored.size() * kGrainBytes;
                EXPECT_EQ(client.listExtents(0, storedBytes).front(), (Extent{storedBytes, false}));
            }
            server->stop();
            std::filesystem::remove(path("disk.vmdk"));
        }
    }
}

TEST_F(Plugin, TellsOfDamage) {
    std::string const image(kDiskBytes, 'x');
    makeDisk(kCompressed, "", image);
    // The last grain that was written, which begins with the place and the length of its data.
    std::string const file = readFile("disk.vmdk");
    std::string const record("\x80\x7f\0\0\0\0\0\0", 8);
    std::size_t const at = file.rfind(record);
    ASSERT_NE(at, std::string::npos);
    patchFile("disk.vmdk", at + 14, std::string(40, '\xee'));
    std::unique_ptr<Server> const server = serve({"-r"});
    {
        Client const client(server->socketPath());
        EXPECT_EQ(client.tryRead(kDiskBytes - 100, 50), EIO);
        EXPECT_EQ(client.read(0, 100), std::string(100, 'x'));
    }
    Outcome const outcome = server->stop();
    EXPECT_NE(outcome.err.find("error: Compressed data is corrupt, incomplete or larger than its "
                               "target. (sourceSize: "),
              std::string::npos)
        << outcome.err;
    EXPECT_NE(
        outcome.err.find("uri: " + path("disk.vmdk") + ", grain: 255, bytes: 16711680-16777215)"),
        std::string::npos)
        << outcome.err;
}

TEST_F(Plugin, LooksAtPartOfALargeDiskOnly) {
    runWell({"create", "disk.vmdk", "--size", "1T"});
    std::unique_ptr<Server> const server = serve();
    Client const client(server->socketPath());
    ASSERT_EQ(client.write(std::uint64_t{1} << 39, "data"), 0);
    constexpr std::uint64_t kMost = 0xFFFF0000;
    EXPECT_EQ(client.listExtents(0, kMost), (std::vector<Extent>{{1 << 30, true}}));
    std::uint64_t const start = (std::uint64_t{1} << 39) - 65536 - 512;
    EXPECT_EQ(client.listExtents(start, kMost),
              (std::vector<Extent>{
                  {65536 + 512, true}, {65536, false}, {(1 << 30) - 2 * 65536 - 512, true}}));
    EXPECT_EQ(client.listExtents(start, kMost, LIBNBD_CMD_FLAG_REQ_ONE),
              (std::vector<Extent>{{65536 + 512, true}}));
}

TEST_F(Plugin, CopiesStaySparse) {
    std::string image(kDiskBytes, '\0');
    image.replace(100 * kGrainBytes, kGrainBytes, kGrainBytes, 'x');
    makeDisk(kPlain, "", image);
    std::unique_ptr<Server> const server = serve({"-r"});
    runClient({"nbdcopy", server->uri(), "copy.img"});
    EXPECT_TRUE(readFile("copy.img") == image);
    EXPECT_EQ(runClient({"du", "-k", "copy.img"}), "64\tcopy.img\n");
}

/// nbdkit as users start it: it opens its socket itself and goes into the background.
TEST_F(Plugin, ServesFromTheBackground) {
    makeDisk(kEncrypted);
    std::string const socketPath = path("sock");
    Outcome const started = test_support::RunningProgram(
                                folder(), {"nbdkit", "-U", socketPath, "-P", path("pid"),
                                           KELM_NBDKIT_PLUGIN, "disk.vmdk", "password=+password"})
                                .finish();
    ASSERT_EQ(started.status, 0) << started.err;
    {
        Client const client(socketPath);
        ASSERT_EQ(client.write(5, "from the background"), 0);
    }
    int const id = std::stoi(readFile("pid"));
    int const process = test_support::openProcess(id);
    ASSERT_GE(process, 0);
    EXPECT_EQ(refusalOf({"disk.vmdk", "password=+password"}), wordsForDiskInUse("disk.vmdk"));
    ASSERT_EQ(::kill(id, SIGTERM), 0);
    pollfd ended{process, POLLIN, 0};
    ::poll(&ended, 1, -1);
    ::close(process);
    std::string image(kDiskBytes, '\0');
    image.replace(5, 19, "from the background");
    expectContent(image);
}

} // namespace

} // namespace nbdkit
