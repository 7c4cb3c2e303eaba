#include "tests/nbdkit/plugin_fixture.h"

#include <cstdlib>

namespace nbdkit {

std::vector<DiskKind> const& allKinds() {
    static std::vector<DiskKind> const kinds{
        {"Plain", {}},
        {"Split", {"--split", "4M"}},
        {"Compressed", {"--compressed"}},
        {"CompressedSplit", {"--compressed", "--split", "6M"}},
        {"Encrypted", {}, true},
        {"EncryptedCompressedSplit", {"--compressed", "--split", "6M"}, true},
        {"OnDemand", {"--split", "4M", "--on-demand"}},
        {"Child", {}, false, true},
        {"CompressedChild", {"--compressed"}, false, true},
        {"EncryptedCompressedSplitChild", {"--compressed", "--split", "6M"}, true, true},
    };
    return kinds;
}

PluginTest::PluginTest() {
    // Where the programs that make and check file systems are.
    ::setenv("PATH", (std::string(std::getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    writeFile("password", "correct horse\n");
}

Arguments PluginTest::passwordOptions() const {
    return m_kind->isEncrypted ? Arguments{"--password-file", "password"} : Arguments{};
}

void PluginTest::makeDisk(DiskKind const& kind, std::string const& parentImage) {
    m_kind = &kind;
    Arguments create{"create", "disk.vmdk", "--size", std::to_string(kDiskBytes)};
    if (kind.isChild) {
        writeFile("parent-image", parentImage);
        create = {"import", "parent-image", "parent.vmdk"};
    }
    Arguments const encrypt =
        kind.isEncrypted ? Arguments{"--encrypt", "--rounds", "1000"} : Arguments{};
    runWell(joined({create, kind.options, encrypt, passwordOptions()}));
    if (!kind.isChild)
        return;
    // A child is compressed if its parent is.
    Arguments options = kind.options;
    std::erase(options, "--compressed");
    runWell(joined({{"child", "parent.vmdk", "disk.vmdk"}, options, passwordOptions()}));
}

void PluginTest::makeDisk(DiskKind const& kind, std::string const& parentImage,
                          std::string const& image) {
    makeDisk(kind, parentImage);
    std::unique_ptr<Server> const server = serve();
    {
        Client const client(server->socketPath());
        for (std::size_t at = 0; at < image.size(); at += kGrainBytes) {
            std::string const part = image.substr(at, kGrainBytes);
            if (part != client.read(at, part.size())) {
                ASSERT_EQ(client.write(at, part), 0);
            }
        }
    }
    stopWell(*server);
}

std::unique_ptr<Server> PluginTest::serve(Arguments const& options, Arguments const& parameters,
                                          ServerSurroundings const& surroundings) const {
    bool const isEncrypted = m_kind && m_kind->isEncrypted;
    Arguments const password = isEncrypted ? Arguments{"password=+password"} : Arguments{};
    return std::make_unique<Server>(
        folder(), joined({options, {KELM_NBDKIT_PLUGIN, "disk.vmdk"}, password, parameters}),
        surroundings);
}

void PluginTest::stopWell(Server& server) {
    Outcome const outcome = server.stop();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}

std::string PluginTest::runClient(Arguments const& command) const {
    Outcome const outcome = test_support::RunningProgram(folder(), command).finish();
    EXPECT_EQ(outcome.status, 0) << command.front() << ": " << outcome.out << outcome.err;
    return outcome.out;
}

void PluginTest::expectContent(std::string const& image) const {
    writeFile("expected", image);
    EXPECT_EQ(runWell(joined({{"compare", "expected", "disk.vmdk"}, passwordOptions()})),
              "equal\n");
    runWell(joined({{"check", "disk.vmdk"}, passwordOptions()}));
}

std::string PluginTest::wordsForDiskInUse(std::string const& name) const {
    return "nbdkit: error: The disk is in use: its lock file is held by another program or another "
           "open disk. (uri: " +
           path(name + ".lock") + ")\n";
}

std::map<std::string, std::string> PluginTest::readParentFiles() const {
    std::map<std::string, std::string> files;
    for (std::string const& name : listFiles()) {
        if (name.rfind("parent", 0) == 0)
            files[name] = readFile(name);
    }
    return files;
}

} // namespace nbdkit
