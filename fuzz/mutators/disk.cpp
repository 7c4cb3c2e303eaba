// Changes an input of fuzz_disk without breaking its form: a run of a file, the script, or how the
// runs lie. Now and then it changes the bytes blindly all the same.

#include <algorithm>
#include <iterator>
#include <random>
#include <utility>
#include <vector>

#include "fuzz/support/disk_input.h"
#include "kelm/format/constants.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using kelm::fuzz::DiskInput;
using kelm::fuzz::FileRun;
using kelm::fuzz::InputFile;

constexpr std::size_t kMaxScriptBytes = 600;
constexpr std::size_t kMaxRunGrowthBytes = 64;

class Mutation {
public:
    Mutation(DiskInput& input, unsigned int seed) : m_input(input), m_random(seed) {}

    void apply() {
        unsigned int const choice = draw(100);
        if (choice < 35 || m_input.files.empty())
            mutate(m_input.script, kMaxScriptBytes);
        else if (choice < 85)
            mutateRun();
        else if (choice < 92)
            mutateNumber();
        else if (choice < 95)
            mutateLength();
        else if (choice < 97)
            copyRun();
        else
            drawFile().nameIndex =
                static_cast<std::uint8_t>(draw(std::size(kelm::fuzz::kFileNames)));
    }

private:
    unsigned int draw(std::size_t below) {
        return static_cast<unsigned int>(m_random() % static_cast<unsigned int>(below));
    }

    InputFile& drawFile() { return m_input.files[draw(m_input.files.size())]; }

    static void mutate(std::vector<std::uint8_t>& bytes, std::size_t maxBytes) {
        std::size_t const sizeBytes = bytes.size();
        std::size_t const roomBytes = std::max(sizeBytes, maxBytes);
        bytes.resize(roomBytes);
        bytes.resize(LLVMFuzzerMutate(bytes.data(), sizeBytes, roomBytes));
    }

    void mutateRun() {
        InputFile& file = drawFile();
        if (file.runs.empty()) {
            file.runs.push_back({draw(file.lengthBytes + 1), {1}});
            return;
        }
        FileRun& run = file.runs[draw(file.runs.size())];
        mutate(run.bytes, run.bytes.size() + kMaxRunGrowthBytes);
    }

    /// A 32-bit number in place, as headers and tables are full of them.
    void mutateNumber() {
        InputFile& file = drawFile();
        if (file.runs.empty())
            return;
        FileRun& run = file.runs[draw(file.runs.size())];
        constexpr std::size_t kNumberBytes = 4;
        if (run.bytes.size() < kNumberBytes)
            return;
        unsigned int value = draw(4) == 0 ? draw(0xFFFFFFFF) : draw(64);
        if (draw(4) == 0)
            value = ~value;
        std::size_t const at = draw(run.bytes.size() - kNumberBytes + 1);
        for (std::size_t i = 0; i < kNumberBytes; ++i)
            run.bytes[at + i] = static_cast<std::uint8_t>(value >> 8 * i);
    }

    void mutateLength() {
        InputFile& file = drawFile();
        file.lengthBytes = draw(2) == 0 ? draw(file.lengthBytes + 1)
                                        : file.lengthBytes + kelm::kSectorSizeBytes * draw(64);
        file.lengthBytes = std::min(file.lengthBytes, kelm::fuzz::kMaxFileBytes);
    }

    /// To another sector of its file.
    void copyRun() {
        InputFile& file = drawFile();
        if (file.runs.empty())
            return;
        FileRun run = file.runs[draw(file.runs.size())];
        run.offsetBytes =
            draw(file.lengthBytes / kelm::kSectorSizeBytes + 1) * kelm::kSectorSizeBytes;
        file.runs.push_back(std::move(run));
    }

    DiskInput& m_input;
    std::mt19937 m_random;
};

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned int seed) {
    constexpr unsigned int kBlindEvery = 20;
    if (seed % kBlindEvery == 0)
        return LLVMFuzzerMutate(data, size, maxSize);
    DiskInput input = DiskInput::parse({data, size});
    Mutation(input, seed).apply();
    std::vector<std::uint8_t> const bytes = input.serialize();
    if (bytes.size() > maxSize)
        return LLVMFuzzerMutate(data, size, maxSize);
    std::copy(bytes.begin(), bytes.end(), data);
    return bytes.size();
}
