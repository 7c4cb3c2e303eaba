#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "host/content/disk_bytes.h"
#include "host/content/partition_table.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "host/transfer/exact_size.h"
#include "tools/kelm/child_program.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/local_file.h"
#include "tools/kelm/mount_record.h"
#include "tools/kelm/options.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

// The numbers of descriptors that the servers get. The last one is closed last when a server ends,
// behind those of the disk.
constexpr int kPasswordDescriptor = 60;
constexpr int kParentPasswordDescriptor = 61;
constexpr int kAliveDescriptor = 500;

constexpr int kLookMilliseconds = 50;
constexpr std::size_t kMaxSaid = 1000;

struct MountArguments {
    std::string disk;
    std::string folder;
    int partition = 0;
    std::string options;
    bool unfinished = false;
    PasswordOptions passwords;
};

/// What is to be mounted, and what opens the disk.
struct MountSource {
    yx::CURI disk;
    std::optional<host::Partition> partition;
    host::Password password;
    host::Password parentPassword;
};

void verifyOptions(std::string const& options) {
    std::istringstream words(options);
    for (std::string word; std::getline(words, word, ',');) {
        std::string const name = word.substr(0, word.find('='));
        for (char const* const refused :
             {"rw", "remount", "bind", "rbind", "move", "loop", "offset", "sizelimit"}) {
            if (name == refused) {
                throw UsageError("The option " + word +
                                 " does not go with a disk, which is only read.");
            }
        }
    }
}

std::string resolveFolder(std::string const& folder) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(::realpath(folder.c_str(), nullptr),
                                                               &std::free);
    if (!resolved)
        host::throwSystemError("Cannot find the folder", folder);
    return resolved.get();
}

/// Says all that is missing at once.
void verifyPrograms() {
    struct Program {
        char const* name;
        char const* package;
    };
    constexpr Program kPrograms[] = {
        {"nbdkit", "nbdkit"}, {"nbdfuse", "libnbd-bin"}, {"mount", "mount"}, {"umount", "mount"}};
    std::string missing;
    for (Program const& program : kPrograms) {
        if (!isProgramThere(program.name)) {
            missing += (missing.empty() ? "" : ", ") + std::string(program.name) + " (package " +
                       program.package + ")";
        }
    }
    if (missing.empty())
        return;
    throw yx::CIOError(
        yx::CIOError::NotSupported,
        yx::String::fromUTF8("Mounting needs programs that are not installed: " + missing + "."),
        yx::CProps(), nullptr);
}

/// The partition of that number, or the only one; nothing for a disk without partitions.
std::optional<host::Partition> choosePartition(host::PartitionTable const& table, int number) {
    for (std::string const& problem : table.problems)
        yx::logWarning(yx::String::fromUTF8(problem));
    if (table.kind == host::PartitionTable::Kind::None) {
        if (number != 0)
            throw UsageError("The disk has no partitions; leave out --partition.");
        return std::nullopt;
    }
    std::vector<host::Partition> usable;
    std::string numbers;
    for (host::Partition const& partition : table.partitions) {
        if (partition.isExtended)
            continue;
        usable.push_back(partition);
        numbers += (numbers.empty() ? "" : ", ") + std::to_string(partition.number);
        if (partition.number == number)
            return partition;
    }
    if (usable.empty())
        throw UsageError("The disk has no partition that could be mounted.");
    if (number == 0 && usable.size() == 1)
        return usable.front();
    if (number != 0) {
        throw UsageError("The disk has no partition " + std::to_string(number) +
                         " that could be mounted, only: " + numbers + ".");
    }
    throw UsageError("The disk has several partitions; choose one with --partition: " + numbers +
                     ".");
}

/// Looks at the disk, so that all that is wrong with it or with its password shows before anything
/// is started.
MountSource lookAtDisk(Invocation& invocation, MountArguments& arguments) {
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    host::DiskBytes bytes(*disk, host::getExactSizeBytes(*disk));
    MountSource source;
    source.disk = disk->getDisk().getMainFileURI();
    source.partition = choosePartition(host::readPartitionTable(bytes), arguments.partition);
    source.password = host::Password(usedPassword(invocation, arguments.passwords));
    source.parentPassword = host::Password(invocation.readParentPassword());
    return source;
}

