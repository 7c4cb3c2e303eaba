#include "kelm/format/empty_sparse_extent_file.h"

#include <functional>
#include <new>

#include <gtest/gtest.h>

#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/extent_checker.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "yx/memory_file_system.h"

namespace empty_sparse_extent_file_test {

namespace {

using kelm::createEmptyVMDKSparseExtentFile;
using kelm::CVMDKDescriptor;
using test_support::ByteBuilder;
using test_support::Bytes;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::fromText;
using test_support::IgnoredExceptionCapture;
using test_support::LogCapture;
using test_support::RecordingFileSystem;
using test_support::sameBytes;
using test_support::throwsInvalidArg;
using test_support::toBuffer;
using test_support::zeroBuffer;
using Kind = test_support::FileOperation::Kind;

yx::CURI const kURI("file:///vm/a%20b.vmdk");

constexpr char kDeletingMessage[] =
    "Error in CVMDKDisk::createEmptySparseExtentFile ('file:///vm/a%20b.vmdk'). Deleting file and "
    "letting error through.";
constexpr char kDeletionFailedMessage[] = "Error deleting half-finished extent file. Ignoring.";

/// A descriptor of 17 bytes that storing does not change.
constexpr char kDescriptorText[] = "encoding=\"UTF-8\"\n";

struct Form {
    bool streamOptimized = false;
    __int64 grainCount = 0;
    __int64 grainSizeSectors = 128;
    __int64 descriptorSizeSectors = 0; ///< 0 for no descriptor
    std::size_t keyHashSizeBytes = 0;
    std::size_t zeroBufferSizeBytes = 16384;
};

std::ostream& operator<<(std::ostream& stream, Form const& form) {
    return stream << (form.streamOptimized ? "stream-optimized, " : "ordinary, ") << form.grainCount
                  << " grains of " << form.grainSizeSectors << " sectors, descriptor of "
                  << form.descriptorSizeSectors << " sectors, key hash of " << form.keyHashSizeBytes
                  << " bytes, zero buffer of " << form.zeroBufferSizeBytes << " bytes";
}

void create(yx::IFileSystem* fileSystem, Form const& form) {
    CVMDKDescriptor descriptor(toBuffer(fromText(kDescriptorText)));
    createEmptyVMDKSparseExtentFile(fileSystem, kURI, form.streamOptimized, form.grainCount,
                                    form.grainSizeSectors, zeroBuffer(form.zeroBufferSizeBytes),
                                    form.descriptorSizeSectors > 0 ? &descriptor : nullptr,
                                    form.descriptorSizeSectors,
                                    toBuffer(Bytes(form.keyHashSizeBytes, 0x77)));
}

Bytes created(Form const& form) {
    auto const files = yx::makeObject<yx::CMemoryFileSystem>();
    create(files.get(), form);
    return test_support::readFile(*files, kURI);
}

/// The file as the format has it, laid down section by section without the code under test.
class Image {
public:
    explicit Image(Form const& form)
        : m_form(form),
          m_tableCount((static_cast<std::size_t>(form.grainCount) + 511) / 512),
          m_directorySectors((m_tableCount + 127) / 128) {
        m_file.zeros(512);
        if (form.descriptorSizeSectors > 0) {
            m_file.append(ByteBuilder()
                              .text(kDescriptorText)
                              .padTo(static_cast<std::size_t>(form.descriptorSizeSectors) * 512)
                              .bytes());
        }
        m_redundantDirectory = addGrainDirectory();
        m_directory = addGrainDirectory();
        if (form.streamOptimized)
            addSlotSizeDirectory();
        m_file.padTo(static_cast<std::size_t>(form.grainSizeSectors) * 512);
        m_overhead = sector();
    }

    Bytes bytes() const {
        Bytes file = m_file.bytes();
        Bytes const record = header();
        std::copy(record.begin(), record.end(), file.begin());
        if (!m_form.streamOptimized)
            return file;
        return ByteBuilder()
            .append(file)
            .append(marker(1, 3))
            .append(record)
            .append(marker(0, 0))
            .bytes();
    }

private:
    std::size_t sector() const { return m_file.size() / 512; }

