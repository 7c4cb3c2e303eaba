// Every command with disks that lie in a store, beside disks on the machine.

#include <nlohmann/json.hpp>

#include "tests/endtoend/mount_stand_ins.h"
#include "tests/endtoend/store_fixture.h"

namespace endtoend {

namespace store_test {

namespace {

using nlohmann::json;

using Store = StoreTest;

TEST_F(Store, HoldsNewDisks) {
    runWell({"create", "test:/new.vmdk", "--size", "8M"});
    runWell({"create", "test:/days/split.vmdk", "--size", "8M", "--split", "4M", "--on-demand"});
    EXPECT_EQ(listStore(), (std::set<std::string>{"days", "days/split-s00000.vmdk",
                                                  "days/split.vmdk", "new.vmdk"}));
    EXPECT_EQ(runWell({"check", "test:/new.vmdk"}), "");
    EXPECT_EQ(runWell({"check", "test:/days/split.vmdk"}), "");
}

TEST_F(Store, HoldsImportedDisksOfEveryKind) {
    writeFile("password", "secret\n");
    Arguments const kinds[] = {{},
                               {"--compressed"},
                               {"--split", "4M"},
                               {"--split", "4M", "--on-demand"},
                               {"--encrypt", "--rounds", "1000", "--compressed"}};
    for (Arguments const& kind : kinds) {
        SCOPED_TRACE(kind.empty() ? "plain" : kind.front());
        Arguments const password{"--password-file", "password"};
        runWell(joined({{"import", "image", "test:/disk.vmdk", "--force"}, password, kind}));
        EXPECT_EQ(runWell(joined({{"compare", "test:/disk.vmdk", "image"}, password})), "equal\n");
        EXPECT_EQ(runWell(joined({{"check", "test:/disk.vmdk"}, password})), "");
        runWell(joined({{"export", "test:/disk.vmdk", "out", "--force"}, password}));
        EXPECT_EQ(readFile("out"), readFile("image"));
    }
    for (std::string const& name : listStore())
        EXPECT_EQ(name.find("former"), std::string::npos) << name;
}

TEST_F(Store, HoldsChildrenOfLocalParentsAndParentsOfLocalChildren) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"import", "image", "full.vmdk"});
    runWell({"import", "later", "test:/child.vmdk", "--parent", "test:/full.vmdk"});
    runWell({"import", "later", "here.vmdk", "--parent", "test:/full.vmdk"});
    runWell({"import", "later", "test:/days/there.vmdk", "--parent", "full.vmdk"});
    for (char const* const disk : {"test:/child.vmdk", "here.vmdk", "test:/days/there.vmdk"})
        expectEqual(disk, "later");
    EXPECT_NE(readFile("here.vmdk").find("parentFileNameHint=\"test:/full.vmdk\""),
              std::string::npos);
    EXPECT_NE(readFile("store/child.vmdk").find("parentFileNameHint=\"full.vmdk\""),
              std::string::npos);
    EXPECT_EQ(json::parse(runWell({"info", "here.vmdk", "--json"}))["parents"][0]["file"],
              "test:/full.vmdk");
    EXPECT_EQ(
        json::parse(runWell({"info", "test:/days/there.vmdk", "--json"}))["parents"][0]["file"],
        path("full.vmdk"));
}

TEST_F(Store, DiskIsNamedByItsURI) {
    runWell({"import", "image", "test:/full.vmdk", "--split", "4M"});
    EXPECT_EQ(runWell({"info", "test:/full.vmdk"}).rfind("disk:         test:/full.vmdk\n", 0), 0U);
    json const info = json::parse(runWell({"info", "TEST:/days/../full.vmdk", "--json"}));
    EXPECT_EQ(info["file"], "test:/full.vmdk");
    EXPECT_EQ(info["files"][1]["file"], "test:/full-s00000.vmdk");
    EXPECT_GT(info["files"][1]["lengthBytes"], 0);
}

