// Images that show memory they do not own: never freed, never written by a copy into them.
#include <gtest/gtest.h>

#include <vector>

#include "KImage.h"
#include "core/CKestorImage.h"

TEST(ImageForeignBuffer, ShowsTheMemoryAndNeverFreesOrOverwritesIt) {
    std::vector<uint8_t> memory(10 * 4, 0x11);
    KImageDescription description{10, 4, 8, 8, 40, eKFormatMono};
    {
        CKestorImage image;
        image.AttachForeignBuffer(description, memory.data(), memory.size());
        EXPECT_FALSE(image.OwnsBuffer());
        EXPECT_EQ(image.Buffer(), memory.data());
        EXPECT_EQ(image.BufferSize(), 40u);
        EXPECT_EQ(image.ExtraBytes(), 0u);

        KImage handle(&image);
        EXPECT_EQ(handle.GetRawImageData(), memory.data());
        EXPECT_EQ(handle.GetImageSizeBytes(), 40u);
        EXPECT_EQ(handle.GetGreenChannel(), nullptr);

        // Cloning out copies the pixels into a buffer of the clone's own.
        KImage* clone = KImage::CloneKImage(&handle);
        ASSERT_NE(clone->GetRawImageData(), nullptr);
        EXPECT_NE(clone->GetRawImageData(), memory.data());
        EXPECT_EQ(clone->GetRawImageData()[39], 0x11);
        EXPECT_TRUE(clone->GetImage()->OwnsBuffer());

        // Cloning in (same description) must not write into the borrowed memory.
        clone->GetRawImageData()[0] = 0x22;
        KImage::CloneKImage(&handle, clone);
        EXPECT_EQ(memory[0], 0x11);
        EXPECT_EQ(handle.GetRawImageData()[0], 0x22);
        EXPECT_TRUE(image.OwnsBuffer());
        KImage::DeleteKImage(clone);

        // Reallocation drops a borrowed pointer and allocates.
        image.AttachForeignBuffer(description, memory.data(), memory.size());
        ASSERT_TRUE(image.Reallocate(8, 8, 8, 8, eKFormatMono));
        EXPECT_TRUE(image.OwnsBuffer());
        EXPECT_NE(image.Buffer(), memory.data());
        EXPECT_EQ(image.BufferSize(), CKestorImage::BufferSizeFor(64, 0));

        // Reset forgets it; the destructor then has nothing borrowed to free.
        image.AttachForeignBuffer(description, memory.data(), memory.size());
        image.Reset();
        EXPECT_EQ(image.Buffer(), nullptr);
        EXPECT_TRUE(image.OwnsBuffer());
        image.AttachForeignBuffer(description, memory.data(), memory.size());
    }
    EXPECT_EQ(memory[5], 0x11);  // still ours, and untouched

    // The planar format gets its plane pointers into the borrowed memory.
    std::vector<uint8_t> planar(3 * 16);
    CKestorImage image;
    image.AttachForeignBuffer({4, 4, 24, 8, 48, eKFormatBGRPlanar}, planar.data(), planar.size());
    EXPECT_EQ(image.Plane1(), planar.data() + 16);
    EXPECT_EQ(image.Plane2(), planar.data() + 32);
    // A null pointer leaves an empty image that owns nothing.
    image.AttachForeignBuffer(description, nullptr, 0);
    EXPECT_EQ(image.Buffer(), nullptr);
    EXPECT_EQ(image.BufferSize(), 0u);
}
