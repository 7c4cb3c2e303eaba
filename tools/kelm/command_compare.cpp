#include <memory>

#include "host/disk/disk_files.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "host/transfer/compare.h"
#include "host/transfer/disk_content_reader.h"
#include "host/transfer/raw_content_reader.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/local_file.h"
#include "tools/kelm/options.h"
#include "tools/kelm/two_disk_passwords.h"

namespace kelm::tool {

namespace {

struct CompareArguments {
    std::string left;
    std::string right;
    bool unfinished = false;
    TwoDiskPasswords passwords;
};

/// A disk or a raw image, whichever the file is.
class Side {
public:
    Side(Invocation& invocation, std::string const& file, PasswordOptions& passwords) {
        if (isDisk(invocation, file)) {
            m_disk = openDisk(invocation, file, yx::IIOStream::ReadOnly, passwords);
            m_reader = std::make_unique<host::DiskContentReader>(*m_disk, &invocation.getCancel());
        } else {
            verifyIsOnThisMachine("A raw image", file);
            m_source = std::make_unique<host::RawSource>(file, &invocation.getCancel());
            m_reader = std::make_unique<host::RawContentReader>(*m_source);
        }
    }

    host::ContentReader& getReader() { return *m_reader; }

private:
    /// What is missing in a store is taken for a disk: there are no images.
    static bool isDisk(Invocation& invocation, std::string const& file) {
        if (!host::isStoreURI(file))
            return file != "-" && host::isDiskMainFile(file);
        yx::CURI const uri = host::uriFromArgument(file);
        return host::isDiskMainFile(uri) || !invocation.getFiles()->fileExists(uri);
    }

    std::unique_ptr<host::SafeDisk> m_disk;
    std::unique_ptr<host::RawSource> m_source;
    std::unique_ptr<host::ContentReader> m_reader;
};

ExitStatus compare(Invocation& invocation, CompareArguments& arguments) {
    invocation.setLong();
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    Side left(invocation, arguments.left, arguments.passwords.ofFirst());
    Side right(invocation, arguments.right, arguments.passwords.ofSecond());
    host::Comparison result;
    {
        LongWork const work(invocation, "compare");
        result = host::compareContent(left.getReader(), right.getReader(), work.getOptions());
    }
    CommandResult& output = invocation.getResult();
    output.add({{"equal", result.isEqual()}, {"differingBytes", result.differingBytes}});
    if (result.isEqual()) {
        output.print("equal\n");
        return ExitStatus::Done;
    }
    output.add({{"firstDifferenceBytes", *result.firstDifferenceBytes}});
    output.print("first difference at byte " + std::to_string(*result.firstDifferenceBytes) + "\n" +
                 std::to_string(result.differingBytes) +
                 (result.differingBytes == 1 ? " byte differs\n" : " bytes differ\n"));
    return ExitStatus::Differences;
}

} // namespace

void addCompareCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<CompareArguments>();
    CLI::App& command =
        addCommand(program, run, "compare", "Compare two disks or raw images by their content",
                   "kelm compare /dev/sdb backup.vmdk",
                   [arguments](Invocation& invocation) { return compare(invocation, *arguments); });
    addFileArgument(command, "A", arguments->left,
                    "A disk's main file, a raw image, or '-' for a raw image on standard input");
    addFileArgument(command, "B", arguments->right, "The same");
    addUnfinishedOption(command, arguments->unfinished);
    arguments->passwords.addTo(command);
}

} // namespace kelm::tool