TEST_F(Store, NamesMayHaveBlanksAndOtherSigns) {
    std::filesystem::create_directory(path("store/a b"));
    runWell({"import", "image", "test:/a b/c d.vmdk", "--split", "4M"});
    expectEqual("test:/a%20b/c%20d.vmdk", "image");
    runWell({"import", "image", "test:/%3Fx%23%25.vmdk"});
    EXPECT_EQ(listStore().count("?x#%.vmdk"), 1U);
    expectEqual("test:/%3Fx%23%25.vmdk", "image");
    EXPECT_EQ(runWell({"copy", "test:/a%20b/c%20d.vmdk", "."}),
              path("c d.vmdk") + "\n" + path("c d-s00000.vmdk") + "\n" + path("c d-s00001.vmdk") +
                  "\n" + path("c d-s00002.vmdk") + "\n" + path("c d.vmdk.digests") + "\n");
    expectEqual("c d.vmdk", "image");
    EXPECT_EQ(runWell({"rename", "c d.vmdk", "test:/days"}),
              "test:/days/c%20d.vmdk\ntest:/days/c%20d-s00000.vmdk\ntest:/days/c%20d-s00001.vmdk\n"
              "test:/days/c%20d-s00002.vmdk\ntest:/days/c%20d.vmdk.digests\n");
    expectEqual("test:/days/c d.vmdk", "image");
}

TEST_F(Store, AChildAndItsParentMayBeFlattenedAndRebased) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"import", "later", "other.vmdk"});
    runWell({"import", "later", "test:/child.vmdk", "--parent", "test:/full.vmdk"});
    runWell({"rebase", "test:/child.vmdk", "--parent", "other.vmdk"});
    expectEqual("test:/child.vmdk", "later");
    EXPECT_EQ(json::parse(runWell({"info", "test:/child.vmdk", "--json"}))["parents"][0]["file"],
              path("other.vmdk"));
    runWell({"rebase", "test:/child.vmdk", "--parent", "test:/full.vmdk"});
    runWell({"flatten", "test:/child.vmdk"});
    runWell({"delete", "test:/full.vmdk"});
    expectEqual("test:/child.vmdk", "later");
    runWell({"child", "test:/child.vmdk", "test:/days/next.vmdk"});
    expectEqual("test:/days/next.vmdk", "later");
}

TEST_F(Store, DisksAreConverted) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"convert", "test:/full.vmdk", "test:/packed.vmdk", "--compressed"});
    runWell({"convert", "test:/packed.vmdk", "here.vmdk", "--split", "4M"});
    runWell({"convert", "here.vmdk", "test:/back.vmdk"});
    for (char const* const disk : {"test:/packed.vmdk", "here.vmdk", "test:/back.vmdk"})
        expectEqual(disk, "image");
    EXPECT_EQ(runWell({"compare", "test:/packed.vmdk", "test:/back.vmdk"}), "equal\n");
}

TEST_F(Store, MapShowsWhichDiskHoldsWhat) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"child", "test:/full.vmdk", "test:/child.vmdk"});
    json const ofFull = json::parse(runWell({"map", "test:/full.vmdk", "--json"}));
    json const ofChild = json::parse(runWell({"map", "test:/child.vmdk", "--json"}));
    EXPECT_EQ(ofFull["file"], "test:/full.vmdk");
    EXPECT_NE(runWell({"map", "test:/full.vmdk"}).find(" here\n"), std::string::npos);
    EXPECT_EQ(runWell({"map", "test:/child.vmdk"}).find(" here\n"), std::string::npos);
    runWell({"map", "test:/child.vmdk", "--svg", "map.svg"});
    EXPECT_NE(readFile("map.svg").find("<svg"), std::string::npos);
}

TEST_F(Store, IsListed) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"import", "later", "test:/days/mon.vmdk", "--parent", "test:/full.vmdk"});
    runWell({"import", "later", "here.vmdk", "--parent", "test:/full.vmdk"});
    std::string const text = runWell({"list", "test:/", "."});
    for (std::string const& name :
         {std::string("test:/full.vmdk"), std::string("test:/days/mon.vmdk"), path("here.vmdk")})
        EXPECT_NE(text.find("  complete        " + name + "\n"), std::string::npos) << text;
    // The store's own folder lies in the working one here, and so its files are listed twice.
    json const disks = json::parse(runWell({"list", "test:/", "--json"}))["disks"];
    ASSERT_EQ(disks.size(), 2U);
    EXPECT_EQ(disks[0]["file"], "test:/full.vmdk");
    EXPECT_EQ(disks[1]["file"], "test:/days/mon.vmdk");
    EXPECT_EQ(disks[1]["parent"], "test:/full.vmdk");
    EXPECT_EQ(disks[0]["dependents"], 1);
    runWell({"list", "test:/", "--svg", "list.svg"});
    EXPECT_NE(readFile("list.svg").find("mon"), std::string::npos);
}