/// Where somebody reads a password that no list of processes shows.
host::FileDescriptor makePasswordPipe(host::Password const& password) {
    std::string text = password.get().toStdString() + "\n";
    if (text.find('\n') != text.size() - 1) {
        throw yx::CIOError(yx::CIOError::NotSupported, "nbdkit takes no password of several lines.",
                           yx::CProps(), nullptr);
    }
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        host::throwSystemError("Cannot make a pipe", "pipe");
    host::FileDescriptor reader = host::FileDescriptor::own(ends[0]);
    host::FileDescriptor const writer = host::FileDescriptor::own(ends[1]);
    // No password is longer than what a pipe holds.
    ssize_t const written = ::write(writer.get(), text.data(), text.size());
    bool const isWhole = written == static_cast<ssize_t>(text.size());
    ::explicit_bzero(text.data(), text.size());
    if (!isWhole)
        host::throwSystemError("Cannot write to a pipe", "pipe");
    return reader;
}

/// What a program has said, in one line.
std::string inOneLine(std::string said) {
    std::replace(said.begin(), said.end(), '\n', ' ');
    if (said.size() > kMaxSaid)
        said.resize(kMaxSaid);
    return host::printable(said);
}

[[noreturn]] void throwFailed(std::string const& message, std::string const& said,
                              std::string const& hint) {
    throw yx::CIOError(yx::CIOError::NotSupported,
                       yx::String::fromUTF8(message + " " + inOneLine(said) + hint), yx::CProps(),
                       nullptr);
}

/// A disk on its way to a folder. What was begun is taken down again unless it is kept.
class Mounting {
public:
    Mounting(Invocation& invocation, std::string const& folder, MountSource const& source)
        : m_invocation(invocation),
          m_source(source),
          m_record(MountRecord::make(folder, host::displayName(source.disk))) {}
    Mounting(Mounting const&) = delete;
    Mounting& operator=(Mounting const&) = delete;

    ~Mounting() {
        if (m_isKept)
            return;
        try {
            // One that serves ends by itself once its file is taken away.
            if (m_servers && !m_isServed)
                m_servers->end();
            m_record.takeDown(nullptr);
            if (m_servers)
                m_servers->end();
        } catch (yx::CError const& error) {
            yx::logWarning(error, "What was begun could not be taken down; use kelm umount.", "");
        }
    }