    static Bytes marker(std::uint64_t value, std::uint32_t type) {
        return ByteBuilder().u64(value).u32(0).u32(type).zeros(496).bytes();
    }

    std::size_t addGrainDirectory() {
        if (m_form.streamOptimized)
            m_file.append(marker(m_directorySectors, 2));
        std::size_t const directory = sector();
        std::size_t const tables = directory + m_directorySectors;
        for (std::size_t i = 0; i < m_tableCount; ++i) {
            m_file.u32(static_cast<std::uint32_t>(m_form.streamOptimized ? tables + 5 * i + 1
                                                                         : tables + 4 * i));
        }
        m_file.padTo(512);
        for (std::size_t i = 0; i < m_tableCount; ++i) {
            if (m_form.streamOptimized)
                m_file.append(marker(4, 1));
            m_file.zeros(2048);
        }
        return directory;
    }

    void addSlotSizeDirectory() {
        m_file.append(marker(m_directorySectors, 0x18349002));
        std::size_t const tables = sector() + m_directorySectors;
        for (std::size_t i = 0; i < m_tableCount; ++i)
            m_file.u32(static_cast<std::uint32_t>(tables + 3 * i + 1));
        m_file.padTo(512);
        for (std::size_t i = 0; i < m_tableCount; ++i)
            m_file.append(marker(2, 0x18349001)).zeros(1024);
    }

    Bytes header() const {
        ByteBuilder record;
        record.u32(m_form.keyHashSizeBytes > 0 ? 0x05644B45 : 0x564D444B)
            .u32(m_form.streamOptimized ? 3 : 1)
            .u32(m_form.streamOptimized ? 0x00030003 : 0x00000003)
            .u64(static_cast<std::uint64_t>(m_form.grainCount * m_form.grainSizeSectors))
            .u64(static_cast<std::uint64_t>(m_form.grainSizeSectors))
            .u64(m_form.descriptorSizeSectors > 0 ? 1 : 0)
            .u64(static_cast<std::uint64_t>(m_form.descriptorSizeSectors))
            .u32(512)
            .u64(m_redundantDirectory)
            .u64(m_directory)
            .u64(m_overhead)
            .u8(0)
            .text("\n \r\n")
            .u16(m_form.streamOptimized ? 1 : 0);
        if (m_form.keyHashSizeBytes > 0) {
            record.u16(1)
                .u16(1)
                .u16(static_cast<std::uint16_t>(m_form.keyHashSizeBytes))
                .fill(m_form.keyHashSizeBytes, 0x77);
        }
        return record.padTo(512).bytes();
    }

