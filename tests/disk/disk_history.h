#pragma once

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/support/disk_fixture.h"
#include "tests/support/extent_checker.h"

/// Disks of every kind that are written and read at random, on any file system, against arrays of
/// bytes.
namespace test_support {

inline constexpr int kGrains = static_cast<int>(kSmallestDiskBytes / kGrainBytes);

/// What a disk should read as, told by the rules of writing alone.
///
/// A grain that has no place in the disk's own files and is all zero when it is left gets none: it
/// then shows what lies below. That is what `leave` plays.
class Model {
public:
    explicit Model(Model const* below) : m_below(below), m_hasPlace(kGrains, false) {
        m_content.resize(static_cast<std::size_t>(kSmallestDiskBytes), 0);
        for (int grain = 0; grain < kGrains; ++grain)
            showBelow(grain);
    }

    Bytes const& content() const { return m_content; }

    void write(__int64 position, Bytes const& bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            auto const at = static_cast<std::size_t>(position) + done;
            int const grain = static_cast<int>(at / kGrainBytes);
            moveTo(grain);
            std::size_t const step =
                std::min(bytes.size() - done, static_cast<std::size_t>(kGrainBytes) -
                                                  at % static_cast<std::size_t>(kGrainBytes));
            std::copy_n(bytes.begin() + static_cast<long>(done), step,
                        m_content.begin() + static_cast<long>(at));
            m_dirty = true;
            done += step;
        }
    }

    void read(__int64 position, __int64 count) {
        for (int grain = static_cast<int>(position / kGrainBytes);
             grain <= static_cast<int>((position + count - 1) / kGrainBytes); ++grain)
            moveTo(grain);
    }

    void writePrepared(int grain, Bytes const& bytes) {
        moveTo(grain);
        std::copy(bytes.begin(), bytes.end(), grainBegin(grain));
        m_dirty = false;
        m_showsBelowOnceLeft = false;
        place(grain);
    }

    /// A grain that is left or flushed goes to the file.
    void leave() {
        if (!m_dirty)
            return;
        m_dirty = false;
        bool const isZero = std::all_of(grainBegin(m_current), grainBegin(m_current) + kGrainBytes,
                                        [](unsigned char byte) { return byte == 0; });
        m_showsBelowOnceLeft = isZero && !m_hasPlace[static_cast<std::size_t>(m_current)];
        if (!m_showsBelowOnceLeft)
            place(m_current);
    }

    /// The extent is left or reopened: nothing of a grain stays in memory.
    void close() {
        leave();
        moveTo(-1);
    }

private:
    Bytes::iterator grainBegin(int grain) {
        return m_content.begin() + static_cast<long>(grain) * static_cast<long>(kGrainBytes);
    }

    void place(int grain) { m_hasPlace[static_cast<std::size_t>(grain)] = true; }

    void showBelow(int grain) {
        if (m_below)
            std::copy_n(m_below->m_content.begin() +
                            static_cast<long>(grain) * static_cast<long>(kGrainBytes),
                        kGrainBytes, grainBegin(grain));
        else
            std::fill_n(grainBegin(grain), kGrainBytes, static_cast<unsigned char>(0));
    }

    void moveTo(int grain) {
        if (grain == m_current)
            return;
        leave();
        if (m_showsBelowOnceLeft)
            showBelow(m_current);
        m_showsBelowOnceLeft = false;
        m_current = grain;
    }

    Model const* m_below;
    Bytes m_content;
    std::vector<bool> m_hasPlace;
    int m_current = -1;
    bool m_dirty = false;
    bool m_showsBelowOnceLeft = false;
};

/// One disk of a chain and its model, driven by a seeded history.
class History {
public:
    History(yx::IFileSystem* files, yx::CURI const& uri, DiskKind const& kind, Model const* below,
            unsigned int seed)
        : m_files(files), m_uri(uri), m_kind(kind), m_model(below), m_random(seed) {}

    Model const& model() const { return m_model; }

    void run(int operations) {
        reopen();
        for (int i = 0; i < operations; ++i)
            step();
        m_disk->flushChanges();
        m_disk.reset();
        m_model.close();
    }

private:
    unsigned int draw(unsigned int below) { return static_cast<unsigned int>(m_random()) % below; }

    void reopen() {
        m_disk.reset();
        m_model.close();
        m_disk = yx::makeObject<kelm::CVMDKDisk>(m_files, m_uri, yx::IIOStream::ReadWrite,
                                                 m_kind.password, 1, nullptr, nullptr);
        m_preparer = m_disk->createDataPreparer();
    }

