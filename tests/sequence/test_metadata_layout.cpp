// The metadata records and areas of a sequence file: exact encodings, sizing, and hostile
// bytes that must be refused without reading past their end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KImage.h"
#include "KMetadataManager.h"
#include "platform/Registry.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/MetadataLayout.h"
#include "sequence_test_support.h"

using namespace kestor;

namespace {

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
    if (bytes.size() < at + 4) bytes.resize(at + 4);
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t Get32(const uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24;
}

std::vector<uint8_t> Serialized(const KMetadataInfo& info) {
    std::vector<uint8_t> bytes(info.GetSerializedSize());
    EXPECT_EQ(info.Serialize(bytes.data(), static_cast<uint32_t>(bytes.size())), bytes.size());
    return bytes;
}

KMetadata Item(uint32_t id, std::vector<uint8_t> data) {
    return KMetadata(id, data.data(), static_cast<uint32_t>(data.size()));
}

// A heap copy of exactly `size` bytes, so that the sanitizer catches any read past them.
std::unique_ptr<uint8_t[]> Exact(const std::vector<uint8_t>& bytes, size_t size) {
    auto exact = std::make_unique<uint8_t[]>(size);
    std::memcpy(exact.get(), bytes.data(), std::min(size, bytes.size()));
    return exact;
}

TEST(MetadataInfoRecord, SerialisesAsSizeIdFormatSizeAndThreeTerminatedStrings) {
    const KMetadataInfo info(0x80000001u, u"Gain", u"", eKMetadataInteger, 4, u"%d");
    const std::vector<uint8_t> bytes = Serialized(info);
    ASSERT_EQ(bytes.size(), 34u);
    EXPECT_EQ(Get32(&bytes[0]), 34u);
    EXPECT_EQ(Get32(&bytes[4]), 0x80000001u);
    EXPECT_EQ(Get32(&bytes[8]), 5u);
    EXPECT_EQ(Get32(&bytes[12]), 4u);
    const uint8_t strings[] = {'G', 0, 'a', 0, 'i', 0, 'n', 0, 0, 0, 0, 0, '%', 0, 'd', 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(&bytes[16], strings, sizeof strings));
    uint8_t small[33];
    EXPECT_EQ(info.Serialize(small, sizeof small), 0u);
    EXPECT_EQ(info.Serialize(nullptr, 100), 0u);

    KMetadataInfo back;
    uint32_t consumed = 0;
    ASSERT_TRUE(KMetadataInfo::FromBytes(bytes.data(), 34, back, &consumed));
    EXPECT_EQ(consumed, 34u);
    EXPECT_EQ(Serialized(back), bytes);

    // A stored size beyond what the strings need is kept; the rest is written as zero.
    std::vector<uint8_t> padded = Serialized(KMetadataInfo(7, u"A", u"B", 8, 0, u"C"));
    ASSERT_EQ(padded.size(), 28u);
    padded.resize(40, 0xEE);
    Put32(padded, 0, 40);
    ASSERT_EQ(back.Deserialize(padded.data(), 40), 40u);
    std::vector<uint8_t> expected(padded.begin(), padded.begin() + 28);
    expected.resize(40, 0);
    EXPECT_EQ(Serialized(back), expected);
}

TEST(MetadataInfoRecord, HostileRecordsAreRefusedWithoutReadingPastTheBytes) {
    const std::vector<uint8_t> good = Serialized(KMetadataInfo(9, u"Name", u"Desc", 5, 4, u"%d"));
    const auto size = static_cast<uint32_t>(good.size());
    const auto refused = [](const std::vector<uint8_t>& bytes, uint32_t available) {
        const auto exact = Exact(bytes, available);
        KMetadataInfo out(1, u"keep", u"", 0, 0, u"");
        return out.Deserialize(exact.get(), available) == 0 &&
               std::u16string(out.GetName()) == u"keep";
    };
    EXPECT_TRUE(refused(good, size - 1)) << "truncated";
    EXPECT_TRUE(refused(good, 21)) << "shorter than the smallest record";
    std::vector<uint8_t> bad = good;
    // Size fields past the bytes, below the fixed part, zero, and one that cuts the last NUL.
    for (uint32_t field : {size + 1, 15u, 0u, size - 2}) {
        Put32(bad, 0, field);
        EXPECT_TRUE(refused(bad, size)) << "size field " << field;
    }
    std::vector<uint8_t> noNul(64, 'x');
    Put32(noNul, 0, 64);
    EXPECT_TRUE(refused(noNul, 64)) << "no NUL anywhere";
    KMetadataInfo out;
    EXPECT_EQ(out.Deserialize(nullptr, 100), 0u);
}

using MetadataLayoutTest = test::MetadataStoreTest;

TEST_F(MetadataLayoutTest, AreaAndSectionSizesFollowTheDynamicSetting) {
    CKestorMetadataManager manager;
    const KMetadataInfo first(0x80000001u, u"First", u"one", eKMetadataInteger, 4, u"%d");
    const KMetadataInfo second(0x80000002u, u"Second", u"", eKMetadataDouble, 8, u"%f");
    const KMetadataInfo low(100, u"Low", u"", eKMetadataInteger, 4, u"%d");
    for (const auto* type : {&first, &second, &low})
        ASSERT_TRUE(manager.RegisterMetadataType(*type));
    KImage image;
    image.AddMetadata(Item(0x80000001u, {1, 0, 0, 0}));
    image.AddMetadata(Item(0x80000001u, {2, 0, 0, 0}));  // same type again: counted once
    image.AddMetadata(Item(100, {3, 0, 0, 0}));          // registered, but not an app type
    image.AddMetadata(Item(0x80000099u, {}));            // app type, but not registered

    // Fixed: the image's capacity and the section setting alone, rounded; 0 means none.
    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(false));
    EXPECT_EQ(PerFrameMetadataSize(image, 600, manager), 600u);
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 0u);
    ASSERT_TRUE(manager.SetMetadataInfoSize(1000));
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 1024u);
    EXPECT_EQ(TypeSectionSize(image, manager, 1), 1000u);

    // Dynamic: what the items need, cut to the capacity; the distinct registered app types.
    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(true));
    const uint32_t needed = 4 + 3 * (8 + 4) + 8;
    EXPECT_EQ(PerFrameMetadataSize(image, 600, manager), needed);
    EXPECT_EQ(PerFrameMetadataSize(image, needed - 1, manager), needed - 1);
    EXPECT_EQ(PerFrameMetadataSize(KImage(), 600, manager), 4u) << "just the count";
    const auto types = ApplicationTypesOf(image, manager);
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0]->GetID(), 0x80000001u);
    EXPECT_EQ(TypeSectionSize(image, manager, 0), 4 + first.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 512u);
    image.AddMetadata(Item(0x80000002u, std::vector<uint8_t>(8)));
    EXPECT_EQ(TypeSectionSize(image, manager, 1),
              4 + first.GetSerializedSize() + second.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(KImage(), manager, 1), 4u) << "a section holding a zero count";
}

