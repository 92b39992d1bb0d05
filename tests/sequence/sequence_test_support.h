// Helpers of the sequence tests: a private metadata store per test, frames with recognisable
// contents, and raw access to the files under test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "KImage.h"
#include "core/CKestorImage.h"
#include "platform/RegistryDatabase.h"
#include "sequence/CKestorSequencerDisk.h"
#include "sequence/SequenceHeader.h"
#include "support/TempDir.h"

namespace kestor::test {

// Each test gets its own store file, named through KESTOR_REGISTRY, restored afterwards.
class MetadataStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* previous = getenv("KESTOR_REGISTRY")) previous_ = previous;
        setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    }
    void TearDown() override {
        RegistryDatabase::CloseUnused();
        if (previous_)
            setenv("KESTOR_REGISTRY", previous_->c_str(), 1);
        else
            unsetenv("KESTOR_REGISTRY");
    }

private:
    TempDir folder_{::testing::TempDir()};
    std::optional<std::string> previous_;
};

inline constexpr uint32_t kBaseSeconds = 1700000000;  // November 2023

struct FrameSpec {
    uint32_t width = 64;
    uint32_t height = 48;
    uint32_t bitDepth = 8;
    eKImageFormat format = eKFormatMono;
    uint16_t extraBytes = 0;  // metadata capacity behind the pixels
};

inline uint8_t PatternByte(size_t index, uint32_t seed) {
    return static_cast<uint8_t>(index * 131 + seed * 17 + (index >> 9));
}

// A frame whose pixels and timestamp are derived from `seed`.
inline KImage MakeFrame(const FrameSpec& spec, uint32_t seed) {
    KImage image;
    const uint32_t real = spec.bitDepth == 16 ? 12 : spec.bitDepth;
    EXPECT_TRUE(image.ReallocateImage(spec.width, spec.height, spec.bitDepth, real, spec.format));
    if (spec.extraBytes > 0) {
        EXPECT_TRUE(image.GetImage()->Reallocate(spec.width, spec.height, spec.bitDepth, real,
                                                 spec.format, spec.extraBytes));
    }
    uint8_t* pixels = image.GetRawImageData();
    for (size_t i = 0; i < image.GetImageSizeBytes(); ++i) pixels[i] = PatternByte(i, seed);
    image.SetTimestamp(kBaseSeconds + seed, static_cast<uint16_t>(seed % 1000),
                       static_cast<uint16_t>((seed * 7) % 1000));
    return image;
}

inline ::testing::AssertionResult HoldsPixels(const KImage& image, uint32_t seed) {
    for (size_t i = 0; i < image.GetImageSizeBytes(); ++i) {
        if (image.GetRawImageData()[i] != PatternByte(i, seed))
            return ::testing::AssertionFailure() << "pixel byte " << i << " of frame " << seed;
    }
    return ::testing::AssertionSuccess();
}

// True when `image` holds exactly the frame MakeFrame(spec, seed) made (pixels and time).
inline ::testing::AssertionResult HoldsFrame(const KImage& image, uint32_t seed) {
    ::testing::AssertionResult pixels = HoldsPixels(image, seed);
    if (!pixels) return pixels;
    if (image.GetTimestamp() != kBaseSeconds + seed || image.GetTimestampMS() != seed % 1000 ||
        image.GetTimestampUS() != (seed * 7) % 1000)
        return ::testing::AssertionFailure() << "timestamp of frame " << seed;
    return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult ReadsFrame(KSequencer& sequencer, uint32_t frame, uint32_t seed) {
    KImage image;
    if (!sequencer.Read(&image, frame))
        return ::testing::AssertionFailure() << "frame " << frame << " not read";
    return HoldsFrame(image, seed);
}

inline std::vector<uint8_t> FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

inline SequenceHeaderData HeaderOnDisk(const std::string& path) {
    SequenceHeaderData header = {};
    const std::vector<uint8_t> bytes = FileBytes(path);
    if (bytes.size() >= sizeof header) std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

template <typename Change>
void PatchHeader(const std::string& path, Change change) {
    std::vector<uint8_t> bytes = FileBytes(path);
    ASSERT_GE(bytes.size(), sizeof(SequenceHeaderData));
    SequenceHeaderData header;
    std::memcpy(&header, bytes.data(), sizeof header);
    change(header);
    std::memcpy(bytes.data(), &header, sizeof header);
    WriteFileBytes(path, bytes);
}

inline bool OpenForReading(CKestorSequencerDisk& reader, const std::string& path) {
    bool readOnly = true, upgraded = false;
    return reader.Open(path, readOnly, upgraded);
}

// Checks that `path` holds exactly the frames of seeds 1 .. count.
inline void ExpectFrames(const std::string& path, uint32_t count) {
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path)) << reader.GetLastError();
    ASSERT_EQ(reader.GetFrameCount(), count);
    for (uint32_t frame = 1; frame <= count; ++frame) EXPECT_TRUE(ReadsFrame(reader, frame, frame));
}

class DiskSequencerTest : public MetadataStoreTest {
protected:
    std::string File(const std::string& name) const { return dir_.File(name); }

    // Records seeds 1 .. count into a new file laid out for sectors of at least
    // `minimumSector` bytes; `edit` may change each frame before it is written.
    void Record(const std::string& path, const FrameSpec& spec, uint32_t count,
                const std::function<void(KImage& frame, uint32_t seed)>& edit = {},
                uint32_t minimumSector = 0) {
        CKestorSequencerDisk sequencer;
        sequencer.SetMinimumSectorSize(minimumSector);
        ASSERT_TRUE(sequencer.Create(path)) << sequencer.GetLastError();
        for (uint32_t seed = 1; seed <= count; ++seed) {
            KImage frame = MakeFrame(spec, seed);
            if (edit) edit(frame, seed);
            ASSERT_TRUE(sequencer.Write(&frame)) << sequencer.GetLastError();
        }
        ASSERT_TRUE(sequencer.Close());
    }

    TempDir dir_;
};

}  // namespace kestor::test
