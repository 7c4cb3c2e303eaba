// What the program says when it refuses something: that the reason and the way out are named.

#include <unistd.h>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

class Words : public ToolTest {
protected:
    /// Runs the program as a user who has no rights here but those of everybody.
    Outcome runAsNobody(Arguments const& arguments) const {
        std::filesystem::permissions(folder(), std::filesystem::perms(0755));
        RunningTool tool(folder(), arguments, [] {
            constexpr uid_t kNobody = 65534;
            if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0)
                ::_exit(127);
        });
        return tool.finish();
    }

    std::string inUTF16(std::string const& text, bool bigEndian, bool withMark) const {
        std::string bytes;
        if (withMark)
            bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
        for (char const letter : text) {
            bytes += bigEndian ? '\0' : letter;
            bytes += bigEndian ? letter : '\0';
        }
        return bytes;
    }

    std::string makeDamagedDisk() const {
        std::string const image = makeImage(std::size_t{8} << 20, 81);
        writeFile("image", image);
        runWell({"import", "image", "disk.vmdk", "--compressed"});
        std::string const sound = readFile("disk.vmdk");
        runWell({"convert", "disk.vmdk", "sound.vmdk"});
        // Within the record of one of the grains in the middle.
        patchFile("disk.vmdk", sound.size() / 2, std::string(64, 'x'));
        return image;
    }
};

// Folders that cannot be written to

TEST_F(Words, AReadOnlyFolderIsNamedAsWhatCannotBeWrittenTo) {
    writeFile("image", makeImage(std::size_t{8} << 20, 80));
    std::filesystem::create_directory(path("folder"));
    runWell({"import", "image", "folder/disk.vmdk"});
    runWell({"import", "image", "parent.vmdk"});
    // The first one would have to make files, the others replace some, too.
    for (Arguments const& command :
         {Arguments{"import", "image", "folder/new.vmdk"},
          Arguments{"import", "image", "folder/disk.vmdk", "--force"},
          Arguments{"create", "folder/new.vmdk", "--size", "8M"},
          Arguments{"create", "folder/new.vmdk", "--size", "8M", "--split", "4M"},
          Arguments{"create", "folder/disk.vmdk", "--size", "8M", "--force"},
          Arguments{"convert", "parent.vmdk", "folder/new.vmdk"},
          Arguments{"child", "parent.vmdk", "folder/new.vmdk"}}) {
        std::filesystem::permissions(path("folder"), std::filesystem::perms(0555));
        Outcome const outcome = runAsNobody(command);
        EXPECT_EQ(outcome.status, 3) << command.front();
        EXPECT_EQ(outcome.err, "kelm: Cannot write to the folder: Permission denied (path: " +
                                   path("folder") + ")\n")
            << command.front();
    }
    EXPECT_EQ(runWell({"compare", "image", "folder/disk.vmdk"}), "equal\n");
}

// What is no disk

TEST_F(Words, ARawImageGivenAsADiskIsCalledThat) {
    std::string const image = makeImage(std::size_t{8} << 20, 82);
    writeFile("zeros", std::string(std::size_t{8} << 20, '\0'));
    writeFile("large", "\xEB\x10\x90" + image);
    writeFile("small", "\xEB\x10\x90" + image.substr(0, 65536));
    for (std::string const name : {"zeros", "large", "small"}) {
        for (Arguments const& command :
             {Arguments{"info", name}, Arguments{"export", name, "-"}, Arguments{"map", name},
              Arguments{"convert", name, "new.vmdk"}, Arguments{"flatten", name},
              Arguments{"child", name, "new.vmdk"},
              Arguments{"import", "zeros", "new.vmdk", "--parent", name}}) {
            EXPECT_EQ(runBadly(7, command), "kelm: The file is a raw image, not a disk, or its "
                                            "beginning is destroyed. (uri: " +
                                                path(name) + ")\n")
                << command.front();
        }
        EXPECT_EQ(run({"check", name}).out,
                  path(name) +
                      ": the disk cannot be opened: The file is a raw image, not a disk, or "
                      "its beginning is destroyed.\n1 finding\n");
    }
    EXPECT_EQ(listFiles(), (std::set<std::string>{"large", "small", "zeros"}));
}

