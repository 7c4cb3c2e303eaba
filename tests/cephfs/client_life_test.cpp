#include "integrations/cephfs/client_life.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "integrations/cephfs/client_note.h"

namespace client_life_test {

namespace {

using kelm::ceph::CephClient;
using kelm::ceph::ClientNote;
using kelm::ceph::findLifeOf;
using Life = kelm::host::StoreHolder::Life;

std::string thisHost() {
    utsname names{};
    ::uname(&names);
    return names.nodename;
}

CephClient clientOf(std::string const& host, std::string const& process) {
    CephClient client;
    client.host = host;
    client.process = process;
    client.connectedSeconds = 0;
    return client;
}

TEST(ClientLife, AProcessOfThisMachineLivesIfItIsAsOldAsTheClient) {
    std::string const own = std::to_string(::getpid());
    CephClient client = clientOf(thisHost(), own);
    EXPECT_EQ(findLifeOf(client), Life::LivesHere);
    // The number was another process's.
    client.connectedSeconds = 1000000000;
    EXPECT_EQ(findLifeOf(client), Life::Unknown);
    EXPECT_EQ(findLifeOf(clientOf(thisHost() + "-2", own)), Life::Unknown);
    for (char const* const process : {"", "0", "self", "../1", "99999999999"})
        EXPECT_EQ(findLifeOf(clientOf(thisHost(), process)), Life::Unknown) << process;
}

TEST(ClientLife, ANoteThatIsLockedIsOfAProcessThatLivesWhateverItsMachineIsCalled) {
    ClientNote note;
    note.setSite({"c5d4cdb4-0b6c-4a52-8a3f-7cf2a04f9b2e", 1, "writer"});
    CephClient client = clientOf("elsewhere", "1");
    client.uuid = note.getUUID();
    EXPECT_EQ(findLifeOf(client), Life::LivesHere);
    note.remove();
    EXPECT_EQ(findLifeOf(client), Life::Unknown);
}

TEST(ClientLife, ANoteThatWasLeftIsOfAProcessThatHasEnded) {
    ClientNote::Site const site{"c5d4cdb4-0b6c-4a52-8a3f-7cf2a04f9b2e", 77, "nobody-else"};
    CephClient client = clientOf("elsewhere", "1");
    {
        ClientNote note;
        note.setSite(site);
        client.uuid = note.getUUID();
    }
    EXPECT_EQ(findLifeOf(client), Life::DiedHere);
    for (ClientNote& note : ClientNote::takeThoseOfTheDead(site))
        note.remove();
    EXPECT_EQ(findLifeOf(client), Life::Unknown);
}

TEST(ClientLife, AUUIDThatIsNoneLeadsNowhere) {
    CephClient client = clientOf("elsewhere", "1");
    for (char const* const uuid :
         {"", "../../../../../../../../etc/passwd00", "8913b60b/8229-4bd6-a5af-7433b72afad1"}) {
        client.uuid = uuid;
        EXPECT_EQ(findLifeOf(client), Life::Unknown) << uuid;
    }
}

} // namespace

} // namespace client_life_test
