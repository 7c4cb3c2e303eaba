#include "tests/support/folder_cut.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include <sys/stat.h>

#include "tests/support/file_log.h"

namespace test_support {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDeviceSectorBytes = 512;

// What a name may stand for beside a file.
constexpr int kNoFile = -1;
constexpr int kFolder = -2;

std::uint64_t inodeOf(fs::path const& file) {
    struct stat status = {};
    if (::lstat(file.c_str(), &status) != 0)
        throw std::runtime_error("no such file: " + file.string());
    return status.st_ino;
}

std::string parentOf(std::string const& path) {
    return fs::path(path).parent_path().string();
}

} // namespace

Bytes readFileContent(fs::path const& file) {
    std::ifstream stream(file, std::ios::binary);
    Bytes content(fs::file_size(file));
    stream.read(reinterpret_cast<char*>(content.data()),
                static_cast<std::streamsize>(content.size()));
    return content;
}

FolderImage imageOf(fs::path const& folder) {
    FolderImage image;
    for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file())
            image[entry.path().lexically_relative(folder).string()] = readFileContent(entry.path());
    }
    return image;
}

void putImage(fs::path const& folder, FolderImage const& image) {
    for (auto const& [name, content] : image) {
        fs::create_directories((folder / name).parent_path());
        std::ofstream(folder / name, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }
}

struct FolderCut::Operation {
    FileLogRecord record;
    std::string path;
    Bytes content;
};

/// A write, or a new length if there is no content.
struct FolderCut::Change {
    std::size_t operation;
    std::size_t position;
    Bytes content;

    void apply(Bytes& bytes, std::size_t first, std::size_t end) const {
        if (bytes.size() < position + end)
            bytes.resize(position + end);
        std::copy(content.begin() + static_cast<std::ptrdiff_t>(first),
                  content.begin() + static_cast<std::ptrdiff_t>(end),
                  bytes.begin() + static_cast<std::ptrdiff_t>(position + first));
    }
};

struct FolderCut::File {
    /// "" for one that the program made.
    std::string formerPath;
    Bytes synced;
    std::vector<Change> changes;
};

struct FolderCut::Name {
    struct Meaning {
        std::size_t operation;
        int file;
    };

    /// The first is synced.
    std::vector<Meaning> meanings;
};

/// What of the operations is there.
class FolderCut::Choice {
public:
    Choice(Loss loss, std::size_t operations, std::mt19937& random)
        : m_loss(loss),
          m_random(random),
          m_lastOperation(loss == Loss::LastOperations ? random() % (operations + 1) : operations) {
    }

    int meaningOf(Name const& name) {
        std::vector<Name::Meaning> const& all = name.meanings;
        if (m_loss == Loss::Everything)
            return all.front().file;
        auto last = all.begin();
        for (auto each = all.begin() + 1; each != all.end(); ++each) {
            if (each->operation <= m_lastOperation && hasNamesOf(each->operation))
                last = each;
        }
        return last->file;
    }

    void apply(Change const& change, Bytes& bytes) {
        if (m_loss == Loss::Everything || change.operation > m_lastOperation)
            return;
        bool const isAny = m_loss == Loss::AnyOperations;
        if (change.content.empty()) {
            if (!isAny || m_random() % 2 == 0)
                bytes.resize(change.position);
            return;
        }
        if (!isAny || m_random() % 2 == 0) {
            change.apply(bytes, 0, change.content.size());
            return;
        }
        for (std::size_t at = 0; at < change.content.size(); at += kDeviceSectorBytes) {
            if (m_random() % 2 == 0)
                change.apply(bytes, at, std::min(change.content.size(), at + kDeviceSectorBytes));
        }
    }

private:
    /// What a renaming does to two names is there for both or for none.
    bool hasNamesOf(std::size_t operation) {
        if (m_loss != Loss::AnyOperations)
            return true;
        auto const [place, isNew] = m_hasNames.emplace(operation, false);
        if (isNew)
            place->second = m_random() % 2 == 0;
        return place->second;
    }

    Loss m_loss;
    std::mt19937& m_random;
    std::size_t m_lastOperation;
    std::map<std::size_t, bool> m_hasNames;
};

FolderCut::FolderCut(fs::path folder) : m_folder(std::move(folder)) {
    for (fs::directory_entry const& entry : fs::recursive_directory_iterator(m_folder)) {
        std::string const path = entry.path().lexically_relative(m_folder).string();
        int file = kFolder;
        if (entry.is_regular_file()) {
            auto const known = m_inodes.find(inodeOf(entry.path()));
            file = known != m_inodes.end()
                       ? known->second
                       : makeFile(inodeOf(entry.path()), readFileContent(entry.path()), path);
        }
        m_names[path].meanings = {{0, file}};
    }
}

FolderCut::~FolderCut() = default;

void FolderCut::readLog(fs::path const& log) {
    std::ifstream stream(log, std::ios::binary);
    FileLogRecord record;
    while (stream.read(reinterpret_cast<char*>(&record), sizeof record)) {
        Operation operation{record, std::string(record.pathBytes, '\0'),
                            Bytes(record.contentBytes)};
        stream.read(operation.path.data(), static_cast<std::streamsize>(record.pathBytes));
        stream.read(reinterpret_cast<char*>(operation.content.data()),
                    static_cast<std::streamsize>(record.contentBytes));
        if (!stream)
            throw std::runtime_error("the log ends within a record");
        m_operations.push_back(std::move(operation));
    }
}

int FolderCut::countOperations(fs::path const& log) {
    std::ifstream stream(log, std::ios::binary);
    FileLogRecord record;
    int count = 0;
    for (; stream.read(reinterpret_cast<char*>(&record), sizeof record); ++count)
        stream.seekg(static_cast<std::streamoff>(record.pathBytes + record.contentBytes),
                     std::ios::cur);
    return count;
}

std::string FolderCut::relative(std::string const& path) const {
    std::string const below = fs::path(path).lexically_relative(m_folder).string();
    return below == "." || below.starts_with("..") ? "" : below;
}

void FolderCut::setName(std::string const& path, int file) {
    if (path.empty())
        return;
    Name& name = m_names[path];
    if (name.meanings.empty())
        name.meanings.push_back({0, kNoFile});
    name.meanings.push_back({m_next, file});
}

void FolderCut::syncNames(std::string const& folderPath) {
    for (auto& [path, name] : m_names) {
        if (parentOf(path) == folderPath)
            name.meanings = {name.meanings.back()};
    }
}

void FolderCut::rename(std::uint64_t inode, std::string const& from, std::string const& to) {
    auto const known = m_inodes.find(inode);
    if (known == m_inodes.end())
        throw std::runtime_error("what was renamed is no file of the folder: " + from);
    setName(to, known->second);
    setName(from, kNoFile);
}

int FolderCut::makeFile(std::uint64_t inode, Bytes content, std::string const& formerPath) {
    int const file = static_cast<int>(m_files.size());
    m_files.push_back({formerPath, std::move(content), {}});
    m_inodes[inode] = file;
    return file;
}

bool FolderCut::step() {
    if (m_next == m_operations.size())
        return false;
    Operation& operation = m_operations[m_next];
    ++m_next;
    using Kind = FileLogRecord::Kind;
    std::string const path = relative(operation.path);
    switch (operation.record.kind) {
    case Kind::Make:
        // A file elsewhere may have the inode of one that is gone.
        if (path.empty())
            m_inodes.erase(operation.record.file);
        else
            setName(path, makeFile(operation.record.file, {}, ""));
        return true;
    case Kind::MakeFolder:
        setName(path, kFolder);
        return true;
    case Kind::Remove:
        setName(path, kNoFile);
        return true;
    case Kind::Rename:
        rename(operation.record.file,
               relative({operation.content.begin(), operation.content.end()}), path);
        return true;
    case Kind::SyncFolder:
        if (!path.empty() || fs::path(operation.path) == m_folder)
            syncNames(path);
        return true;
    default:
        break;
    }
    auto const known = m_inodes.find(operation.record.file);
    if (known == m_inodes.end())
        return true;
    File& file = m_files[static_cast<std::size_t>(known->second)];
    if (operation.record.kind == Kind::Link) {
        setName(path, known->second);
    } else if (operation.record.kind == Kind::SyncFile) {
        std::mt19937 unused;
        Choice all(Loss::Nothing, m_next, unused);
        file.synced = makeContent(file, all);
        file.changes.clear();
    } else {
        file.changes.push_back({m_next, static_cast<std::size_t>(operation.record.position),
                                std::move(operation.content)});
    }
    return true;
}

Bytes FolderCut::makeContent(File const& file, Choice& choice) const {
    Bytes content = file.synced;
    for (Change const& change : file.changes)
        choice.apply(change, content);
    return content;
}

FolderCut::State FolderCut::makeState(Loss loss, std::mt19937& random) {
    Choice choice(loss, m_next, random);
    std::set<std::string> folders{""};
    State state = {};
    std::string digest;
    // A folder comes before what is in it.
    for (auto const& [path, name] : m_names) {
        int const file = choice.meaningOf(name);
        if (file == kNoFile || folders.count(parentOf(path)) == 0)
            continue;
        if (file == kFolder) {
            folders.insert(path);
            continue;
        }
        File const& chosen = m_files[static_cast<std::size_t>(file)];
        Bytes content = makeContent(chosen, choice);
        std::string_view const bytes(reinterpret_cast<char const*>(content.data()), content.size());
        digest += path + ":" + std::to_string(std::hash<std::string_view>()(bytes)) + "\n";
        state.files[path] = std::move(content);
        if (!chosen.formerPath.empty())
            state.formerPaths[path] = chosen.formerPath;
    }
    state.isNew = m_made.insert(digest).second;
    return state;
}

} // namespace test_support
