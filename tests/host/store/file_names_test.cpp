#include "host/store/file_names.h"

#include <fstream>

#include <unistd.h>

#include "kelm/format/file_reference.h"
#include "tests/host/host_fixture.h"

namespace test_support {
namespace {

using kelm::host::makeFileReference;
using kelm::host::uriFromArgument;

class FileNames : public HostTest {
protected:
    FileNames() {
        std::filesystem::create_directories(folder.path() / "real/deep");
        std::ofstream(folder.path() / "real/a b.vmdk") << "x";
        std::filesystem::create_directory_symlink("real/deep", folder.path() / "link");
        std::filesystem::create_symlink("real/a b.vmdk", folder.path() / "alias.vmdk");
        std::filesystem::create_symlink("nowhere", folder.path() / "dangling.vmdk");
    }

    void expectPath(std::string const& expected, std::string const& argument) {
        EXPECT_EQ(toURI(folder.path() / expected), uriFromArgument(argument)) << argument;
    }
};

TEST_F(FileNames, EverySpellingOfAFileGivesOneURI) {
    for (std::string const& argument :
         {pathOf("real/a b.vmdk"), pathOf("alias.vmdk"), pathOf("real/./deep/../a b.vmdk"),
          pathOf("link/../a b.vmdk"), folder.path().string() + "//real//a b.vmdk",
          "file://" + pathOf("real/a%20b.vmdk"), "file:" + pathOf("alias.vmdk")})
        expectPath("real/a b.vmdk", argument);
}

TEST_F(FileNames, NewFileIsNamedByItsRealFolder) {
    expectPath("real/deep/new.vmdk", pathOf("link/new.vmdk"));
    expectPath("real/new.vmdk", pathOf("link/../new.vmdk"));
    expectPath("real/50%.vmdk", pathOf("real/50%.vmdk"));
}

TEST_F(FileNames, RelativePathsStartInTheCurrentFolder) {
    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path() / "link");
    expectPath("real/deep/new.vmdk", "new.vmdk");
    expectPath("real/a b.vmdk", "../a b.vmdk");
    std::filesystem::current_path(before);
}

TEST_F(FileNames, RefusesWhatIsNowhere) {
    std::string const base = "file://" + folder.path().string();
    for (std::string const name : {"none/a.vmdk", "dangling.vmdk", "none/.."})
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "No such file or directory",
                                  {{"uri", base + "/" + name}},
                                  [&] { uriFromArgument(pathOf(name)); }))
            << name;
    EXPECT_THROW(uriFromArgument(""), yx::CIOError);
    EXPECT_THROW(uriFromArgument("file://elsewhere/a.vmdk"), yx::CIOError);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "A file name is not valid UTF-8.",
                              {{"name", "a\xC3\xBF.vmdk"}}, [] { uriFromArgument("a\xFF.vmdk"); }));
}

TEST_F(FileNames, FolderThatIsNoUTF8IsRefusedByName) {
    std::filesystem::create_directory(folder.path() / "d\xFF");
    // The name that the folder would have in another encoding.
    std::filesystem::create_directory(folder.path() / "d\xC3\xBF");
    std::filesystem::create_directory_symlink("d\xFF", folder.path() / "linked");
    std::ofstream(folder.path() / "d\xFF/old.vmdk") << "x";
    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path() / "d\xFF");
    auto const refusal = [&](std::string const& name) {
        return Props{{"name", folder.path().string() + "/d\xC3\xBF" + name}};
    };
    constexpr char kWords[] = "The name of a folder or file is not valid UTF-8.";
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, kWords, refusal(""),
                              [] { uriFromArgument("new.vmdk"); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, kWords, refusal("/old.vmdk"),
                              [] { uriFromArgument("old.vmdk"); }));
    std::filesystem::current_path(before);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, kWords, refusal(""),
                              [&] { uriFromArgument(pathOf("linked/new.vmdk")); }));
}

TEST_F(FileNames, URIWhoseEscapesAreNoUTF8IsRefused) {
    // What the names would be, were their bytes read in another encoding or leniently.
    std::ofstream(folder.path() / "\xC3\xA4.vmdk") << "x";
    std::ofstream(folder.path() / "real.vmdk") << "x";
    std::filesystem::create_directory(folder.path() / "d\xC3\xA4");
    for (std::string const name :
         {"%E4.vmdk", "d%E4/new.vmdk", "new%FF.vmdk", "real%E0%80%AF..%E0%80%AFreal.vmdk",
          "%ED%A0%80.vmdk", "real%F0%80%80%AE.vmdk"}) {
        for (std::string const& uri : {"file://" + pathOf(name), "file:" + pathOf(name)}) {
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::NotSupported,
                "The URI names no file of the operating system: its path is no UTF-8.",
                {{"uri", uri}}, [&] { uriFromArgument(uri); }));
        }
    }
}

TEST_F(FileNames, ReferencesKeepEscapesThatAreNoUTF8) {
    for (char const* const name : {"mem:/disks/%E4.vmdk", "mem:/disks/d%E4/a.vmdk",
                                   "mem:/%FF/a.vmdk", "mem:/disks/%ED%A0%80"}) {
        yx::CURI const file(name);
        for (char const* const from : {"mem:/disks/", "mem:/other/"}) {
            yx::CURI const base(from);
            yx::String const reference = makeFileReference(base, file);
            EXPECT_EQ(reference.toStdString(), name);
            EXPECT_EQ(kelm::vmdkFileReferenceToURI(base, reference).toString(true).toStdString(),
                      name);
        }
    }
    // What both have in common is not spelled.
    EXPECT_EQ(makeFileReference(yx::CURI("mem:/d%E4/"), yx::CURI("mem:/d%E4/a.vmdk")).toStdString(),
              "a.vmdk");
}

