#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KImage.h"
#include "KMetadataManager.h"
#include "metadata_test_support.h"
#include "platform/Registry.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/MetadataLayout.h"

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

// A heap copy of exactly the given bytes, so that any read past them is caught by the sanitizer.
std::unique_ptr<uint8_t[]> Exact(const std::vector<uint8_t>& bytes, size_t size) {
    auto exact = std::make_unique<uint8_t[]>(size);
    std::memcpy(exact.get(), bytes.data(), std::min(size, bytes.size()));
    return exact;
}

TEST(MetadataInfoRecord, SerialisesAsSizeIdFormatSizeAndThreeTerminatedStrings) {
    const KMetadataInfo info(0x80000001u, u"Gain", u"", eKMetadataInteger, 4, u"%d");
    const std::vector<uint8_t> bytes = Serialized(info);
    ASSERT_EQ(bytes.size(), 16u + 2 * (5 + 1 + 3));
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
    EXPECT_EQ(std::u16string(back.GetName()), u"Gain");
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
        const bool rejected = out.Deserialize(exact.get(), available) == 0;
        return rejected && std::u16string(out.GetName()) == u"keep";
    };
    EXPECT_TRUE(refused(good, size - 1)) << "truncated";
    EXPECT_TRUE(refused(good, 21)) << "shorter than the smallest record";
    std::vector<uint8_t> bad = good;
    // Size fields past the bytes, below the fixed part, zero, and one that cuts the last
    // string's NUL off although more bytes follow.
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

TEST_F(MetadataLayoutTest, PerFrameAreaIsTheCapacityOrTheItemsCutToIt) {
    CKestorMetadataManager manager;
    KImage image;
    image.AddMetadata(Item(4, {1, 2, 3, 4}));
    image.AddMetadata(Item(0x80000001u, std::vector<uint8_t>(10)));
    image.AddMetadata(Item(7, {}));

    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(false));
    EXPECT_EQ(PerFrameMetadataSize(image, 600, manager), 600u);
    EXPECT_EQ(PerFrameMetadataSize(image, 0, manager), 0u);

    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(true));
    const uint32_t needed = 4 + (8 + 4) + (8 + 10) + (8 + 0);
    EXPECT_EQ(PerFrameMetadataSize(image, 600, manager), needed);
    EXPECT_EQ(PerFrameMetadataSize(image, needed, manager), needed);
    EXPECT_EQ(PerFrameMetadataSize(image, needed - 1, manager), needed - 1);
    EXPECT_EQ(PerFrameMetadataSize(KImage(), 600, manager), 4u) << "just the count";
}

TEST_F(MetadataLayoutTest, TypeSectionHoldsDistinctRegisteredApplicationTypesRoundedToSectors) {
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
    image.AddMetadata(Item(0x80000099u, {4}));           // app type, but not registered

    // Fixed sizing: the setting alone, rounded; 0 means no section.
    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(false));
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 0u);
    ASSERT_TRUE(manager.SetMetadataInfoSize(1000));
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 1024u);
    EXPECT_EQ(TypeSectionSize(image, manager, 4096), 4096u);
    EXPECT_EQ(TypeSectionSize(image, manager, 1), 1000u);
    ASSERT_TRUE(manager.SetMetadataInfoSize(512));
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 512u);

    ASSERT_TRUE(manager.SetSequenceMetadataDynamic(true));
    const auto types = ApplicationTypesOf(image, manager);
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0]->GetID(), 0x80000001u);
    EXPECT_EQ(TypeSectionSize(image, manager, 1), 4 + first.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(image, manager, 0), 4 + first.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(image, manager, 512), 512u);

    image.AddMetadata(Item(0x80000002u, std::vector<uint8_t>(8)));
    EXPECT_EQ(TypeSectionSize(image, manager, 1),
              4 + first.GetSerializedSize() + second.GetSerializedSize());
    // Without application types a dynamic layout still has a section holding a zero count.
    EXPECT_EQ(TypeSectionSize(KImage(), manager, 512), 512u);
    EXPECT_EQ(TypeSectionSize(KImage(), manager, 1), 4u);
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

    // An exact fit, and an empty list.
    ASSERT_TRUE(EncodeFrameMetadata(items, area.data(), used));
    ASSERT_TRUE(DecodeFrameMetadata(Exact(area, used).get(), used, back));
    EXPECT_EQ(back, items);
    uint8_t four[4] = {9, 9, 9, 9};
    EXPECT_TRUE(EncodeFrameMetadata({}, four, 4));
    EXPECT_EQ(Get32(four), 0u);

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
    // The count promises more items than there are.
    std::vector<uint8_t> area;
    Put32(area, 0, 3);
    Put32(area, 4, 11);
    Put32(area, 8, 2);
    area.insert(area.end(), {5, 6});
    EXPECT_FALSE(decode(area, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].GetTypeID(), 11u);

    // An item's length runs past the area.
    Put32(area, 0, 1);
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