TEST_F(MetadataLayoutTest, FrameAreaRoundTripsAndItemsThatDoNotFitLeaveAReadableArea) {
    CKestorMetadataManager manager;
    const std::vector<KMetadata> items = {Item(4, {0xFB, 0xFF, 0xFF, 0xFF}), Item(8, {}),
                                          Item(0x80000007u, {9, 8, 7})};
    std::vector<uint8_t> area(64, 0xCC);
    ASSERT_TRUE(EncodeFrameMetadata(items, area.data(), 64));
    EXPECT_EQ(Get32(&area[0]), 3u);
    EXPECT_EQ(Get32(&area[4]), 4u);
    EXPECT_EQ(Get32(&area[8]), 4u);
    const uint32_t used = 4 + 12 + 8 + 11;
    EXPECT_EQ(std::vector<uint8_t>(area.begin() + used, area.end()),
              std::vector<uint8_t>(64 - used, 0))
        << "padding is zero";
    std::vector<KMetadata> back{Item(1, {1})};
    ASSERT_TRUE(DecodeFrameMetadata(area.data(), 64, back));
    EXPECT_EQ(back, items) << "display strings stay empty without a manager";
    ASSERT_TRUE(DecodeFrameMetadata(area.data(), 64, back, &manager));
    EXPECT_EQ(std::u16string(back[0].GetDisplayString()), u"-5");
    ASSERT_TRUE(EncodeFrameMetadata(items, area.data(), used));  // an exact fit
    ASSERT_TRUE(DecodeFrameMetadata(Exact(area, used).get(), used, back));
    EXPECT_EQ(back, items);

    // One byte short of the last item: the area keeps the leading items with their count.
    std::fill(area.begin(), area.end(), 0xCC);
    EXPECT_FALSE(EncodeFrameMetadata(items, area.data(), used - 1));
    EXPECT_EQ(Get32(&area[0]), 2u);
    EXPECT_EQ(area[used - 2], 0) << "the unused rest is zero";
    ASSERT_TRUE(DecodeFrameMetadata(area.data(), used - 1, back));
    EXPECT_EQ(back, std::vector<KMetadata>(items.begin(), items.begin() + 2));
    uint8_t tiny[3] = {1, 2, 3};
    EXPECT_FALSE(EncodeFrameMetadata({}, tiny, 3));
    EXPECT_FALSE(EncodeFrameMetadata(items, nullptr, 100));
}

