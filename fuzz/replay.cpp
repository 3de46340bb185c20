// Runs what a fuzzer once found worth keeping, whole and cut at each byte, without a fuzzer.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            for (std::size_t size = 0; size <= bytes.size(); ++size, ++runs) {
                // In memory of its own, so that reading beyond the end shows.
                const std::vector<unsigned char> part(bytes.begin(), bytes.begin() + std::ptrdiff_t(size));
                LLVMFuzzerTestOneInput(part.data(), part.size());
            }
        }
    }
    std::printf("%d runs\n", runs);
    return runs > 0 ? 0 : 1;
}
