#include "tests/cluster/client_process.h"

#include <csignal>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>

#include "host/disk/safe_disk.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/support/bytes.h"
#include "tests/support/safe_disks.h"

namespace cluster_client {

namespace {

/// What a client process has.
class Client {
public:
    void perform(std::string const& verb, std::string const& object) {
        if (verb == "open")
            m_stream = m_files->openFile(yx::CURI(yx::String::fromUTF8(object)),
                                         yx::IIOStream::ReadWrite, nullptr);
        else if (verb == "lock")
            m_lock = m_stream->lockRange(0, std::numeric_limits<__int64>::max(),
                                         yx::IStreamBase::Exclusive);
        else if (verb == "write")
            test_support::writeAt(*m_stream, 0, test_support::fromText(object));
        else if (verb == "flush")
            m_stream->flush();
        else
            fill(yx::CURI(yx::String::fromUTF8(object)));
    }

private:
    void fill(yx::CURI const& uri) {
        m_guard = yx::makeObject<kelm::host::FileGuard>(m_files.get(), true);
        m_guard->keep();
        test_support::NewDisk request = test_support::requestFor(test_support::DiskKind());
        request.isToBeFilled = true;
        m_disk = test_support::SafeDisk::create(m_guard.get(), uri, request);
        auto const grain = [](char content) {
            return test_support::fromText(
                std::string(static_cast<std::size_t>(test_support::kGrainBytes), content));
        };
        test_support::writeGrain(*m_disk, 0, grain('1'));
        m_disk->flush();
        test_support::writeGrain(*m_disk, 1, grain('2'));
    }

    yx::P<kelm::ceph::CCephFileSystem> m_files = yx::makeObject<kelm::ceph::CCephFileSystem>();
    yx::P<yx::IIOStream> m_stream;
    yx::P<yx::IStreamLock> m_lock;
    yx::P<kelm::host::FileGuard> m_guard;
    std::unique_ptr<test_support::SafeDisk> m_disk;
};

} // namespace

void obey() {
    Client client;
    for (std::string line; std::getline(std::cin, line);) {
        std::size_t const blank = line.find(' ');
        std::string answer = "done";
        try {
            client.perform(line.substr(0, blank),
                           blank == std::string::npos ? "" : line.substr(blank + 1));
        } catch (std::exception const& error) {
            answer = error.what();
        }
        std::cout << answer << std::endl;
    }
}

ClientProcess::ClientProcess()
    : m_program(std::filesystem::current_path(),
                {std::filesystem::read_symlink("/proc/self/exe").string(), kClientOption}) {}

std::string ClientProcess::tell(std::string const& what) {
    m_program.feed(what + "\n");
    std::string line;
    for (std::string next = m_program.readOutput(1); next != "\n"; next = m_program.readOutput(1)) {
        if (next.empty())
            return "The process has ended.";
        line += next;
    }
    return line;
}

void ClientProcess::kill() {
    m_program.signal(SIGKILL);
    m_program.finish();
}

} // namespace cluster_client
