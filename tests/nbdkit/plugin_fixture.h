#pragma once

#include <map>
#include <memory>
#include <string>

#include "tests/endtoend/tool_fixture.h"
#include "tests/nbdkit/client.h"
#include "tests/nbdkit/server.h"

namespace nbdkit {

constexpr std::size_t kGrainBytes = 65536;

/// The size of the disks and images here: some grains, and four extents of a split disk.
constexpr std::size_t kDiskBytes = std::size_t{16} << 20;

struct DiskKind {
    char const* name;

    /// What the program that makes it is told, or makes its parent.
    Arguments options;
    bool isEncrypted = false;
    bool isChild = false;
};

std::vector<DiskKind> const& allKinds();

/// "disk.vmdk" of one kind in a folder of its own, the parent's being "parent.vmdk", and what a
/// user does with it: by nbdkit and its clients, and by the program kelm for comparison.
class PluginTest : public endtoend::ToolTest {
protected:
    PluginTest();

    /// Makes an empty disk. That of a child kind is the child of a disk that holds `parentImage`.
    void makeDisk(DiskKind const& kind, std::string const& parentImage = "");

    /// Makes a disk that holds `image`, also of a child kind.
    void makeDisk(DiskKind const& kind, std::string const& parentImage, std::string const& image);

    /// Starts a server: options of nbdkit, and parameters of the plugin behind the disk and its
    /// password.
    std::unique_ptr<Server> serve(Arguments const& options = {}, Arguments const& parameters = {},
                                  ServerSurroundings const& surroundings = {}) const;

    /// Stops a server, which must have had nothing to say.
    static void stopWell(Server& server);

    /// Runs a program in the folder, expects status 0, and returns its output.
    std::string runClient(Arguments const& command) const;

    /// Expects that the disk is sound, and that it reads as `image`.
    void expectContent(std::string const& image) const;

    /// The files that belong to the parent, with their content.
    std::map<std::string, std::string> readParentFiles() const;

    /// What nbdkit says when it refuses to serve that disk.
    std::string wordsForDiskInUse(std::string const& name) const;

    Arguments passwordOptions() const;

    DiskKind const* m_kind = nullptr;
};

/// The tests that run on every kind of disk.
class EveryKind : public PluginTest, public ::testing::WithParamInterface<DiskKind> {};

} // namespace nbdkit
