// Replays inputs through a fuzz target's LLVMFuzzerTestOneInput without libFuzzer, so that the
// seeds and the inputs of past failures run as ordinary tests in every build.
//
// Usage: <target>_fuzz_replay PATH...   Each PATH is a file or a directory of files (not
// descended into); a PATH that does not exist is skipped, since git keeps no empty directory.
// Fails when no input at all was replayed. A broken promise traps, as under the fuzzer.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsAt(const std::filesystem::path& path)
{
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(path)) {
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            if (entry.is_regular_file()) {
                inputs.push_back(entry.path());
            }
        }
        std::sort(inputs.begin(), inputs.end());
    } else if (std::filesystem::is_regular_file(path)) {
        inputs.push_back(path);
    }
    return inputs;
}

}  // namespace

int main(int argc, char** argv)
{
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& input : inputsAt(argv[i])) {
            std::fprintf(stderr, "replaying %s\n", input.c_str());
            std::ifstream file(input, std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            // A copy of exactly the input's size, so the sanitizers see a read past its end.
            std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++replayed;
        }
    }
    std::printf("replayed %zu inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
