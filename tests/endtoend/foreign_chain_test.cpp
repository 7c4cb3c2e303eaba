#include <nlohmann/json.hpp>

#include "host/store/file_names.h"
#include "tests/endtoend/tool_fixture.h"
#include "tests/support/filled_foreign_chain.h"
#include "tests/support/model_rounds.h"
#include "yx/native_file_system.h"

namespace endtoend {

namespace {

using test_support::Bytes;
using test_support::FilledForeignChain;

constexpr unsigned int kFirstSeed = 20280000;
constexpr unsigned int kUsualChains = 3;

/// Chains of disks of other software, of mixed grain size, form and length, in the hands of the
/// program. `ForeignChainModel` in tests/host/transfer tries more of them.
class ForeignChainCommands : public ToolTest {
protected:
    void makeChain(unsigned int seed) {
        m_chain = std::make_unique<FilledForeignChain>(
            *yx::makeObject<yx::CNativeFileSystem>(),
            kelm::host::uriFromArgument(path("main.vmdk")).getParent(), seed);
        std::size_t const top = m_chain->getLength() - 1;
        m_top = m_chain->disk(top).name;
        Bytes const& content = m_chain->content(top);
        m_image = std::string(content.begin(), content.end());
        writeFile("image", m_image);
        m_encryption.clear();
        for (std::size_t level = 0; level <= top; ++level) {
            if (!m_chain->disk(level).password.empty())
                m_encryption = {"--encrypt", "--rounds", "1000"};
        }
        writeFile("password", std::string(test_support::kForeignPassword) + "\n");
    }

    /// With the password, which a disk that is not encrypted ignores.
    std::string runOn(Arguments const& command) const {
        return runWell(joined({command, {"--password-file", "password"}}));
    }

    /// A disk reads as the file "image".
    void expectImage(std::string const& disk) const {
        SCOPED_TRACE(disk);
        EXPECT_EQ(runOn({"compare", disk, "image"}), "equal\n");
        runOn({"export", disk, "exported", "--force"});
        std::string const exported = readFile("exported");
        EXPECT_EQ(exported.substr(0, m_image.size()), m_image);
        EXPECT_EQ(exported.find_first_not_of('\0', m_image.size()), std::string::npos);
        expectHolesAreZeros(disk, exported);
    }

    void expectHolesAreZeros(std::string const& disk, std::string const& content) const {
        auto const map = nlohmann::json::parse(runOn({"map", disk, "--json"}));
        for (auto const& run : map["runs"]) {
            auto const start = run["startBytes"].get<std::size_t>();
            auto const length = run["lengthBytes"].get<std::size_t>();
            if (run["place"] == "absent") {
                EXPECT_GE(content.find_first_not_of('\0', start),
                          std::min(start + length, content.size()))
                    << "at " << start;
            }
        }
    }

    void changeImage() {
        for (std::size_t at = 5000; at < m_image.size(); at += 1000003)
            m_image.replace(at, 1, 1, 'c');
        m_image.replace(0, 4096, 4096, '\0');
        writeFile("image", m_image);
    }

    std::unique_ptr<FilledForeignChain> m_chain;
    std::string m_top;
    std::string m_image;
    Arguments m_encryption;
};

TEST_F(ForeignChainCommands, GiveEveryByteOnEveryRoad) {
    for (unsigned int i = 0; i < kUsualChains * test_support::modelRounds() && !HasFailure(); ++i) {
        unsigned int const seed = kFirstSeed + i;
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        makeChain(seed);
        SCOPED_TRACE(testing::Message() << *m_chain);
        expectImage(m_top);
        for (Arguments const& kind : {Arguments{}, Arguments{"--compressed"}}) {
            runOn(joined({{"convert", m_top, "copy.vmdk", "--force"}, kind}));
            expectImage("copy.vmdk");
        }
        changeImage();
        runOn(joined(
            {{"import", "image", "child.vmdk", "--force", "--parent", m_top}, m_encryption}));
        expectImage("child.vmdk");
        runOn({"rebase", "child.vmdk", "--parent", m_top});
        expectImage("child.vmdk");
        runOn({"flatten", "child.vmdk"});
        for (std::size_t level = 0; level < m_chain->getLength(); ++level)
            std::filesystem::remove(path(m_chain->disk(level).name));
        expectImage("child.vmdk");
        for (std::string const& file : listFiles())
            std::filesystem::remove(path(file));
    }
}

} // namespace

} // namespace endtoend