TEST_F(Words, ADescriptorInUTF16IsCalledThat) {
    runWell({"create", "disk.vmdk", "--size", "8M", "--split", "4M"});
    std::string const text = readFile("disk.vmdk");
    for (bool const bigEndian : {false, true}) {
        for (bool const withMark : {false, true}) {
            writeFile("disk.vmdk", inUTF16(text, bigEndian, withMark));
            EXPECT_EQ(runBadly(3, {"info", "disk.vmdk"}),
                      "kelm: The descriptor is stored as UTF-16. Store it as UTF-8. (uri: " +
                          path("disk.vmdk") + ")\n");
        }
    }
    writeFile("disk.vmdk", text);
    runWell({"info", "disk.vmdk"});
}

// Grains

TEST_F(Words, AMessageAboutAGrainNamesFileGrainAndBytes) {
    makeDamagedDisk();
    // With its digests, an import to a child would not read the data of the disk.
    std::filesystem::remove(path("disk.vmdk.digests"));
    writeFile("other", makeImage(std::size_t{8} << 20, 83));
    for (Arguments const& command :
         {Arguments{"export", "disk.vmdk", "raw"}, Arguments{"convert", "disk.vmdk", "new.vmdk"},
          Arguments{"compare", "disk.vmdk", "sound.vmdk"},
          Arguments{"compare", "other", "disk.vmdk"},
          Arguments{"import", "other", "new.vmdk", "--parent", "disk.vmdk"}}) {
        std::string const error = runBadly(7, command);
        EXPECT_NE(error.find("uri: " + path("disk.vmdk") + ", grain: "), std::string::npos)
            << command.front() << " " << error;
        EXPECT_NE(error.find(", bytes: "), std::string::npos) << error;
    }
}

// Names

TEST_F(Words, AColonInANameIsGivenAsTheReason) {
    for (std::string const name : {"a:b.vmdk", "a:5%.vmdk"}) {
        EXPECT_EQ(
            runBadly(2, {"create", name, "--size", "8M"}),
            "kelm: A disk cannot have a name with a colon here, since its descriptor could not "
            "name its files: what stands before the colon would be taken for the scheme of a "
            "URI.\n");
    }
    EXPECT_EQ(listFiles(), std::set<std::string>());
}

TEST_F(Words, OtherCharactersThatANameCannotHaveAreNamed) {
    EXPECT_NE(runBadly(2, {"create", "a\"b.vmdk", "--size", "8M"}).find("a quote or a line end"),
              std::string::npos);
    EXPECT_NE(runBadly(2, {"create", "a\\b.vmdk", "--size", "8M"}).find("a backslash"),
              std::string::npos);
}

TEST_F(Words, ANameThatIsTooLongForTheExtentFilesNamesTheLimit) {
    // 255 bytes are the most that the file systems of tests take.
    for (int const length : {249, 250}) {
        std::string const name = std::string(static_cast<std::size_t>(length) - 5, 'n') + ".vmdk";
        EXPECT_EQ(runBadly(2, {"create", name, "--size", "8M", "--split", "4M"}),
                  "kelm: The name of the disk is too long: those of its extent files would exceed "
                  "255 bytes. Give the disk a name of at most 248 bytes.\n");
        runWell({"create", name, "--size", "8M"});
    }
    std::string const name = std::string(246, 'n') + ".vmdk";
    EXPECT_EQ(runBadly(2, {"create", name, "--size", "8M"}),
              "kelm: The name of the disk is too long: that of its lock file would exceed 255 "
              "bytes. Give the disk a name of at most 250 bytes.\n");
    runWell({"create", std::string(243, 'n') + ".vmdk", "--size", "8M", "--split", "4M"});
}

TEST_F(Words, MoreFilesThanADescriptorNamesAreAUsageErrorThatNamesTheWayOut) {
    Arguments const create{"create", "disk.vmdk", "--size", "62T", "--split", "2G", "--compressed"};
    std::string const words =
        "kelm: The disk would have more files than a descriptor can name, which "
        "are some 32768. Split it into larger ones.\n";
    EXPECT_EQ(runBadly(2, create), words);
    EXPECT_EQ(listFiles(), std::set<std::string>());
    runWell({"create", "disk.vmdk", "--size", "8M"});
    std::string const before = readFile("disk.vmdk");
    EXPECT_EQ(runBadly(2, joined({create, {"--force"}})), words);
    EXPECT_EQ(readFile("disk.vmdk"), before);
    EXPECT_EQ(listFiles(), std::set<std::string>{"disk.vmdk"});
}

} // namespace

} // namespace endtoend