    Form m_form;
    std::size_t m_tableCount;
    std::size_t m_directorySectors;
    std::size_t m_redundantDirectory = 0;
    std::size_t m_directory = 0;
    std::size_t m_overhead = 0;
    ByteBuilder m_file;
};

std::uint64_t numberAt(Bytes const& file, std::size_t offset, std::size_t sizeBytes) {
    std::uint64_t value = 0;
    for (std::size_t i = sizeBytes; i-- > 0;)
        value = value << 8 | file.at(offset + i);
    return value;
}

TEST(EmptySparseExtentFile, HasTheForeseenSizesFor2GiB) {
    struct Case {
        bool streamOptimized;
        __int64 descriptorSizeSectors;
        std::uint64_t redundantDirectory;
        std::uint64_t directory;
        std::uint64_t overhead;
        std::size_t fileSectors;
    };
    for (Case const& test : {
             Case{false, 0, 1, 258, 640, 640},
             Case{false, 20, 21, 278, 640, 640},
             Case{true, 0, 2, 324, 896, 899},
             Case{true, 20, 22, 344, 896, 899},
         }) {
        Form const form{.streamOptimized = test.streamOptimized,
                        .grainCount = 32768,
                        .descriptorSizeSectors = test.descriptorSizeSectors};
        SCOPED_TRACE(form);
        Bytes const file = created(form);
        EXPECT_EQ(numberAt(file, 4, 4), test.streamOptimized ? 3u : 1u);
        EXPECT_EQ(numberAt(file, 8, 4), test.streamOptimized ? 0x30003u : 3u);
        EXPECT_EQ(numberAt(file, 12, 8), 4194304u);
        EXPECT_EQ(numberAt(file, 20, 8), 128u);
        EXPECT_EQ(numberAt(file, 28, 8), test.descriptorSizeSectors > 0 ? 1u : 0u);
        EXPECT_EQ(numberAt(file, 36, 8), static_cast<std::uint64_t>(test.descriptorSizeSectors));
        EXPECT_EQ(numberAt(file, 44, 4), 512u);
        EXPECT_EQ(numberAt(file, 48, 8), test.redundantDirectory);
        EXPECT_EQ(numberAt(file, 56, 8), test.directory);
        EXPECT_EQ(numberAt(file, 64, 8), test.overhead);
        EXPECT_EQ(numberAt(file, 77, 2), test.streamOptimized ? 1u : 0u);
        EXPECT_EQ(file.size(), test.fileSectors * 512);
    }
}

TEST(EmptySparseExtentFile, IsRightToTheLastByteInEveryForm) {
    for (bool const streamOptimized : {false, true}) {
        for (__int64 const grainCount : {0, 1, 511, 512, 513, 1024, 65536, 65537}) {
            for (__int64 const descriptorSizeSectors : {0, 1, 20}) {
                for (std::size_t const keyHashSizeBytes : {0u, 32u, 427u}) {
                    Form const form{.streamOptimized = streamOptimized,
                                    .grainCount = grainCount,
                                    .descriptorSizeSectors = descriptorSizeSectors,
                                    .keyHashSizeBytes = keyHashSizeBytes};
                    ASSERT_TRUE(sameBytes(Image(form).bytes(), created(form))) << form;
                }
            }
        }
    }
}

TEST(EmptySparseExtentFile, IsRightForAnyGrainSizeAndZeroBuffer) {
    for (bool const streamOptimized : {false, true}) {
        for (__int64 const grainSizeSectors : {1, 3, 8, 11, 255, 4096}) {
            for (std::size_t const zeroBufferSizeBytes : {512u, 513u, 2048u, 100000u}) {
                Form const form{.streamOptimized = streamOptimized,
                                .grainCount = 700,
                                .grainSizeSectors = grainSizeSectors,
                                .descriptorSizeSectors = 1,
                                .zeroBufferSizeBytes = zeroBufferSizeBytes};
                ASSERT_TRUE(sameBytes(Image(form).bytes(), created(form))) << form;
            }
        }
    }
}

TEST(EmptySparseExtentFile, WithoutGrainsHasNoTables) {
    Bytes const file = created({.grainCount = 0});
    EXPECT_EQ(numberAt(file, 48, 8), 1u);
    EXPECT_EQ(numberAt(file, 56, 8), 1u) << "both directories are of no size at one place";
    EXPECT_EQ(numberAt(file, 64, 8), 128u);
    EXPECT_EQ(file.size(), 128u * 512u);

    Bytes const marked = created({.streamOptimized = true, .grainCount = 0});
    EXPECT_EQ(numberAt(marked, 48, 8), 2u);
    EXPECT_EQ(numberAt(marked, 56, 8), 3u);
}

TEST(EmptySparseExtentFile, HasOneTableFor512GrainsAndTwoForOneMore) {
    EXPECT_EQ(numberAt(created({.grainCount = 512}), 56, 8), 1u + 1u + 4u);
    EXPECT_EQ(numberAt(created({.grainCount = 513}), 56, 8), 1u + 1u + 8u);
}

TEST(EmptySparseExtentFile, GetsNoPaddingWhereTheMetadataEndsOnAGrain) {
    // 1 sector of header, and twice a directory of 1 sector and a table of 4.
    Bytes const file = created({.grainCount = 5, .grainSizeSectors = 11});
    EXPECT_EQ(numberAt(file, 64, 8), 11u);
    EXPECT_EQ(file.size(), 11u * 512u);
}

TEST(EmptySparseExtentFile, IsSoundToAnIndependentReader) {
    for (bool const streamOptimized : {false, true}) {
        auto const report = test_support::checkExtent(
            toBuffer(created({.streamOptimized = streamOptimized, .grainCount = 1500})));
        EXPECT_EQ(report.text(), "");
        EXPECT_EQ(report.grains.size(), 0u);
        EXPECT_EQ(report.capacitySectors, 192000u);
    }
}

TEST(EmptySparseExtentFile, SetsTheEncodingOfTheDescriptor) {
    auto const files = yx::makeObject<yx::CMemoryFileSystem>();
    CVMDKDescriptor descriptor(toBuffer(fromText("encoding=latin1\nk=v\n")));
    createEmptyVMDKSparseExtentFile(files.get(), kURI, false, 1, 128, zeroBuffer(512), &descriptor,
                                    1, {});
    EXPECT_EQ(descriptor.getValue("encoding"), "UTF-8");
    EXPECT_TRUE(sameBytes(ByteBuilder().text("encoding=UTF-8\nk=v\n").padTo(512).bytes(),
                          test_support::slice(test_support::readFile(*files, kURI), 512, 512)));
}

TEST(EmptySparseExtentFile, IsWrittenInFewLargePiecesFromFrontToBack) {
    for (bool const streamOptimized : {false, true}) {
        auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
        auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
        // 64 GiB: 4 MiB of tables in each of the two copies.
        create(files.get(), {.streamOptimized = streamOptimized,
                             .grainCount = 0x100000,
                             .zeroBufferSizeBytes = 2048});
        std::vector<long long> starts;
        long long end = 0;
        for (auto const& entry : files->entries()) {
            if (entry.operation.kind != Kind::Write)
                continue;
            if (entry.operation.position != 0) {
                EXPECT_EQ(entry.operation.position, end);
            }
            end = entry.operation.position + entry.operation.length;
            starts.push_back(entry.operation.position);
        }
        EXPECT_LE(starts.size(), streamOptimized ? 15u : 10u);
        EXPECT_EQ(starts.back(), 0) << "the complete header comes last";
        EXPECT_EQ(files->count({Kind::Flush}), 0u);
        EXPECT_EQ(files->lines({Kind::Open, Kind::Close}),
                  (std::vector<std::string>{"open a b.vmdk rw", "close a b.vmdk"}));
    }
}

// Arguments

TEST(EmptySparseExtentFile, BadArgumentsAreRefusedBeforeAnythingIsTouched) {
    constexpr __int64 kMax = 0x7FFFFFFFFFFFFFFF;
    LogCapture log;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    struct Case {
        Form form;
        char const* message;
    };
    for (Case const& test : std::vector<Case>{
             {{.grainCount = -1}, "Invalid grain count: -1"},
             {{.grainCount = kMax}, "Invalid grain count: 9223372036854775807"},
             // Tables that 32-bit sector numbers cannot reach.
             {{.grainCount = 0x4000000000}, "Invalid grain count: 274877906944"},
             {{.grainCount = 1, .grainSizeSectors = 0}, "Invalid grain size: 0"},
             {{.grainCount = 1, .grainSizeSectors = -128}, "Invalid grain size: -128"},
             {{.grainCount = 1, .grainSizeSectors = 4194304}, "Invalid grain size: 4194304"},
             {{.grainCount = 1, .grainSizeSectors = kMax},
              "Invalid grain size: 9223372036854775807"},
             {{.grainCount = 1, .descriptorSizeSectors = 4194304},
              "Invalid descriptor size: 4194304"},
             {{.grainCount = 1, .keyHashSizeBytes = 428}, "Invalid encryption key hash size: 428"},
             {{.grainCount = 1, .zeroBufferSizeBytes = 511}, "Zero buffer too small: 511"},
         }) {
        EXPECT_TRUE(throwsInvalidArg("createEmptyVMDKSparseExtentFile", test.message,
                                     [&] { create(files.get(), test.form); }));
    }
    CVMDKDescriptor descriptor;
    EXPECT_TRUE(
        throwsInvalidArg("createEmptyVMDKSparseExtentFile", "Invalid descriptor size: -1", [&] {
            createEmptyVMDKSparseExtentFile(files.get(), kURI, false, 1, 128, zeroBuffer(512),
                                            &descriptor, -1, {});
        }));
    EXPECT_EQ(files->lines(), std::vector<std::string>());
    EXPECT_EQ(log.entries().size(), 0u);
}

// Failures

LogCapture::Entry deleting(std::string const& error) {
    return {yx::LogLevel::Error, kDeletingMessage, "", error};
}

LogCapture::Entry deletionFailed(std::string const& error) {
    return {yx::LogLevel::Error, kDeletionFailedMessage, "", error};
}

TEST(EmptySparseExtentFile, DescriptorThatIsTooLargeForItsAreaDeletesTheFile) {
    LogCapture log;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    CVMDKDescriptor descriptor;
    descriptor.addGenericLine(yx::String(wxString('x', 600)), true);
    std::string const message = "Internal error: actual VMDK descriptor size exceeds target size "
                                "(actual size: 618, target size: 512";
    EXPECT_TRUE(test_support::throwsError(message, {}, [&] {
        createEmptyVMDKSparseExtentFile(files.get(), kURI, true, 1, 128, zeroBuffer(2048),
                                        &descriptor, 1, {});
    }));
    EXPECT_FALSE(memory->fileExists(kURI));
    EXPECT_EQ(log.entries(), std::vector<LogCapture::Entry>{deleting(message)});
    EXPECT_EQ(files->lines({Kind::Close, Kind::Delete}),
              (std::vector<std::string>{"close a b.vmdk", "delete a b.vmdk"}))
        << "the file is closed before it is deleted";
}

TEST(EmptySparseExtentFile, ZeroBufferTooSmallForTheDescriptorsPaddingDeletesTheFile) {
    LogCapture log;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    std::string const message = "Internal error: pad buffer too small (size: 512, needed: 1007";
    EXPECT_TRUE(test_support::throwsError(message, {}, [&] {
        create(memory.get(),
               {.grainCount = 1, .descriptorSizeSectors = 2, .zeroBufferSizeBytes = 512});
    }));
    EXPECT_FALSE(memory->fileExists(kURI));
    EXPECT_EQ(log.entries(), std::vector<LogCapture::Entry>{deleting(message)});
}

/// The error of every fault, as the host meets it.
testing::AssertionResult failsByInjection(yx::CIOError::Code code,
                                          std::function<void()> const& action) {
    return test_support::throwsIOError(code, "Injected failure.",
                                       {{"uri", "file:///vm/a%20b.vmdk"}}, action);
}

TEST(EmptySparseExtentFile, FailureOfOpeningStillTriesToDelete) {
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Open}, .code = yx::CIOError::AccessDenied});
    {
        LogCapture log;
        EXPECT_TRUE(failsByInjection(yx::CIOError::AccessDenied,
                                     [&] { create(files.get(), {.grainCount = 1}); }));
        EXPECT_EQ(log.entries(), std::vector<LogCapture::Entry>{deleting("Injected failure.")});
        EXPECT_EQ(files->count({Kind::Delete}), 1);
    }
    files->clear();
    files->add({.kinds = {Kind::Open}, .code = yx::CIOError::AccessDenied});
    files->add({.kinds = {Kind::Delete}, .code = yx::CIOError::NotFound});
    LogCapture log;
    EXPECT_TRUE(failsByInjection(yx::CIOError::AccessDenied,
                                 [&] { create(files.get(), {.grainCount = 1}); }));
    EXPECT_EQ(log.entries(), (std::vector<LogCapture::Entry>{deleting("Injected failure."),
                                                             deletionFailed("Injected failure.")}));
}

