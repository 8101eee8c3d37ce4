// Gives every file of the folders on the command line to a fuzz target, without a fuzzer.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    int replayed = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::cout << entry.path().string() << std::endl;
            std::ifstream file(entry.path(), std::ios_base::binary);
            const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++replayed;
        }
    return replayed > 0 ? 0 : 1;
}
