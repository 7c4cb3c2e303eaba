#include "host/store/file_names.h"
#include "tests/nbdkit/plugin_fixture.h"
#include "tests/support/filled_foreign_chain.h"
#include "tests/support/model_rounds.h"
#include "yx/native_file_system.h"

namespace nbdkit {

namespace {

using test_support::Bytes;
using test_support::FilledForeignChain;

constexpr unsigned int kFirstSeed = 20290000;
constexpr unsigned int kUsualChains = 4;

/// Chains of disks of other software, of mixed grain size, form and length, served.
class ForeignChainPlugin : public PluginTest {
protected:
    /// Returns what the youngest disk of a new chain must read as.
    std::string makeChain(unsigned int seed) {
        m_chain = std::make_unique<FilledForeignChain>(
            *yx::makeObject<yx::CNativeFileSystem>(),
            kelm::host::uriFromArgument(path("main.vmdk")).getParent(), seed);
        Bytes const& content = m_chain->content(m_chain->getLength() - 1);
        return std::string(content.begin(), content.end());
    }

    std::unique_ptr<Server> serveDisk(std::string const& name, Arguments const& options) {
        return std::make_unique<Server>(
            folder(), joined({options,
                              {KELM_NBDKIT_PLUGIN, path(name),
                               std::string("password=") + test_support::kForeignPassword}}));
    }

    /// What the program is told when it makes a child: an encrypted parent's child is encrypted.
    Arguments encryption() const {
        for (std::size_t level = 0; level < m_chain->getLength(); ++level) {
            if (!m_chain->disk(level).password.empty())
                return {"--encrypt", "--rounds", "1000"};
        }
        return {};
    }

    /// For the next chain.
    void clearFolder() {
        for (std::string const& file : listFiles())
            std::filesystem::remove(path(file));
    }

    static void expectContent(Client const& client, std::string const& expected) {
        EXPECT_TRUE(client.read(0, expected.size()) == expected);
    }

    /// What is told to be a hole reads as zeros.
    static void expectHolesAreZeros(Client const& client, std::string const& expected) {
        std::size_t position = 0;
        while (position < expected.size()) {
            std::vector<Extent> const extents =
                client.listExtents(position, expected.size() - position);
            ASSERT_FALSE(extents.empty());
            for (Extent const& extent : extents) {
                std::size_t const end = std::min(expected.size(), position + extent.lengthBytes);
                if (extent.isHole) {
                    EXPECT_GE(expected.find_first_not_of('\0', position), end) << "at " << position;
                }
                position = end;
            }
        }
    }

    std::unique_ptr<FilledForeignChain> m_chain;
};

TEST_F(ForeignChainPlugin, IsServedWithEveryByteAndTrueHoles) {
    for (unsigned int i = 0; i < kUsualChains * test_support::modelRounds() && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "seed " << kFirstSeed + i);
        std::string const expected = makeChain(kFirstSeed + i);
        SCOPED_TRACE(testing::Message() << *m_chain);
        std::unique_ptr<Server> const server =
            serveDisk(m_chain->disk(m_chain->getLength() - 1).name, {"-r"});
        {
            Client const client(server->socketPath());
            expectContent(client, expected);
            expectHolesAreZeros(client, expected);
        }
        stopWell(*server);
        clearFolder();
    }
}

TEST_F(ForeignChainPlugin, IsWrittenToInAChildOfOurs) {
    for (unsigned int i = 0; i < kUsualChains * test_support::modelRounds() && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "seed " << kFirstSeed + i);
        std::string expected = makeChain(kFirstSeed + i);
        SCOPED_TRACE(testing::Message() << *m_chain);
        writeFile("password", std::string(test_support::kForeignPassword) + "\n");
        std::string const top = m_chain->disk(m_chain->getLength() - 1).name;
        runWell(
            joined({{"child", top, "child.vmdk", "--password-file", "password"}, encryption()}));
        std::unique_ptr<Server> const server = serveDisk("child.vmdk", {});
        {
            Client const client(server->socketPath());
            std::size_t const place = expected.size() / 3;
            std::size_t const count = std::min<std::size_t>(expected.size() / 2, 300000);
            ASSERT_EQ(client.writeZeros(place, count), 0);
            expected.replace(place, count, count, '\0');
            ASSERT_EQ(client.write(0, "beginning"), 0);
            expected.replace(0, 9, "beginning");
            ASSERT_EQ(client.flush(), 0);
            expectContent(client, expected);
            expectHolesAreZeros(client, expected);
        }
        stopWell(*server);
        clearFolder();
    }
}

} // namespace

} // namespace nbdkit
