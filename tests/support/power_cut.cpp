#include "tests/support/power_cut.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace test_support {

namespace {

using Kind = FileOperation::Kind;
using Loss = PowerCut::Loss;

constexpr std::size_t kSectorBytes = 512;

std::string keyOf(yx::CURI const& uri) {
    return uri.toNormalized().toString(true).toStdString();
}

yx::CURI uriOf(std::string const& key) {
    return yx::CURI(yx::String::fromUTF8(key));
}

std::size_t toSectors(std::size_t bytes) {
    return (bytes + kSectorBytes - 1) / kSectorBytes;
}

/// Collects what a state is made of, to recognize equal states.
class Fingerprint {
public:
    void add(std::uint64_t value) {
        m_value = (m_value ^ value) * 0x9E3779B97F4A7C15U;
        m_value ^= m_value >> 29;
    }

    std::uint64_t value() const { return m_value; }

private:
    std::uint64_t m_value = 0x2545F4914F6CDD1DU;
};

} // namespace

FileImages imagesOf(yx::CMemoryFileSystem& files) {
    FileImages images;
    for (yx::CURI const& uri : files.listFiles())
        images[keyOf(uri)] = toBytes(files.getFile(uri));
    return images;
}

void putImages(yx::CMemoryFileSystem& files, FileImages const& images) {
    for (yx::CURI const& uri : files.listFiles()) {
        if (!images.contains(keyOf(uri)))
            files.deleteFile(uri, true);
    }
    for (auto const& [uri, content] : images)
        files.putFile(uriOf(uri), toBuffer(content));
}

/// A write or a change of length that no flush covers yet.
struct PowerCut::Change {
    int number; ///< among all changes of the record
    bool isWrite;
    std::size_t firstSector;

    /// The touched sectors as they were after the change, as far as the file reached.
    Bytes sectors;
    std::size_t lengthBefore;
    std::size_t lengthAfter;
};

struct PowerCut::File {
    int number;
    Bytes durable;
    int durableVersion = 0;
    Bytes current;
    std::vector<Change> pending;
};

/// What a name stood for, one after the other; null for no file. The first is for certain.
struct PowerCut::Name {
    std::vector<std::shared_ptr<File>> files;
};

struct PowerCut::Opening {
    std::string uri;
    std::shared_ptr<File> file;
    bool needsFlush;
};

/// Decides what of the pending changes is there.
class PowerCut::Choice {
public:
    Choice(Loss loss, std::mt19937& random, std::vector<Change const*> const& pending)
        : m_loss(loss), m_random(random) {
        if (pending.empty())
            return;
        m_special = pending[draw(pending.size())]->number;
        m_lastWrite = -1;
        for (Change const* change : pending) {
            if (change->isWrite)
                m_lastWrite = std::max(m_lastWrite, change->number);
        }
        m_keepOneIn = 2 + draw(3);
    }

    /// How many of the first sectors of a change are there.
    std::size_t sectorsKept(Change const& change) {
        std::size_t const count = std::max<std::size_t>(toSectors(change.sectors.size()), 1);
        switch (m_loss) {
        case Loss::Everything:
            return 0;
        case Loss::Nothing:
        case Loss::AnySectors:
            return count;
        case Loss::OneChange:
            return change.number == m_special ? 0 : count;
        case Loss::TornWrite:
            return change.number == m_lastWrite ? draw(count) : count;
        case Loss::LastChanges:
            return change.number < m_special ? count : 0;
        case Loss::SomeChanges:
            return draw(m_keepOneIn) == 0 ? count : 0;
        }
        return 0;
    }

    bool hasAnySectors() const { return m_loss == Loss::AnySectors; }
    bool drawsNames() const { return m_loss == Loss::SomeChanges || hasAnySectors(); }
    bool keepsNames() const { return m_loss != Loss::Everything; }

    std::size_t draw(std::size_t below) { return static_cast<std::size_t>(m_random()) % below; }

    void note(std::uint64_t value) { m_fingerprint.add(value); }
    std::uint64_t fingerprint() const { return m_fingerprint.value(); }

private:
    Loss m_loss;
    std::mt19937& m_random;
    int m_special = -1;
    int m_lastWrite = -1;
    std::size_t m_keepOneIn = 2;
    Fingerprint m_fingerprint;
};

PowerCut::PowerCut(FileImages start, std::vector<RecordingFileSystem::Entry> const& record)
    : m_record(record) {
    for (auto& [uri, content] : start) {
        auto const file = std::make_shared<File>();
        file->number = m_fileCount++;
        file->current = content;
        file->durable = std::move(content);
        m_names[uri].files = {file};
    }
}

PowerCut::~PowerCut() = default;

bool PowerCut::step() {
    if (m_next == m_record.size())
        return false;
    RecordingFileSystem::Entry const& entry = m_record[m_next++];
    m_hasChanged = false;
    if (entry.failed)
        return true;
    FileOperation const& operation = entry.operation;
    switch (operation.kind) {
    case Kind::Open:
        open(entry);
        break;
    case Kind::Delete:
        remove(keyOf(operation.uri));
        break;
    case Kind::Write:
        write(entry);
        break;
    case Kind::SetLength: {
        Opening& opening = m_openings.at(operation.opening);
        opening.needsFlush = true;
        setLength(*opening.file, operation.length);
        break;
    }
    case Kind::Flush:
        flush(operation);
        break;
    default:
        break;
    }
    return true;
}