TEST(EmptySparseExtentFile, FailedDeletionHidesNoError) {
    LogCapture log;
    IgnoredExceptionCapture ignored;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Write}, .sticky = true, .code = yx::CIOError::NoSpace});
    files->add({.kinds = {Kind::Delete}, .code = yx::CIOError::AccessDenied});
    EXPECT_TRUE(
        failsByInjection(yx::CIOError::NoSpace, [&] { create(files.get(), {.grainCount = 1}); }));
    EXPECT_EQ(log.entries(), (std::vector<LogCapture::Entry>{deleting("Injected failure."),
                                                             deletionFailed("Injected failure.")}));
    EXPECT_TRUE(memory->fileExists(kURI));
}

TEST(EmptySparseExtentFile, FailureOfAnyOperationReachesTheCallerAndLeavesNoFile) {
    // Large enough that the buffering layer writes before the end, too.
    Form const form{.streamOptimized = true, .grainCount = 0x40000, .descriptorSizeSectors = 1};
    for (Kind const kind : {Kind::Open, Kind::Seek, Kind::Write, Kind::Close}) {
        auto const counted = yx::makeObject<yx::CMemoryFileSystem>();
        auto const counter = yx::makeObject<FaultyFileSystem>(counted.get());
        create(counter.get(), form);
        int const operations = counter->count({kind});
        for (int nth = 1; nth <= operations; ++nth) {
            for (bool const sticky : {false, true}) {
                LogCapture log;
                IgnoredExceptionCapture ignored;
                auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
                auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
                files->add({.kinds = {kind},
                            .nth = nth,
                            .sticky = sticky,
                            .code = yx::CIOError::NoSpace,
                            .effect = Fault::Effect::Tear});
                EXPECT_TRUE(
                    failsByInjection(yx::CIOError::NoSpace, [&] { create(files.get(), form); }))
                    << nth << " of kind " << static_cast<int>(kind);
                EXPECT_FALSE(memory->fileExists(kURI));
                EXPECT_EQ(log.entries(),
                          std::vector<LogCapture::Entry>{deleting("Injected failure.")});
            }
        }
    }
}

