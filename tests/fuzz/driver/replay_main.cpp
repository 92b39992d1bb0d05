// Replays a fuzz target's seed corpus and a bounded number of deterministic mutations of it.
// Used where libFuzzer is not available (GCC builds, CI) so every target still runs.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::vector<uint8_t>> LoadCorpus(const std::filesystem::path& folder) {
    std::vector<std::vector<uint8_t>> inputs;
    if (!std::filesystem::is_directory(folder)) return inputs;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return inputs;
}

std::vector<uint8_t> Mutate(const std::vector<uint8_t>& seed, std::mt19937& rng) {
    std::vector<uint8_t> out = seed;
    const int edits = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < edits; ++i) {
        switch (rng() % 5) {
            case 0:  // flip a byte
                if (!out.empty()) out[rng() % out.size()] = static_cast<uint8_t>(rng());
                break;
            case 1:  // truncate
                if (!out.empty()) out.resize(rng() % out.size());
                break;
            case 2:  // insert random bytes
                out.insert(out.begin() + (out.empty() ? 0 : rng() % out.size()), rng() % 16,
                           static_cast<uint8_t>(rng()));
                break;
            case 3:  // overwrite a 32-bit field with an extreme value
                if (out.size() >= 4) {
                    static const uint32_t kExtremes[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
                    uint32_t v = kExtremes[rng() % 5];
                    std::memcpy(&out[(rng() % (out.size() - 3)) & ~size_t{3}], &v, 4);
                }
                break;
            default:  // append
                out.push_back(static_cast<uint8_t>(rng()));
        }
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR [--mutations N]\n", argv[0]);
        return 2;
    }
    long mutations = 1000;
    for (int i = 2; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--mutations") == 0) mutations = std::stol(argv[i + 1]);

    auto corpus = LoadCorpus(argv[1]);
    corpus.push_back({});  // the empty input is always worth a try
    for (const auto& input : corpus) LLVMFuzzerTestOneInput(input.data(), input.size());

    std::mt19937 rng(12345);
    for (long i = 0; i < mutations; ++i) {
        auto input = Mutate(corpus[rng() % corpus.size()], rng);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("replayed %zu corpus inputs and %ld mutations\n", corpus.size(), mutations);
    return 0;
}
