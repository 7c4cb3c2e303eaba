#include "fuzz/support/disk_input.h"

#include <algorithm>
#include <iterator>

namespace kelm::fuzz {

namespace {

constexpr int kScriptLengthBytes = 2;
constexpr int kFileLengthBytes = 4;
constexpr int kRunCountBytes = 2;
constexpr int kOffsetBytes = 4;
constexpr int kRunLengthBytes = 2;
constexpr std::size_t kMaxRunBytes = 0xFFFF;

std::vector<std::uint8_t> toVector(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

void appendNumber(std::vector<std::uint8_t>& target, std::size_t value, int sizeBytes) {
    for (int i = 0; i < sizeBytes; ++i)
        target.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

InputFile parseFile(Input& input) {
    InputFile file;
    file.nameIndex = input.takeByte();
    file.lengthBytes = std::min(input.takeNumber(kFileLengthBytes), kMaxFileBytes);
    for (std::uint32_t left = input.takeNumber(kRunCountBytes); left > 0 && !input.isEmpty();
         --left) {
        FileRun run;
        run.offsetBytes = input.takeNumber(kOffsetBytes);
        std::uint32_t const sizeBytes = input.takeNumber(kRunLengthBytes);
        run.bytes = toVector(input.takeBytes(sizeBytes));
        file.runs.push_back(std::move(run));
    }
    return file;
}

void appendFile(std::vector<std::uint8_t>& target, InputFile const& file) {
    target.push_back(file.nameIndex);
    appendNumber(target, file.lengthBytes, kFileLengthBytes);
    appendNumber(target, file.runs.size(), kRunCountBytes);
    for (FileRun const& run : file.runs) {
        appendNumber(target, run.offsetBytes, kOffsetBytes);
        appendNumber(target, run.bytes.size(), kRunLengthBytes);
        target.insert(target.end(), run.bytes.begin(), run.bytes.end());
    }
}

yx::TBuffer<unsigned char> toContent(InputFile const& file) {
    auto const lengthBytes = static_cast<std::size_t>(file.lengthBytes);
    yx::TBuffer<unsigned char> content(static_cast<int>(lengthBytes), -1);
    yx::initMemory(content.getData(), 0, lengthBytes);
    for (FileRun const& run : file.runs) {
        if (run.offsetBytes < lengthBytes) {
            yx::copyMemory(content.getData() + run.offsetBytes, run.bytes.data(),
                           std::min(run.bytes.size(), lengthBytes - run.offsetBytes));
        }
    }
    return content;
}

} // namespace

DiskInput DiskInput::parse(Bytes bytes) {
    Input input(bytes.data(), bytes.size());
    DiskInput result;
    std::uint32_t const scriptBytes = input.takeNumber(kScriptLengthBytes);
    result.script = toVector(input.takeBytes(scriptBytes));
    std::size_t const fileCount = std::min<std::size_t>(input.takeByte(), kMaxFiles);
    while (result.files.size() < fileCount && !input.isEmpty())
        result.files.push_back(parseFile(input));
    return result;
}

std::vector<std::uint8_t> DiskInput::serialize() const {
    std::vector<std::uint8_t> bytes;
    appendNumber(bytes, script.size(), kScriptLengthBytes);
    bytes.insert(bytes.end(), script.begin(), script.end());
    bytes.push_back(static_cast<std::uint8_t>(files.size()));
    for (InputFile const& file : files)
        appendFile(bytes, file);
    return bytes;
}

void DiskInput::addFile(std::uint8_t nameIndex, yx::TBuffer<unsigned char> const& content) {
    InputFile file;
    file.nameIndex = nameIndex;
    file.lengthBytes = static_cast<std::uint32_t>(content.getUsed());
    std::uint8_t const* const begin = content.getData();
    std::uint8_t const* const end = begin + content.getUsed();
    auto const isNotZero = [](std::uint8_t byte) { return byte != 0; };
    for (auto at = std::find_if(begin, end, isNotZero); at != end;) {
        auto runEnd = at;
        auto next = at;
        while (next != end && next < runEnd + kMinGapBytes && runEnd < at + kMaxRunBytes) {
            runEnd = next + 1;
            next = std::find_if(runEnd, end, isNotZero);
        }
        runEnd = std::min(runEnd, at + kMaxRunBytes);
        file.runs.push_back({static_cast<std::uint32_t>(at - begin), {at, runEnd}});
        at = std::find_if(runEnd, end, isNotZero);
    }
    files.push_back(std::move(file));
}

void DiskInput::putFiles(yx::CMemoryFileSystem& target) const {
    for (InputFile const& file : files)
        target.putFile(getFileURI(file.nameIndex), toContent(file));
}

yx::CURI getFileURI(std::uint8_t nameIndex) {
    return yx::CURI("mem:///disks/") << yx::String(kFileNames[nameIndex % std::size(kFileNames)]);
}

} // namespace kelm::fuzz
