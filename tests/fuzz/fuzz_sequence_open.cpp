// Opens arbitrary bytes as a sequence file and reads everything a player would: frames,
// timestamps and time searches. Nothing may crash, and no buffer may be larger than the file
// itself could justify.
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "KImage.h"
#include "sequence/CKestorSequencerDisk.h"
#include "support/TempDir.h"

namespace {

constexpr uint32_t kMostFramesRead = 64;

const kestor::test::TempDir& Scratch() {
    static const kestor::test::TempDir folder(
        std::filesystem::is_directory("/dev/shm")
            ? "/dev/shm"
            : std::filesystem::temp_directory_path().string());
    return folder;
}

void Prepare() {
    static const bool done = [] {
        // Metadata types named by a file are looked up in a store of the fuzzer's own.
        setenv("KESTOR_REGISTRY", Scratch().File("registry.db").c_str(), 1);
        return true;
    }();
    (void)done;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Prepare();
    const std::string path = Scratch().File("input.seq");
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }

    CKestorSequencerDisk sequencer;
    sequencer.SetErrorOutput(false, false, false);
    bool readOnly = true, upgraded = false;
    if (!sequencer.Open(path, readOnly, upgraded)) return 0;

    const uint32_t frames = sequencer.GetFrameCount();
    KImage image;
    for (uint32_t frame = 1; frame <= frames && frame <= kMostFramesRead; ++frame) {
        if (!sequencer.Read(&image, frame)) std::abort();
        // The frame buffer holds at most one slot, and a slot lies inside the file.
        if (image.GetBufferSizeBytes() > size + 512) std::abort();
        for (int i = 0; i < image.GetMetadataCount(); ++i)
            if (image.GetMetadata(i)->GetDataSize() > size) std::abort();
        uint32_t seconds;
        uint16_t milliseconds, microseconds;
        if (!sequencer.ReadTimestamp(frame, seconds, milliseconds, microseconds)) std::abort();
        if (seconds != image.GetTimestamp() || milliseconds != image.GetTimestampMS()) std::abort();
    }
    uint32_t found = 0;
    if (frames > 0) {
        sequencer.GetIndexNear(0, 0, 0, found);
        sequencer.GetIndexNear(0x7FFFFFFF, 999, 999, found);
        if (found < 1 || found > frames) std::abort();
    }
    sequencer.Read(&image, frames + 1);
    sequencer.Close();
    return 0;
}