TEST_F(MetadataLayoutTest, HostileFrameAreasStopAtTheirEnd) {
    const auto decode = [](const std::vector<uint8_t>& bytes, std::vector<KMetadata>& out) {
        return DecodeFrameMetadata(Exact(bytes, bytes.size()).get(),
                                   static_cast<uint32_t>(bytes.size()), out);
    };
    std::vector<KMetadata> out;
    std::vector<uint8_t> area;  // the count promises more items than there are
    Put32(area, 0, 3);
    Put32(area, 4, 11);
    Put32(area, 8, 2);
    area.insert(area.end(), {5, 6});
    EXPECT_FALSE(decode(area, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].GetTypeID(), 11u);

    Put32(area, 0, 1);  // an item's length runs past the area
    Put32(area, 8, 3);
    EXPECT_FALSE(decode(area, out));
    EXPECT_TRUE(out.empty());
    Put32(area, 8, 0xFFFFFFFFu);
    EXPECT_FALSE(decode(area, out));

    // A huge count over zeros decodes the empty items that fit, then stops.
    std::vector<uint8_t> zeros(4 + 8 * 5 + 3, 0);
    Put32(zeros, 0, 0xFFFFFFFFu);
    EXPECT_FALSE(decode(zeros, out));
    EXPECT_EQ(out.size(), 5u);
    EXPECT_FALSE(decode({1, 0, 0}, out));
    EXPECT_FALSE(DecodeFrameMetadata(nullptr, 100, out));
}

