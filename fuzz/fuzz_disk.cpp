// Whole disks: damaged files in memory, and a script of operations on them. `DiskInput` defines the
// form of an input, `Operation` that of its script.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/support/canary.h"
#include "fuzz/support/disk_input.h"
#include "fuzz/support/disk_script.h"
#include "fuzz/support/too_dear.h"
#include "host/check/disk_check.h"
#include "host/transfer/disk_map.h"
#include "kelm/graindata/data_preparer.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::Bytes;
using kelm::fuzz::DiskInput;
using kelm::fuzz::Input;
using kelm::fuzz::kPassword;
using kelm::fuzz::Operation;
using kelm::fuzz::require;
using kelm::fuzz::ScriptFlag;
using Buffer = yx::TBuffer<unsigned char>;

// Limits beyond which an operation takes too long for a run of the fuzzer.

/// Looking at all grains takes a step for each that the disk claims to have, and reads all tables
/// of each extent, in each disk of the chain.
constexpr __int64 kMaxWalkedGrains = 2048;
constexpr int kMaxWalkedExtents = 16;
constexpr int kMaxWalkedParents = 8;

/// The checker looks at the whole length of a file, which a damaged table can make terabytes long.
constexpr int kMaxWalks = 4;

/// A sound disk up to this size is compared with a model.
constexpr __int64 kMaxModelBytes = 1 << 20;

constexpr int kMaxOperations = 48;

/// The files of an input and the disk that is open on them.
class Subject {
public:
    Subject(yx::CMemoryFileSystem* files, unsigned int flags)
        : m_files(files),
          m_access((flags & ScriptFlag::Write) != 0 ? yx::IIOStream::ReadWrite
                                                    : yx::IIOStream::ReadOnly),
          m_password((flags & ScriptFlag::NoPassword) != 0 ? "" : kPassword),
          m_wantsModel((flags & ScriptFlag::Model) != 0) {}

    void run(Input& script) {
        if (!reopen())
            return;
        if (m_wantsModel)
            makeModel();
        for (int i = 0; i < kMaxOperations && !script.isEmpty() && m_disk; ++i)
            step(script);
        if (m_disk)
            finish();
    }

private:
    static yx::CURI mainURI() { return fuzz::getFileURI(0); }

    std::unique_ptr<host::SafeDisk> open(yx::CURI const& uri, yx::IIOStream::Access access) {
        return std::make_unique<host::SafeDisk>(m_files.get(), uri, access, m_password, 1);
    }

    /// Leaves no disk if it cannot be opened.
    bool reopen() {
        m_disk.reset();
        bool const isOpen = attempt([&] { m_disk = open(mainURI(), m_access); });
        require(isOpen || !m_isSound, "a sound disk opens");
        return isOpen;
    }

    static bool isSmall(host::SafeDisk& disk) {
        yx::TArray<yx::P<CVMDKExtentInfo>> extents;
        disk.getDisk().getDescriptor()->getExtentEntries(extents);
        return extents.getSize() <= kMaxWalkedExtents && disk.getGrainCount() <= kMaxWalkedGrains;
    }

    /// Whether the open disk and its parents have few enough grains to look at all of them.
    bool isChainSmall() {
        bool small = isSmall(*m_disk);
        bool const isWhole = attempt([&] {
            yx::CURI uri = m_disk->getDisk().getParentDiskMainURI();
            for (int count = 0; small && !uri.isEmpty(); ++count) {
                std::unique_ptr<host::SafeDisk> const parent = open(uri, yx::IIOStream::ReadOnly);
                small = count < kMaxWalkedParents && isSmall(*parent);
                uri = parent->getDisk().getParentDiskMainURI();
            }
        });
        return isWhole && small;
    }

    /// Checks the disk; from then on a sound one has to stay sound and to hold what it should.
    void makeModel() {
        if (m_disk->getSizeBytes() > kMaxModelBytes || !isChainSmall())
            return;
        m_disk.reset();
        bool const isSound = countFindings() == 0;
        // A sound disk may still refuse to be written to.
        if (!reopen() || !isSound)
            return;
        m_isSound = true;
        m_hasModel = true;
        m_model = readAll();
    }

    /// How many findings the checker has; -1 if it cannot check the disk.
    __int64 countFindings() {
        __int64 count = -1;
        attempt([&] {
            count = host::checkDisk(m_files.get(), mainURI(), m_password, {},
                                    [](yx::CURI const&, std::string const&) {});
        });
        return count;
    }