TEST_F(Store, RenamesWithinItselfAndToTheMachineAndBack) {
    runWell({"import", "image", "test:/full.vmdk", "--split", "4M"});
    runWell({"import", "later", "test:/mon.vmdk", "--parent", "test:/full.vmdk"});
    EXPECT_EQ(runWell({"rename", "test:/full.vmdk", "test:/days/all.vmdk"}),
              "test:/days/all.vmdk\ntest:/days/all-s00000.vmdk\ntest:/days/all-s00001.vmdk\n"
              "test:/days/all-s00002.vmdk\ntest:/days/all.vmdk.digests\nchild: test:/mon.vmdk\n");
    expectEqual("test:/mon.vmdk", "later");
    EXPECT_EQ(runWell({"rename", "test:/days/all.vmdk", "here.vmdk", "--look", "test:/"}),
              path("here.vmdk") + "\n" + path("here-s00000.vmdk") + "\n" +
                  path("here-s00001.vmdk") + "\n" + path("here-s00002.vmdk") + "\n" +
                  path("here.vmdk.digests") + "\nchild: test:/mon.vmdk\n");
    expectEqual("test:/mon.vmdk", "later");
    EXPECT_EQ(listStore(), (std::set<std::string>{"days", "mon.vmdk", "mon.vmdk.digests"}));
    runWell({"rename", "here.vmdk", "test:/", "--look", "test:/"});
    expectEqual("test:/mon.vmdk", "later");
    expectEqual("test:/here.vmdk", "image");
    EXPECT_EQ(listFiles(), (std::set<std::string>{"image", "later", "store"}));
}

TEST_F(Store, CopiesToItselfAndToTheMachineAndBack) {
    runWell({"import", "image", "full.vmdk", "--split", "4M", "--compressed"});
    runWell({"copy", "full.vmdk", "test:/"});
    runWell({"copy", "test:/full.vmdk", "test:/days/copy.vmdk"});
    runWell({"copy", "test:/days/copy.vmdk", "back.vmdk"});
    for (char const* const disk : {"test:/full.vmdk", "test:/days/copy.vmdk", "back.vmdk"})
        expectEqual(disk, "image");
    EXPECT_EQ(readFile("back-s00001.vmdk"), readFile("full-s00001.vmdk"));
    EXPECT_EQ(runBadly(3, {"copy", "full.vmdk", "test:/days/copy.vmdk"}),
              "kelm: The file exists already. (uri: test:/days/copy.vmdk)\n");
}

TEST_F(Store, TakesLinksOutOfChains) {
    writeFile("last", makeImage(kImageBytes, 3));
    runWell({"import", "image", "test:/a.vmdk"});
    runWell({"import", "later", "test:/b.vmdk", "--parent", "test:/a.vmdk"});
    runWell({"import", "last", "test:/c.vmdk", "--parent", "test:/b.vmdk", "--compressed"});
    runWell({"merge", "test:/b.vmdk", "test:/c.vmdk", "test:/bc.vmdk"});
    expectEqual("test:/bc.vmdk", "last");
    runWell({"delete", "test:/bc.vmdk"});
    runWell({"drop", "test:/b.vmdk"});
    EXPECT_EQ(listStore(), (std::set<std::string>{"a.vmdk", "a.vmdk.digests", "c.vmdk",
                                                  "c.vmdk.digests", "days"}));
    expectEqual("test:/c.vmdk", "last");
    EXPECT_EQ(runBadly(3, {"delete", "test:/a.vmdk"}),
              "kelm: The disk has children that need it. (uri: test:/a.vmdk, children: 1, child: "
              "test:/c.vmdk) --keep-children makes them independent of it first; --with-children "
              "deletes them too.\n");
    runWell({"prune", "test:/", "--keep-last", "1"});
    EXPECT_EQ(listStore(), (std::set<std::string>{"a.vmdk", "a.vmdk.digests", "c.vmdk",
                                                  "c.vmdk.digests", "days"}));
    EXPECT_EQ(runWell({"delete", "test:/a.vmdk", "--with-children"}),
              "test:/c.vmdk\ntest:/c.vmdk.digests\ntest:/a.vmdk\ntest:/a.vmdk.digests\n");
    EXPECT_EQ(listStore(), (std::set<std::string>{"days"}));
}