    Bytes drawContent(std::size_t size) {
        switch (draw(3)) {
        case 0:
            return zeros(size);
        case 1:
            return textPattern(size, draw(1000));
        default:
            return pattern(size, draw(1000));
        }
    }

    void step() {
        unsigned int const choice = draw(100);
        if (choice < 45)
            write();
        else if (choice < 75)
            read();
        else if (choice < 90)
            writePrepared();
        else if (choice < 97)
            flush();
        else
            reopen();
    }

    void drawRange(__int64& position, std::size_t& size) {
        size = draw(4) == 0 ? static_cast<std::size_t>(kGrainBytes) : draw(150000) + 1;
        position = draw(static_cast<unsigned int>(kSmallestDiskBytes));
        if (draw(2) == 0)
            position -= position % kGrainBytes;
        size = std::min(size, static_cast<std::size_t>(kSmallestDiskBytes - position));
    }

    void write() {
        __int64 position = 0;
        std::size_t size = 0;
        drawRange(position, size);
        Bytes const bytes = drawContent(size);
        m_disk->seek(position);
        m_disk->write(bytes.data(), static_cast<int>(size));
        m_model.write(position, bytes);
    }

    void read() {
        __int64 position = 0;
        std::size_t size = 0;
        drawRange(position, size);
        Bytes actual(size);
        m_disk->seek(position);
        m_disk->read(actual.data(), static_cast<int>(size));
        // The model moves first: what it leaves may show what lies below.
        m_model.read(position, static_cast<__int64>(size));
        ASSERT_TRUE(
            sameBytes(slice(m_model.content(), static_cast<std::size_t>(position), size), actual));
    }

    void writePrepared() {
        int const grain = static_cast<int>(draw(kGrains));
        Bytes const bytes = drawContent(static_cast<std::size_t>(kGrainBytes));
        Buffer plain = toBuffer(bytes);
        Buffer aux;
        m_disk->seek(grain * kGrainBytes);
        m_disk->writePreparedGrainData(*m_preparer->prepareGrainData(&plain, grain, &aux));
        m_model.writePrepared(grain, bytes);
    }

    void flush() {
        m_disk->flushChanges();
        m_model.leave();
    }

    yx::IFileSystem* m_files;
    yx::CURI m_uri;
    DiskKind m_kind;
    Model m_model;
    std::mt19937 m_random;
    yx::P<kelm::CVMDKDisk> m_disk;
    yx::P<kelm::CVMDKDataPreparer> m_preparer;
};

inline void createDisk(yx::IFileSystem* files, yx::CURI const& uri, DiskKind const& kind,
                       yx::CURI const& parent) {
    yx::String parentName;
    unsigned int parentID = kNoParentID;
    if (!parent.isEmpty()) {
        parentName = parent.getName();
        parentID = kelm::CVMDKDisk(files, parent, yx::IIOStream::ReadOnly, kind.password, 1,
                                   nullptr, nullptr)
                       .getDescriptor()
                       ->getContentID();
    }
    kelm::CVMDKDisk::create(files, uri, kSmallestDiskBytes, kind.password, kind.compressed, 1,
                            kind.fileSizeLimit, parentName, parentID, kind.onDemand);
}

/// Whether every extent file of a disk is sound.
inline testing::AssertionResult extentsAreSound(yx::IFileSystem& files, yx::CURI const& uri,
                                                DiskKind const& kind) {
    kelm::CVMDKDisk disk(&files, uri, yx::IIOStream::ReadOnly, kind.password, 1, nullptr, nullptr);
    yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
    disk.getDescriptor()->getExtentEntries(infos);
    __int64 startSector = 0;
    for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
        yx::CURI const extent = uri.getParent() << info->getFilename();
        if (files.fileExists(extent)) {
            ExtentReport const report = checkExtent(toBuffer(readFile(files, extent)),
                                                    static_cast<std::uint64_t>(startSector) / 128);
            if (!report.findings.empty())
                return testing::AssertionFailure() << extent << ":\n" << report.text();
        }
        startSector += info->getSizeSectors();
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult readsAs(yx::IFileSystem& files, yx::CURI const& uri,
                                        DiskKind const& kind, Bytes const& expected) {
    kelm::CVMDKDisk disk(&files, uri, yx::IIOStream::ReadOnly, kind.password, 1, nullptr, nullptr);
    Bytes actual(expected.size());
    disk.read(actual.data(), static_cast<int>(actual.size()));
    return sameBytes(expected, actual);
}

} // namespace test_support