    /// Shows the disk as a file.
    void serve() {
        int const ready =
            ::open(m_record.pathOf("ready").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        host::FileDescriptor const readyEnd = host::FileDescriptor::own(ready);
        if (!readyEnd.isOpen())
            host::throwSystemError("Cannot open the pipe", m_record.pathOf("ready"));
        startServers();
        pollfd event = {ready, POLLIN, 0};
        while (::poll(&event, 1, kLookMilliseconds) <= 0 || (event.revents & POLLIN) == 0) {
            m_invocation.getCancel().check();
            if (m_servers->hasEnded())
                throwFailed("nbdfuse cannot show the disk as a file:", m_record.readLog(),
                            hintOfServers());
        }
        m_isServed = true;
    }

    /// Mounts that file.
    void mount(std::string const& options) {
        std::string all = "ro,loop";
        if (m_source.partition) {
            all += ",offset=" + std::to_string(m_source.partition->startBytes) +
                   ",sizelimit=" + std::to_string(m_source.partition->sizeBytes);
        }
        if (!options.empty())
            all += "," + options;
        m_invocation.getCancel().check();
        ProgramEnd const end =
            runProgram({"mount", "-o", all, m_record.getImage(), m_record.getFolder()});
        if (end.status != 0)
            throwFailed("mount failed:", end.words, hintOfMount());
        m_record.rememberMounted();
        m_invocation.getCancel().check();
    }

    void keep() { m_isKept = true; }

private:
    void startServers() {
        std::vector<std::string> words{"nbdfuse",
                                       "-r",
                                       "-P",
                                       m_record.pathOf("ready"),
                                       m_record.pathOf("image"),
                                       "--command",
                                       "nbdkit",
                                       "-s",
                                       "-r",
                                       "kelm",
                                       "file=" + host::displayName(m_source.disk)};
        BackgroundProgram::Descriptors descriptors;
        host::FileDescriptor const alive = m_record.lockAlive();
        descriptors.emplace_back(alive.get(), kAliveDescriptor);
        host::FileDescriptor password;
        host::FileDescriptor parentPassword;
        if (!m_source.password.isEmpty()) {
            password = makePasswordPipe(m_source.password);
            descriptors.emplace_back(password.get(), kPasswordDescriptor);
            words.push_back("password=-" + std::to_string(kPasswordDescriptor));
        }
        if (!m_source.parentPassword.isEmpty()) {
            parentPassword = makePasswordPipe(m_source.parentPassword);
            descriptors.emplace_back(parentPassword.get(), kParentPasswordDescriptor);
            words.push_back("parent-password=-" + std::to_string(kParentPasswordDescriptor));
        }
        addTrust(words);
        // What is left: the disk may come into use again before the server takes it.
        host::BusyWait const& wait = m_invocation.getWait();
        if (wait.isOn())
            words.push_back("wait=" + std::to_string(wait.getLeftSeconds().count()));
        m_servers.emplace(words, m_record.pathOf("log"), descriptors);
    }

    void addTrust(std::vector<std::string>& words) const {
        host::DiskTrust const& trust = m_invocation.getTrust();
        words.push_back("max-rounds=" + std::to_string(m_invocation.getMaxRounds()));
        for (yx::CURI const& path : trust.allowedPaths)
            words.push_back("allow-path=" + host::displayName(path));
        if (trust.allowOversize)
            words.emplace_back("allow-oversize=yes");
        if (trust.unfinished != host::UnfinishedDisks::Refused)
            words.emplace_back("unfinished=yes");
    }

    static std::string hintOfServers() {
        if (::access("/dev/fuse", R_OK | W_OK) != 0)
            return " FUSE is missing or not for you: /dev/fuse cannot be used.";
        return "";
    }

    static std::string hintOfMount() {
        if (::geteuid() != 0)
            return " Only root mounts disks.";
        if (::access("/dev/loop-control", R_OK | W_OK) != 0)
            return " There are no loop devices: /dev/loop-control cannot be used.";
        return "";
    }

    Invocation& m_invocation;
    MountSource const& m_source;
    MountRecord m_record;
    std::optional<BackgroundProgram> m_servers;
    bool m_isServed = false;
    bool m_isKept = false;
};

ExitStatus mountDisk(Invocation& invocation, MountArguments& arguments) {
    verifyOptions(arguments.options);
    verifyIsOnThisMachine("The folder", arguments.folder);
    std::string const folder = resolveFolder(arguments.folder);
    verifyPrograms();
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    MountSource const source = lookAtDisk(invocation, arguments);
    Mounting mounting(invocation, folder, source);
    mounting.serve();
    mounting.mount(arguments.options);
    nlohmann::ordered_json report{{"file", host::displayName(source.disk)}, {"folder", folder}};
    if (source.partition)
        report["partition"] = source.partition->number;
    invocation.getResult().add(report);
    mounting.keep();
    return ExitStatus::Done;
}

} // namespace

void addMountCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<MountArguments>();
    CLI::App& command = addCommand(
        program, run, "mount", "Show the files on a disk in a folder, read-only",
        "kelm mount backup.vmdk /mnt\n"
        "  kelm umount /mnt",
        [arguments](Invocation& invocation) { return mountDisk(invocation, *arguments); });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addFileArgument(command, "FOLDER", arguments->folder, "The folder");
    command
        .add_option("--partition", arguments->partition,
                    "The number of the partition, as 'files' lists it; needed if there are several")
        ->type_name("N")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()));
    command
        .add_option("-o", arguments->options,
                    "Options for mount(8), with commas between them, such as noload for an ext4 "
                    "that was not unmounted; ro is always one")
        ->type_name("OPTIONS");
    addUnfinishedOption(command, arguments->unfinished);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
