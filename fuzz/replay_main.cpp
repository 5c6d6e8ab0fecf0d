// Stand-in for libFuzzer's driver: feeds every file named on the command line (directories:
// each regular file inside, in name order) to LLVMFuzzerTestOneInput once. A crash or a
// failed check ends the process like under libFuzzer; an empty corpus is an error, so a
// mistyped directory cannot pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i]))
            files.emplace_back(argv[i]);
        else
            for (const auto& entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        // A copy of exactly the input's size, so the sanitizers see reads past its end.
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), data.size());
        LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    }
    if (files.empty()) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 1;
    }
    std::fprintf(stderr, "replayed %zu inputs\n", files.size());
    return 0;
}
