#include "host/backups/disk_note.h"

#include <cassert>
#include <sstream>
#include <string>

#include "host/backups/descriptor_file.h"
#include "host/store/file_status.h"
#include "host/system/name_text.h"

namespace kelm::host {

namespace {

constexpr char kNoteEnd[] = "end";
constexpr __int64 kMaxNoteBytes = __int64{64} << 20;

char const* nameOfWork(DiskNote::Work work) {
    switch (work) {
    case DiskNote::Work::Moving:
        return "moving";
    case DiskNote::Work::Deleting:
        return "deleting";
    case DiskNote::Work::Copying:
        return "copying";
    }
    return "";
}

std::string titleFor(DiskNote::Work work) {
    return std::string("kelm ") + nameOfWork(work) + " 1";
}

std::string readText(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    unsigned int options = 0;
    yx::P<yx::IIOStream> const stream =
        fileSystem->openFile(file, yx::IIOStream::ReadOnly, &options);
    if (stream->getLength() > kMaxNoteBytes)
        return {};
    std::string text(static_cast<std::size_t>(stream->getLength()), '\0');
    stream->read(text.data(), static_cast<int>(text.size()));
    return text;
}

yx::CURI readURI(std::istringstream& line) {
    std::string text;
    line >> text;
    return text.empty() ? yx::CURI() : yx::CURI(yx::String::fromUTF8(text));
}

yx::String nameForPeople(yx::CURI const& file) {
    return yx::String::fromUTF8(displayName(file));
}

/// Whether the text is a whole note.
bool parseNote(std::string const& text, DiskNote& note) {
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line) || line != titleFor(note.work))
        return false;
    while (std::getline(lines, line)) {
        if (line == kNoteEnd)
            return !note.files.empty();
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "main") {
            FileIdentity& identity = note.mainIdentity;
            words >> identity.device >> identity.inode >> identity.birthSeconds >>
                identity.birthNanoseconds;
            // Of files of the operating system there is nothing more.
            std::getline(words >> std::ws, identity.store);
        } else if (key == "file") {
            yx::CURI const from = readURI(words);
            note.files.emplace_back(from, readURI(words));
        }
    }
    return false;
}

} // namespace

yx::CURI DiskNote::nameFor(yx::CURI const& mainFile, Work work) {
    return (mainFile.getParent() << (mainFile.getName() + "." + nameOfWork(work))).toNormalized();
}

std::optional<DiskNote> DiskNote::tryRead(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                                          Work work) {
    yx::CURI const file = nameFor(mainFile, work);
    if (!fileSystem->fileExists(file))
        return std::nullopt;
    DiskNote note{work};
    bool const isWhole = parseNote(readText(fileSystem, file), note);
    // One that was moved here by hand speaks of other files.
    if (!isWhole || note.files.front().first != mainFile)
        return std::nullopt;
    return note;
}

void DiskNote::write(DurableFiles& steps, yx::CURI const& like) const {
    assert(!files.empty());
    yx::CURI const& mainFile = files.front().first;
    std::ostringstream text;
    text << titleFor(work) << "\nmain " << mainIdentity.device << ' ' << mainIdentity.inode << ' '
         << mainIdentity.birthSeconds << ' ' << mainIdentity.birthNanoseconds
         << (mainIdentity.store.empty() ? "" : " ") << mainIdentity.store << '\n';
    for (auto const& [from, to] : files) {
        text << "file " << from.toString(true).toStdString();
        if (!to.isEmpty())
            text << ' ' << to.toString(true).toStdString();
        text << '\n';
    }
    text << kNoteEnd << '\n';
    std::string const bytes = text.str();
    yx::CURI const file = nameFor(mainFile, work);
    std::vector<unsigned char> const content(bytes.begin(), bytes.end());
    // A note that is there holds until the new one does.
    if (identifyFile(file))
        steps.replace(file, content);
    else
        steps.make(file, content, like);
}

void DiskNote::remove(DurableFiles& steps) const {
    steps.remove(nameFor(files.front().first, work));
}

yx::String DiskNote::describe(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    if (std::optional<DiskNote> const note = tryRead(fileSystem, mainFile, Work::Moving)) {
        return "The disk is being renamed to '" + nameForPeople(note->files.front().second) +
               "'. The same 'kelm rename' goes on with it.";
    }
    if (tryRead(fileSystem, mainFile, Work::Deleting)) {
        return "The disk is being deleted. 'kelm delete' goes on with it.";
    }
    if (std::optional<DiskNote> const note = tryRead(fileSystem, mainFile, Work::Copying)) {
        return "The disk is an unfinished copy of '" + nameForPeople(note->files.front().second) +
               "'. The same 'kelm copy' goes on with it.";
    }
    if (fileSystem->fileExists(nameOfDescriptorChange(mainFile)))
        return "The disk was about to get another parent. The same 'kelm drop', 'kelm prune' or "
               "'kelm rebase' goes on with it.";
    return {};
}

} // namespace kelm::host
