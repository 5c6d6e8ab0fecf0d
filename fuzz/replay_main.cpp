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
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputsOf(const fs::path& path)
{
    if (!fs::is_directory(path))
        return {path};
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(path))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
    // A copy of exactly the input's size, so the sanitizers see reads past its end.
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : inputsOf(argv[i])) {
            if (!replay(file))
                return 1;
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 1;
    }
    std::fprintf(stderr, "replayed %zu inputs\n", count);
    return 0;
}
