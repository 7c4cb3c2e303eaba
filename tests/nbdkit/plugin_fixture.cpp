#include "tests/nbdkit/plugin_fixture.h"

#include <cstdlib>

namespace nbdkit {

namespace {

void append(Arguments& arguments, Arguments const& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
}

} // namespace

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
    append(create, kind.options);
    if (kind.isEncrypted)
        create.emplace_back("--encrypt");
    append(create, passwordOptions());
    runWell(create);
    if (!kind.isChild)
        return;
    Arguments child{"child", "parent.vmdk", "disk.vmdk"};
    append(child, kind.options);
    // A child is compressed if its parent is.
    std::erase(child, "--compressed");
    append(child, passwordOptions());
    runWell(child);
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
    Arguments arguments = options;
    append(arguments, {KELM_NBDKIT_PLUGIN, "disk.vmdk"});
    if (m_kind && m_kind->isEncrypted)
        arguments.emplace_back("password=+password");
    append(arguments, parameters);
    return std::make_unique<Server>(folder(), arguments, surroundings);
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
    Arguments compare{"compare", "expected", "disk.vmdk"};
    Arguments check{"check", "disk.vmdk"};
    append(compare, passwordOptions());
    append(check, passwordOptions());
    EXPECT_EQ(runWell(compare), "equal\n");
    runWell(check);
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