TEST(EmptySparseExtentFile, WriteHeldBackToTheEndFailsBeforeTheCallReturns) {
    // So small that nothing reaches the file before it is closed.
    LogCapture log;
    IgnoredExceptionCapture ignored;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Write}, .sticky = true, .code = yx::CIOError::NoSpace});
    EXPECT_TRUE(
        failsByInjection(yx::CIOError::NoSpace, [&] { create(files.get(), {.grainCount = 0}); }));
    EXPECT_FALSE(memory->fileExists(kURI));
    EXPECT_EQ(log.entries(), std::vector<LogCapture::Entry>{deleting("Injected failure.")});
}

TEST(EmptySparseExtentFile, ErrorsOutsideTheFamilyAreHandledAlike) {
    LogCapture log;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const files = yx::makeObject<test_support::HookedFileSystem>(
        memory.get(), [](auto& operation, auto const& proceed) {
            if (operation.kind == Kind::Write)
                throw std::bad_alloc();
            proceed();
        });
    IgnoredExceptionCapture ignored;
    EXPECT_THROW(create(files.get(), {.grainCount = 1}), std::bad_alloc);
    EXPECT_FALSE(memory->fileExists(kURI));
    EXPECT_EQ(log.entries(), std::vector<LogCapture::Entry>{deleting("std::bad_alloc")});
}

} // namespace

} // namespace empty_sparse_extent_file_test