TEST_F(Store, PruneTakesDisksOutOfIt) {
    runWell({"import", "image", "test:/a.vmdk"});
    for (unsigned int day = 1; day <= 3; ++day) {
        writeFile("image", makeImage(kImageBytes, 10 + day));
        std::string const parent = day == 1 ? "a" : "day" + std::to_string(day - 1);
        runWell({"import", "image", "test:/day" + std::to_string(day) + ".vmdk", "--parent",
                 "test:/" + parent + ".vmdk"});
    }
    std::set<std::string> const before = listStore();
    std::string const planned = runWell({"prune", "test:/", "--keep-last", "2", "--dry-run"});
    EXPECT_NE(planned.find("test:/day1.vmdk"), std::string::npos) << planned;
    EXPECT_EQ(listStore(), before);
    runWell({"prune", "test:/", "--keep-last", "2"});
    expectEqual("test:/day3.vmdk", "image");
    EXPECT_EQ(listStore().count("day1.vmdk"), 0U);
    EXPECT_EQ(listStore().count("day2.vmdk"), 1U);
}

TEST_F(Store, KeepsDigestsPasswordsAndSpaceInOrder) {
    writeFile("old", "secret\n");
    writeFile("new", "other\n");
    Arguments const oldPassword{"--password-file", "old"};
    runWell(joined(
        {{"import", "image", "test:/disk.vmdk", "--encrypt", "--rounds", "1000", "--no-digests"},
         oldPassword}));
    EXPECT_EQ(listStore().count("disk.vmdk.digests"), 0U);
    runWell(joined({{"digest", "test:/disk.vmdk"}, oldPassword}));
    EXPECT_EQ(listStore().count("disk.vmdk.digests"), 1U);
    runWell(
        joined({{"password", "test:/disk.vmdk", "--new-password-file", "new", "--rounds", "1000"},
                oldPassword}));
    runBadly(4, joined({{"check", "test:/disk.vmdk"}, oldPassword}));
    EXPECT_EQ(runWell({"check", "test:/disk.vmdk", "--digests", "--password-file", "new"}), "");
    runWell({"compact", "test:/disk.vmdk", "--password-file", "new"});
    EXPECT_EQ(runWell({"compare", "test:/disk.vmdk", "image", "--password-file", "new"}),
              "equal\n");
    EXPECT_EQ(runWell({"files", "test:/disk.vmdk", "--password-file", "new"}).find("no partitions"),
              0U);
}

TEST_F(Store, DamagedDisksAreFoundAndMended) {
    runWell({"import", "image", "test:/disk.vmdk", "--compressed"});
    std::string const sound = readFile("store/disk.vmdk");
    patchFile("store/disk.vmdk", 0, std::string(512, '\0'));
    std::string const damaged = readFile("store/disk.vmdk");
    EXPECT_EQ(run({"check", "test:/disk.vmdk"}).status, 1);
    EXPECT_EQ(runWell({"repair", "test:/disk.vmdk"}), "test:/disk.vmdk: mended the header\n");
    EXPECT_EQ(readFile("store/disk.vmdk"), sound);
    EXPECT_EQ(runWell({"repair", "test:/disk.vmdk", "--undo"}), "1 sectors brought back\n");
    EXPECT_EQ(readFile("store/disk.vmdk"), damaged);
    EXPECT_EQ(listStore(), (std::set<std::string>{"days", "disk.vmdk", "disk.vmdk.digests"}));
    runWell({"repair", "test:/disk.vmdk"});
    expectEqual("test:/disk.vmdk", "image");
}

TEST_F(Store, DiskIsMountedByItsURI) {
    std::filesystem::create_directory(path("mnt"));
    runWell({"import", "image", "test:/a b.vmdk"});
    MountStandIns const standIns(folder());
    runWell({"mount", "test:/a b.vmdk", "mnt"});
    std::string const calls = standIns.takeCalls();
    EXPECT_NE(calls.find("nbdkit -s -r kelm file=test:/a%20b.vmdk max-rounds="), std::string::npos)
        << calls;
    json const told = json::parse(runWell({"umount", "mnt", "--json"}));
    EXPECT_EQ(told["file"], "test:/a%20b.vmdk");
    EXPECT_TRUE(standIns.isClean());
}

} // namespace

} // namespace store_test

} // namespace endtoend
