#include "tests/support/recording_file_system.h"

#include <algorithm>

namespace test_support {

using Kind = FileOperation::Kind;

FileOperationKinds const kTransfers{Kind::Read, Kind::Write, Kind::SetLength, Kind::Flush};
FileOperationKinds const kChanges{Kind::Write, Kind::SetLength, Kind::Flush, Kind::Delete};

RecordingFileSystem::RecordingFileSystem(yx::IFileSystem* fileSystem, Content content)
    : RecordingFileSystem(fileSystem, content, std::make_shared<std::vector<Entry>>()) {}

RecordingFileSystem::RecordingFileSystem(yx::IFileSystem* fileSystem, Content content,
                                         std::shared_ptr<std::vector<Entry>> entries)
    : HookedFileSystem(fileSystem,
                       [content, entries](FileOperation& operation, Proceed const& proceed) {
                           std::size_t const index = entries->size();
                           entries->push_back({operation, true, {}});
                           if (content == Content::Keep)
                               entries->back().content = operation.content();
                           entries->back().operation.pieces = nullptr;
                           entries->back().operation.pieceCount = 0;
                           proceed();
                           if (index < entries->size())
                               (*entries)[index].failed = false;
                       }),
      m_entries(std::move(entries)) {}

std::vector<std::string> RecordingFileSystem::lines(FileOperationKinds const& kinds,
                                                    std::string const& file) const {
    std::vector<std::string> lines;
    for (Entry const& entry : *m_entries) {
        if (!kinds.contains(entry.operation.kind))
            continue;
        if (file.empty() || entry.operation.file() == file)
            lines.push_back(toText(entry.operation) + (entry.failed ? " failed" : ""));
    }
    return lines;
}

std::vector<std::string> RecordingFileSystem::lines() const {
    std::vector<std::string> lines;
    for (Entry const& entry : *m_entries)
        lines.push_back(toText(entry.operation) + (entry.failed ? " failed" : ""));
    return lines;
}

std::size_t RecordingFileSystem::count(FileOperationKinds const& kinds,
                                       std::string const& file) const {
    return lines(kinds, file).size();
}

testing::AssertionResult comesBefore(std::vector<std::string> const& lines,
                                     std::string const& first, std::string const& second) {
    auto const firstLine = std::find(lines.begin(), lines.end(), first);
    auto const secondLine = std::find(lines.begin(), lines.end(), second);
    if (firstLine != lines.end() && secondLine != lines.end() && firstLine < secondLine)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "\"" << first << "\" does not come before \"" << second << "\" in:\n"
           << testing::PrintToString(lines);
}

} // namespace test_support