TEST_F(MetadataLayoutTest, TypeSectionRoundTripsPaddedWithZeros) {
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
    EXPECT_EQ(Serialized(types[0]), Serialized(a));
    EXPECT_EQ(Serialized(types[1]), Serialized(b));

    // A section too small for every record keeps the ones that fit, with the right count.
    const std::vector<uint8_t> cramped = BuildTypeSection({&a, &b}, used - 1, &complete);
    EXPECT_FALSE(complete);
    ASSERT_TRUE(ParseTypeSection(cramped.data(), used - 1, types));
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0].GetID(), 0x80000001u);
    EXPECT_TRUE(BuildTypeSection({&a}, 0, &complete).empty());
    EXPECT_FALSE(complete);

    // An empty section: count 0.
    const std::vector<uint8_t> empty = BuildTypeSection({}, 512, &complete);
    EXPECT_TRUE(complete);
    ASSERT_TRUE(ParseTypeSection(empty.data(), 512, types));
    EXPECT_TRUE(types.empty());
}

TEST_F(MetadataLayoutTest, HostileOrOversizedTypeSectionsAreRefused) {
    const KMetadataInfo a(0x80000001u, u"A", u"", eKMetadataInteger, 4, u"%d");
    std::vector<KMetadataInfo> types;

    // The size limit: exactly 100000 bytes is read, one more is not read at all.
    std::vector<uint8_t> big = BuildTypeSection({&a}, 100001);
    ASSERT_TRUE(ParseTypeSection(big.data(), 100000, types));
    EXPECT_EQ(types.size(), 1u);
    EXPECT_FALSE(ParseTypeSection(big.data(), 100001, types));
    EXPECT_TRUE(types.empty());

    EXPECT_TRUE(ParseTypeSection(nullptr, 0, types)) << "no section";
    EXPECT_FALSE(ParseTypeSection(big.data(), 3, types));

    // The count claims more records than the section holds.
    std::vector<uint8_t> section = BuildTypeSection({&a, &a}, 4 + 2 * a.GetSerializedSize());
    const auto size = static_cast<uint32_t>(section.size());
    Put32(section, 0, 3);
    EXPECT_FALSE(ParseTypeSection(section.data(), size, types));
    EXPECT_EQ(types.size(), 2u);

    // A record whose size field runs past the section.
    Put32(section, 0, 2);
    Put32(section, 4 + a.GetSerializedSize(), 1000);
    EXPECT_FALSE(ParseTypeSection(Exact(section, size).get(), size, types));
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
    // but not ClearFileTypes.
    ASSERT_TRUE(manager.RegisterMetadataType(
        KMetadataInfo(0x80000020u, u"Width", u"", eKMetadataInteger, 4, u"%d pixels")));
    EXPECT_EQ(shown(0x80000020u), u"7 pixels");
    ASSERT_TRUE(import(0x80000021u, u"x%d"));
    manager.LoadTypes();
    EXPECT_EQ(shown(0x80000021u), u"x7");
    manager.ClearFileTypes();
    EXPECT_EQ(manager.FindTypeForDisplay(0x80000021u), nullptr);

    // An oversized section contributes nothing.
    EXPECT_FALSE(import(0x80000022u, u"y%d", 100001));
    EXPECT_EQ(manager.FindTypeForDisplay(0x80000022u), nullptr);
}

}  // namespace
