#include "host/disk/main_file_form.h"

#include "tests/host/host_fixture.h"

using kelm::host::verifyIsExtentOrText;

namespace test_support {
namespace {

constexpr char kImageMessage[] =
    "The file is a raw image, not a disk, or its beginning is destroyed.";
constexpr char kUTF16Message[] = "The descriptor is stored as UTF-16. Store it as UTF-8.";

class MainFileForm : public HostTest {
protected:
    void verify(std::string const& content) {
        putText("disk.vmdk", content);
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const stream =
            files->openFile(uriOf("disk.vmdk"), kReadOnly, &reserved);
        verifyIsExtentOrText(*stream, uriOf("disk.vmdk"));
    }

    bool isRefused(std::string const& content, yx::CIOError::Code code, char const* message) {
        return throwsIOError(code, message, {{"uri", "mem:///disks/disk.vmdk"}},
                             [&] { verify(content); });
    }
};

TEST_F(MainFileForm, ExtentsAndTextsPass) {
    for (std::string const& content :
         {std::string("KDMV\1\0\0\0\3\0\0\0", 12), std::string("# comment\n"),
          std::string("createType=\"x\"\r\n\tname=\xE4\n") + std::string(600, '\0'),
          std::string(2000, 'x'), std::string("# Disk DescriptorFile\nname=\x1b[31m\n"),
          // Too short to tell.
          std::string(), std::string("\0\0\0", 3)})
        EXPECT_NO_THROW(verify(content)) << content;
}

TEST_F(MainFileForm, BytesOfNoTextAreARawImage) {
    for (std::string const& content :
         {std::string(512, '\0'), std::string(4, '\0'), std::string("\xEB\x63\x90\x10", 4),
          std::string("text \x01"), std::string("\0# comment", 10)})
        EXPECT_TRUE(isRefused(content, yx::CIOError::CorruptData, kImageMessage)) << content;
}

TEST_F(MainFileForm, ZeroInEverySecondByteIsUTF16) {
    for (std::string const& content :
         {std::string("\xFF\xFE#\0 \0D\0i\0", 10), std::string("\xFE\xFF\0#\0 \0D\0i", 10),
          std::string("#\0 \0D\0i\0", 8), std::string("\0#\0 \0D\0i", 8)})
        EXPECT_TRUE(isRefused(content, yx::CIOError::NotSupported, kUTF16Message)) << content;
}

} // namespace
} // namespace test_support