    /// A position in the disk, sometimes its end or one beyond it.
    __int64 takePosition(Input& script) {
        return script.takeNumber(3) % (m_disk->getSizeBytes() + 2);
    }

    __int64 takeGrainIndex(Input& script) {
        return script.takeNumber(2) % (m_disk->getGrainCount() + 1);
    }

    /// Content that is all zeros, repeats, or hardly compresses.
    static Buffer takeContent(Input& script, int sizeBytes) {
        Buffer content(sizeBytes, -1);
        unsigned int state = script.takeByte();
        for (int i = 0; i < sizeBytes; ++i) {
            content.getData()[i] = static_cast<unsigned char>(state >> 8 ^ state);
            if (state >= 0x80)
                state = state * 1103515245 + 12345;
        }
        return content;
    }

    void step(Input& script) {
        auto const operation = static_cast<Operation>(script.takeByte() % fuzz::kOperationCount);
        switch (operation) {
        case Operation::Read:
            read(script);
            break;
        case Operation::Write:
            write(script);
            break;
        case Operation::WriteZeros:
            writeZeros(script);
            break;
        case Operation::ReadPrepared:
            readPrepared(script);
            break;
        case Operation::WritePrepared:
            writePrepared(script);
            break;
        case Operation::WriteBadPrepared:
            writeBadPrepared(script);
            break;
        case Operation::Flush:
            attempt([&] { m_disk->flush(); });
            break;
        case Operation::Reopen:
            reopen();
            break;
        case Operation::AskWritten:
            askWritten(script);
            break;
        case Operation::MakeIndependent:
            makeIndependent(script);
            break;
        case Operation::GatherSpaceInfo:
        case Operation::Map:
        case Operation::Check:
            walk(operation);
            break;
        case Operation::ChangeParent:
            changeParent(script);
            break;
        }
    }

    void read(Input& script) {
        __int64 const position = takePosition(script);
        Buffer target(static_cast<int>(script.takeNumber(2)), -1);
        if (attempt([&] { m_disk->read(position, target.getData(), target.getUsed()); }))
            expectModel(position, target);
    }

    Buffer readAll() {
        Buffer content(static_cast<int>(m_disk->getSizeBytes()), -1);
        m_disk->read(0, content.getData(), content.getUsed());
        return content;
    }

    void expectModel(__int64 position, Buffer const& actual) {
        require(!m_hasModel || actual.getUsed() == 0 ||
                    std::memcmp(m_model.getData() + position, actual.getData(),
                                static_cast<std::size_t>(actual.getUsed())) == 0,
                "a sound disk holds what it held and what was written to it");
    }

    /// Enters a completed write into the model, or drops the model after one that may be
    /// incomplete.
    void changeModel(__int64 position, Buffer const& content, bool isDone) {
        bool const isOutside = position + content.getUsed() > m_disk->getSizeBytes();
        if (!m_hasModel || (isOutside && !isDone))
            return;
        if (isDone) {
            yx::copyMemory(m_model.getData() + position, content.getData(),
                           static_cast<std::size_t>(content.getUsed()));
        }
        m_hasModel = isDone;
    }

    void write(Input& script) {
        __int64 const position = takePosition(script);
        int const sizeBytes = static_cast<int>(script.takeNumber(2));
        Buffer const content = takeContent(script, sizeBytes);
        bool const isDone = attempt([&] { m_disk->write(position, content.getData(), sizeBytes); });
        changeModel(position, content, isDone);
        if (isDone)
            expectContent(position, content);
    }

    /// What was written is there. Only within a grain: in a damaged file several grains may share a
    /// place.
    void expectContent(__int64 position, Buffer const& content) {
        __int64 const grainSizeBytes = m_disk->getGrainSizeBytes();
        bool const isOneGrain = position % grainSizeBytes + content.getUsed() <= grainSizeBytes &&
                                content.getUsed() > 0;
        if (!isOneGrain || !m_disk->isWholeGrain(position / grainSizeBytes))
            return;
        Buffer actual(content.getUsed(), -1);
        m_disk->read(position, actual.getData(), actual.getUsed());
        require(std::memcmp(actual.getData(), content.getData(),
                            static_cast<std::size_t>(content.getUsed())) == 0,
                "a disk reads as it was written");
    }

    void writeZeros(Input& script) {
        __int64 const position = takePosition(script);
        Buffer zeros(static_cast<int>(script.takeNumber(2)), -1);
        yx::initMemory(zeros.getData(), 0, static_cast<std::size_t>(zeros.getUsed()));
        bool const isDone = attempt([&] { m_disk->writeZeros(position, zeros.getUsed()); });
        changeModel(position, zeros, isDone);
    }