void PowerCut::open(RecordingFileSystem::Entry const& entry) {
    std::string const uri = keyOf(entry.operation.uri);
    Name& name = m_names[uri];
    if (name.files.empty())
        name.files.push_back(nullptr);
    if (!name.files.back()) {
        auto const file = std::make_shared<File>();
        file->number = m_fileCount++;
        name.files.push_back(file);
        m_hasChanged = true;
    }
    std::shared_ptr<File> const file = name.files.back();
    bool const mayFlush = entry.operation.access == yx::IIOStream::ReadWrite;
    m_openings[entry.operation.opening] = {uri, file, mayFlush && file->current.empty()};
}

void PowerCut::write(RecordingFileSystem::Entry const& entry) {
    Opening& opening = m_openings.at(entry.operation.opening);
    if (entry.content.empty())
        return;
    opening.needsFlush = true;
    m_hasChanged = true;
    File& file = *opening.file;
    auto const position = static_cast<std::size_t>(entry.operation.position);
    std::size_t const lengthBefore = file.current.size();
    std::size_t const end = position + entry.content.size();
    file.current.resize(std::max(lengthBefore, end));
    std::memcpy(file.current.data() + position, entry.content.data(), entry.content.size());
    std::size_t const firstSector = position / kSectorBytes;
    file.pending.push_back({m_changeCount++, true, firstSector,
                            slice(file.current, firstSector * kSectorBytes,
                                  toSectors(end) * kSectorBytes - firstSector * kSectorBytes),
                            lengthBefore, file.current.size()});
}

void PowerCut::setLength(File& file, long long length) {
    m_hasChanged = true;
    std::size_t const lengthBefore = file.current.size();
    file.current.resize(static_cast<std::size_t>(length));
    file.pending.push_back({m_changeCount++, false, 0, {}, lengthBefore, file.current.size()});
}

void PowerCut::flush(FileOperation const& operation) {
    Opening& opening = m_openings.at(operation.opening);
    if (!opening.needsFlush)
        return;
    opening.needsFlush = false;
    m_hasChanged = true;
    File& file = *opening.file;
    file.durable = file.current;
    ++file.durableVersion;
    file.pending.clear();
    Name& name = m_names[opening.uri];
    if (name.files.back() == opening.file)
        name.files = {opening.file};
}

void PowerCut::remove(std::string const& uri) {
    auto const name = m_names.find(uri);
    if (name == m_names.end() || !name->second.files.back())
        return;
    name->second.files.push_back(nullptr);
    m_hasChanged = true;
}

Bytes PowerCut::makeContent(File const& file, Choice& choice) const {
    Bytes content = file.durable;
    choice.note(static_cast<std::uint64_t>(file.durableVersion));
    for (Change const& change : file.pending) {
        std::size_t const kept = choice.sectorsKept(change);
        if (kept == 0)
            continue;
        choice.note(static_cast<std::uint64_t>(change.number) << 20U | kept);
        if (!change.isWrite) {
            content.resize(change.lengthAfter);
            continue;
        }
        std::size_t const start = change.firstSector * kSectorBytes;
        for (std::size_t sector = 0; sector < kept; ++sector) {
            if (choice.hasAnySectors() && choice.draw(2) == 0)
                continue;
            choice.note(sector);
            std::size_t const offset = sector * kSectorBytes;
            std::size_t const size = std::min(kSectorBytes, change.sectors.size() - offset);
            content.resize(std::max(content.size(), start + offset + size));
            std::memcpy(content.data() + start + offset, change.sectors.data() + offset, size);
        }
    }
    if (choice.hasAnySectors() && !file.pending.empty()) {
        Change const& change = file.pending[choice.draw(file.pending.size())];
        content.resize(choice.draw(2) == 0 ? change.lengthBefore : change.lengthAfter);
        choice.note(content.size());
    }
    return content;
}

PowerCut::State PowerCut::makeState(Loss loss, std::mt19937& random) {
    std::vector<Change const*> pending;
    for (auto const& [uri, name] : m_names) {
        if (name.files.back()) {
            for (Change const& change : name.files.back()->pending)
                pending.push_back(&change);
        }
    }
    Choice choice(loss, random, pending);
    State state;
    for (auto const& [uri, name] : m_names) {
        std::size_t index = choice.keepsNames() ? name.files.size() - 1 : 0;
        if (choice.drawsNames())
            index = choice.draw(name.files.size());
        std::shared_ptr<File> const& file = name.files[index];
        choice.note(file ? static_cast<std::uint64_t>(file->number) + 1 : 0);
        if (file)
            state.files[uri] = makeContent(*file, choice);
    }
    state.isNew = m_made.insert(choice.fingerprint()).second;
    return state;
}

} // namespace test_support