TEST_F(MetadataLayoutTest, TypeSectionRoundTripsAndRefusesHostileOrOversizedSections) {
    const KMetadataInfo a(0x80000001u, u"A", u"first", eKMetadataInteger, 4, u"%d");
    const KMetadataInfo b(0x80000002u, u"B", u"", eKMetadataString, 0, u"%s");
    bool complete = false;
    const std::vector<uint8_t> section = BuildTypeSection({&a, nullptr, &b}, 512, &complete);
    EXPECT_TRUE(complete);
    ASSERT_EQ(section.size(), 512u);
    EXPECT_EQ(Get32(section.data()), 2u);
    const uint32_t used = 4 + a.GetSerializedSize() + b.GetSerializedSize();
    EXPECT_EQ(std::vector<uint8_t>(section.begin() + used, section.end()),
              std::vector<uint8_t>(512 - used, 0));
    std::vector<KMetadataInfo> types;
    ASSERT_TRUE(ParseTypeSection(section.data(), 512, types));
    ASSERT_EQ(types.size(), 2u);
    EXPECT_EQ(Serialized(types[1]), Serialized(b));

    // Too small for every record: the ones that fit, with the right count.
    const std::vector<uint8_t> cramped = BuildTypeSection({&a, &b}, used - 1, &complete);
    EXPECT_FALSE(complete);
    ASSERT_TRUE(ParseTypeSection(cramped.data(), used - 1, types));
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0].GetID(), 0x80000001u);

    // Exactly 100000 bytes is read, one more is not read at all.
    std::vector<uint8_t> big = BuildTypeSection({&a}, 100001);
    ASSERT_TRUE(ParseTypeSection(big.data(), 100000, types));
    EXPECT_EQ(types.size(), 1u);
    EXPECT_FALSE(ParseTypeSection(big.data(), 100001, types));
    EXPECT_TRUE(types.empty());
    EXPECT_TRUE(ParseTypeSection(nullptr, 0, types)) << "no section";
    EXPECT_FALSE(ParseTypeSection(big.data(), 3, types));

    // The count claims more records than there are; a record's size runs past the section.
    std::vector<uint8_t> hostile = BuildTypeSection({&a, &a}, 4 + 2 * a.GetSerializedSize());
    const auto size = static_cast<uint32_t>(hostile.size());
    Put32(hostile, 0, 3);
    EXPECT_FALSE(ParseTypeSection(hostile.data(), size, types));
    EXPECT_EQ(types.size(), 2u);
    Put32(hostile, 0, 2);
    Put32(hostile, 4 + a.GetSerializedSize(), 1000);
    EXPECT_FALSE(ParseTypeSection(Exact(hostile, size).get(), size, types));
    EXPECT_EQ(types.size(), 1u);
}

TEST_F(MetadataLayoutTest, ImportedFileTypesServeDisplayStringsWithoutTouchingTheStore) {
    CKestorMetadataManager manager;
    const auto import = [&](uint32_t id, const KChar* pattern, uint32_t size = 512) {
        const KMetadataInfo type(id, u"T", u"", eKMetadataInteger, 4, pattern);
        const std::vector<uint8_t> section = BuildTypeSection({&type}, size);
        return ImportTypeSection(section.data(), size, manager);
    };
    const auto shown = [&](uint32_t id) {
        KMetadata item = Item(id, {7, 0, 0, 0});
        manager.RebuildMetadataString(item);
        return std::u16string(item.GetDisplayString());
    };
    ASSERT_TRUE(import(0x80000020u, u"%d px"));
    EXPECT_EQ(shown(0x80000020u), u"7 px");
    EXPECT_EQ(manager.GetMetadataTypeByID(0x80000020u), nullptr) << "not registered";
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\2147483680", key),
              RegStatus::NotFound);

    // A registered type of that ID takes precedence; file types survive a reload of the list
    // but not ClearFileTypes; an oversized section contributes nothing.
    ASSERT_TRUE(manager.RegisterMetadataType(
        KMetadataInfo(0x80000020u, u"Width", u"", eKMetadataInteger, 4, u"%d pixels")));
    EXPECT_EQ(shown(0x80000020u), u"7 pixels");
    ASSERT_TRUE(import(0x80000021u, u"x%d"));
    manager.LoadTypes();
    EXPECT_EQ(shown(0x80000021u), u"x7");
    manager.ClearFileTypes();
    EXPECT_EQ(manager.FindTypeForDisplay(0x80000021u), nullptr);
    EXPECT_FALSE(import(0x80000022u, u"y%d", 100001));
    EXPECT_EQ(manager.FindTypeForDisplay(0x80000022u), nullptr);
}

}  // namespace