    void readPrepared(Input& script) {
        __int64 const index = takeGrainIndex(script);
        Buffer prepared;
        attempt([&] {
            if (m_disk->tryReadPreparedGrain(index, prepared)) {
                Buffer plain;
                expectModel(
                    index * m_disk->getGrainSizeBytes(),
                    *m_disk->getDisk().createDataPreparer()->unprepareGrainData(&prepared, &plain));
            }
        });
    }

    void writePrepared(Input& script) {
        __int64 const index = takeGrainIndex(script);
        Buffer plain = takeContent(script, static_cast<int>(m_disk->getGrainSizeBytes()));
        Buffer aux;
        yx::P<Buffer> const prepared =
            m_disk->getDisk().createDataPreparer()->prepareGrainData(&plain, index, &aux);
        bool const isDone = attempt([&] { m_disk->writePreparedGrain(index, *prepared); });
        changeModel(index * m_disk->getGrainSizeBytes(), plain, isDone);
        if (isDone)
            expectContent(index * m_disk->getGrainSizeBytes(), plain);
    }

    /// Made-up prepared data, which no preparer would write.
    void writeBadPrepared(Input& script) {
        __int64 const index = takeGrainIndex(script);
        std::size_t const sizeBytes = script.takeByte();
        Buffer const prepared = fuzz::toBuffer(script.takeBytes(sizeBytes));
        giveUpSoundness();
        attempt([&] { m_disk->writePreparedGrain(index, prepared); });
    }

    void askWritten(Input& script) {
        __int64 const index = takeGrainIndex(script);
        attempt([&] {
            bool const here = m_disk->isGrainWrittenHere(index);
            bool const anywhere = m_disk->isGrainWritten(index);
            require(anywhere || !here, "a grain that is held here is held");
        });
    }

    void makeIndependent(Input& script) {
        __int64 const index = takeGrainIndex(script);
        attempt([&] { m_disk->makeGrainIndependentOfParent(index); });
    }

    /// Runs an operation that looks at all grains.
    void walk(Operation operation) {
        if (m_walks == kMaxWalks || !isChainSmall())
            return;
        ++m_walks;
        if (operation == Operation::Map)
            map();
        else if (operation == Operation::Check)
            check();
        else
            attempt([&] { m_disk->getDisk().gatherSpaceInfo(); });
    }

    void map() {
        attempt([&] {
            __int64 endBytes = 0;
            host::forEachGrainRun(*m_disk, {}, [&endBytes](host::GrainRun const& run) {
                require(run.startBytes == endBytes && run.lengthBytes > 0,
                        "the runs of a map follow each other");
                endBytes = run.endBytes();
            });
            require(endBytes == m_disk->getSizeBytes(), "a map covers the disk");
        });
    }

    void check() {
        m_disk.reset();
        countFindings();
        reopen();
    }

    void changeParent(Input& script) {
        std::size_t const sizeBytes = script.takeByte() % 32;
        Bytes const name = script.takeBytes(sizeBytes);
        attempt([&] { m_disk->getDisk().changeParentRelPath(fuzz::toText(name)); });
        // Another parent, or one that does not exist.
        giveUpSoundness();
    }

    void giveUpSoundness() {
        m_isSound = false;
        m_hasModel = false;
    }

    void finish() {
        bool const isFlushed = attempt([&] { m_disk->flush(); });
        m_disk.reset();
        if (!m_isSound || !isFlushed)
            return;
        require(countFindings() == 0, "a sound disk stays sound");
        m_disk = open(mainURI(), yx::IIOStream::ReadOnly);
        if (m_hasModel)
            expectModel(0, readAll());
    }

    yx::P<yx::CMemoryFileSystem> m_files;
    yx::IIOStream::Access m_access;
    yx::String m_password;
    std::unique_ptr<host::SafeDisk> m_disk;

    bool m_wantsModel;
    int m_walks = 0;

    /// The checker found nothing, and nothing was done since that may break the disk.
    bool m_isSound = false;

    /// What the disk is to hold, if it is sound and not large.
    bool m_hasModel = false;
    Buffer m_model;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    DiskInput const input = DiskInput::parse({data, size});
    Input script(input.script.data(), input.script.size());
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    input.putFiles(*files);
    if (kelm::fuzz::areTooDear(*files))
        return 0;
    kelm::fuzz::Canary const canary(*files);
    Subject(files.get(), script.takeByte()).run(script);
    canary.verifyUntouched();
    return 0;
}
