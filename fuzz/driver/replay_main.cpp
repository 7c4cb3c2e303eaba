// Stands in for libFuzzer where a build does not fuzz: runs the target once on every file of the
// folders and files given. Fails if there is none, since then nothing was tried.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

void replay(fs::path const& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw fs::filesystem_error("cannot read", path, std::error_code());
    std::vector<std::uint8_t> const data((std::istreambuf_iterator<char>(stream)),
                                         std::istreambuf_iterator<char>());
    // Named before it runs, so that the input of a crash is known.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(data.data(), data.size());
}

int replayAll(fs::path const& path) {
    if (!fs::is_directory(path)) {
        replay(path);
        return 1;
    }
    int count = 0;
    for (auto const& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) {
            replay(entry.path());
            ++count;
        }
    }
    return count;
}

} // namespace

int main(int argc, char** argv) {
    try {
        int count = 0;
        for (int index = 1; index < argc; ++index)
            count += replayAll(argv[index]);
        std::printf("%d inputs\n", count);
        return count > 0 ? 0 : 1;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
