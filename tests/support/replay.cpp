// Feeds a fuzz harness without a fuzzer: every file of its kept corpus, so that what was once found stays found, and as
// many inputs by chance as the caller asks for, the same ones each time.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int, char** argv)
{
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::mt19937 random(4711);
    for (int round = 0; round < std::atoi(argv[2]); ++round) {
        std::vector<uint8_t> bytes(random() % (round % 2 == 0 ? 20 : 250));
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random()); });
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
}
