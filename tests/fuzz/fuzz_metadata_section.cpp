// Reads untrusted bytes as a sequence's metadata-type section and as a per-frame metadata area,
// with the section's types made known for display strings (so hostile patterns are applied to
// hostile data). Items that were decoded must encode back into an area of the same size.
//
// Input: u16 section length L, then L bytes of section, then the frame area.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include "sequence/CKestorMetadataManager.h"
#include "sequence/MetadataLayout.h"
#include "support/TempDir.h"

namespace {

// One manager for the whole run, on a private registry store that is removed at exit.
CKestorMetadataManager& Manager() {
    static kestor::test::TempDir folder(std::filesystem::temp_directory_path().string());
    static std::unique_ptr<CKestorMetadataManager> manager = [] {
        setenv("KESTOR_REGISTRY", folder.File("registry.db").c_str(), 1);
        auto created = std::make_unique<CKestorMetadataManager>();
        created->RegisterGenericTypes();
        created->RegisterTavLinTypes();
        return created;
    }();
    return *manager;
}

// A copy on the heap of exactly `size` bytes, so that the sanitizer sees any overread.
std::unique_ptr<uint8_t[]> Exact(const uint8_t* data, size_t size) {
    auto copy = std::make_unique<uint8_t[]>(size);
    if (size != 0) std::copy(data, data + size, copy.get());
    return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 1u << 20) return 0;
    const size_t sectionSize = std::min<size_t>(data[0] | data[1] << 8, size - 2);
    const auto section = Exact(data + 2, sectionSize);
    const size_t areaSize = size - 2 - sectionSize;
    const auto area = Exact(data + 2 + sectionSize, areaSize);

    // The whole input as a section too, where it is large enough to test the size limit.
    std::vector<KMetadataInfo> types;
    const auto whole = Exact(data, size);
    kestor::ParseTypeSection(whole.get(), static_cast<uint32_t>(size), types);

    CKestorMetadataManager& manager = Manager();
    manager.ClearFileTypes();
    kestor::ImportTypeSection(section.get(), static_cast<uint32_t>(sectionSize), manager);

    std::vector<KMetadata> items;
    const bool complete =
        kestor::DecodeFrameMetadata(area.get(), static_cast<uint32_t>(areaSize), items, &manager);

    // What was decoded fits where it came from, and reads back the same.
    if (areaSize >= 4) {
        std::vector<uint8_t> again(areaSize);
        if (!kestor::EncodeFrameMetadata(items, again.data(), static_cast<uint32_t>(areaSize)))
            std::abort();
        std::vector<KMetadata> reread;
        if (!kestor::DecodeFrameMetadata(again.data(), static_cast<uint32_t>(areaSize), reread))
            std::abort();
        if (reread.size() != items.size()) std::abort();
        for (size_t i = 0; i < items.size(); ++i)
            if (reread[i].GetTypeID() != items[i].GetTypeID() ||
                reread[i].GetDataSize() != items[i].GetDataSize())
                std::abort();
    } else if (complete) {
        std::abort();  // an area too small for the count is never read as complete
    }
    return 0;
}