TEST_F(FileNames, ReferencesAreRelativePaths) {
    struct Case {
        char const* folder;
        char const* file;
        char const* reference;
    };
    for (Case const& c : {
             Case{"/disks/", "/disks/a.vmdk", "a.vmdk"},
             Case{"/disks", "/disks/sub/a b.vmdk", "sub/a b.vmdk"},
             Case{"/disks/monday/", "/disks/sunday/a.vmdk", "../sunday/a.vmdk"},
             Case{"/a/b/c", "/a.vmdk", "../../../a.vmdk"},
             Case{"/disks/a.vmdk/", "/disks/a.vmdk", "../a.vmdk"},
         })
        EXPECT_EQ(c.reference, makeFileReference(toURI(c.folder), toURI(c.file)).toStdString())
            << c.file;
}

TEST_F(FileNames, ReferencesLeadBackToTheFile) {
    yx::CURI const from = toURI("/disks/monday");
    for (char const* const name : {"a.vmdk",
                                   "a b.vmdk",
                                   "a:b.vmdk",
                                   "C:a.vmdk",
                                   "C:/a.vmdk",
                                   "sub/a:b.vmdk",
                                   "a\\b.vmdk",
                                   "50%25.vmdk",
                                   "a\"b.vmdk",
                                   "a#b?.vmdk",
                                   " a.vmdk ",
                                   "~a.vmdk",
                                   "\xC3\xA4\xE2\x82\xAC.vmdk",
                                   "file:a.vmdk",
                                   "..a.vmdk",
                                   "a\nb.vmdk",
                                   "-",
                                   "sub/ /a.vmdk",
                                   "a:5%.vmdk",
                                   "a:b\\w%zz.vmdk"}) {
        for (char const* const place : {"/disks/monday/", "/disks/", "/other/place/"}) {
            yx::CURI const file = toURI(std::string(place) + name);
            yx::String const reference = makeFileReference(from, file);
            EXPECT_EQ(file.toNormalized(), kelm::vmdkFileReferenceToURI(from, reference))
                << reference;
            EXPECT_EQ(wxString::npos, reference.wx().find_first_of("\"\n")) << reference;
        }
    }
}

TEST_F(FileNames, ReferenceToANameWithBlanksAtItsEndsIsARelativePath) {
    for (char const* const name : {"blank.vmdk ", " blank.vmdk", " "}) {
        EXPECT_EQ(
            name,
            makeFileReference(toURI("/disks"), toURI(std::string("/disks/") + name)).toStdString());
    }
}

TEST_F(FileNames, ReferencesSurviveTheDescriptor) {
    for (char const* const name :
         {"a b.vmdk", " blank.vmdk", "blank.vmdk ", "50%25.vmdk", "\xC3\xA4.vmdk"}) {
        SCOPED_TRACE(name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        yx::P<FileGuard> const guard = makeGuard();
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.parent = yx::CURI("mem:///disks/sub/") << yx::String::fromUTF8(name);
        NewDisk parentRequest;
        parentRequest.sizeBytes = kSmallestDiskBytes;
        writeTo(*SafeDisk::create(guard.get(), request.parent, parentRequest), 0, pattern(100, 1));
        SafeDisk::create(guard.get(), uriOf("child.vmdk"), request);
        EXPECT_TRUE(sameBytes(pattern(100, 1), slice(contentAfterReopening("child.vmdk"), 0, 100)));
    }
}

TEST_F(FileNames, DiskThatCouldNotNameItsOwnFilesIsRefused) {
    constexpr char kColon[] =
        "A disk cannot have a name with a colon here, since its descriptor could not name its "
        "files: what stands before the colon would be taken for the scheme of a URI.";
    constexpr char kLineEnd[] =
        "A disk cannot have a name with a quote or a line end, since its descriptor could not name "
        "its files.";
    constexpr char kBackslash[] =
        "A disk cannot have a name with a backslash, since its descriptor "
        "could not name its files.";
    std::pair<char const*, char const*> const cases[] = {{"a:b.vmdk", kColon},
                                                         {"a:5%.vmdk", kColon},
                                                         {"a\\b.vmdk", kBackslash},
                                                         {"q\"q.vmdk", kLineEnd},
                                                         {"n\nn.vmdk", kLineEnd}};
    for (auto const& [name, message] : cases) {
        SCOPED_TRACE(name);
        yx::CURI const uri = yx::CURI("mem:///disks/") << yx::String(name);
        EXPECT_TRUE(throwsInvalidArg("SafeDisk::create", message,
                                     {{"uri", uri.toString(true).toStdString()}},
                                     [&] { SafeDisk::create(makeGuard().get(), uri, NewDisk()); }));
    }
    EXPECT_TRUE(fileNames().empty());
}

TEST_F(FileNames, OtherFileSystemIsNamedInFull) {
    EXPECT_EQ("file:///disks/a.vmdk",
              makeFileReference(yx::CURI("mem:///disks/"), toURI("/disks/a.vmdk")).toStdString());
}

} // namespace
} // namespace test_support
