#include <gtest/gtest.h>

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

void ExpectSameItems(const std::vector<KMetadata>& actual, const std::vector<KMetadata>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].GetTypeID(), expected[i].GetTypeID()) << "item " << i;
        ASSERT_EQ(actual[i].GetDataSize(), expected[i].GetDataSize()) << "item " << i;
        const std::vector<uint8_t> got(actual[i].GetData(),
                                       actual[i].GetData() + actual[i].GetDataSize());
        const std::vector<uint8_t> want(expected[i].GetData(),
                                        expected[i].GetData() + expected[i].GetDataSize());
        EXPECT_EQ(got, want) << "item " << i;
    }
}

TEST(MetadataInfoRecord, SerialisesAsSizeIdFormatSizeAndThreeTerminatedStrings) {
    const KMetadataInfo info(0x80000001u, u"Gain", u"", eKMetadataInteger, 4, u"%d");
    EXPECT_EQ(info.GetSerializedSize(), 16u + 2 * (5 + 1 + 3));
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
    EXPECT_EQ(back.GetID(), 0x80000001u);
    EXPECT_EQ(std::u16string(back.GetName()), u"Gain");
    EXPECT_EQ(std::u16string(back.GetDescription()), u"");
    EXPECT_EQ(std::u16string(back.GetFormatString()), u"%d");
    EXPECT_EQ(back.GetFormat(), eKMetadataInteger);
    EXPECT_EQ(back.GetSizeInBytes(), 4u);
    EXPECT_EQ(Serialized(back), bytes);
}

TEST(MetadataInfoRecord, ARecordReadBackKeepsItsStoredSize) {
    // The stored size may exceed what the strings need; it is kept and the rest written as zero.
    std::vector<uint8_t> bytes = Serialized(KMetadataInfo(7, u"A", u"B", 8, 0, u"C"));
    ASSERT_EQ(bytes.size(), 28u);
    bytes.resize(40, 0xEE);
    Put32(bytes, 0, 40);
    KMetadataInfo back;
    ASSERT_EQ(back.Deserialize(bytes.data(), 40), 40u);
    EXPECT_EQ(back.GetSerializedSize(), 40u);
    const std::vector<uint8_t> again = Serialized(back);
    ASSERT_EQ(again.size(), 40u);
    EXPECT_EQ(std::vector<uint8_t>(again.begin(), again.begin() + 28),
              std::vector<uint8_t>(bytes.begin(), bytes.begin() + 28));
    EXPECT_EQ(std::vector<uint8_t>(again.begin() + 28, again.end()), std::vector<uint8_t>(12, 0));
}

TEST(MetadataInfoRecord, HostileRecordsAreRefusedWithoutReadingPastTheBytes) {
    const KMetadataInfo info(9, u"Name", u"Desc", 5, 4, u"%d");
    const std::vector<uint8_t> good = Serialized(info);
    const auto size = static_cast<uint32_t>(good.size());
    const auto refused = [](const std::vector<uint8_t>& bytes, uint32_t available) {
        // A copy of exactly `available` bytes, so that any overread is caught by the sanitizer.
        auto exact = std::make_unique<uint8_t[]>(available);
        std::memcpy(exact.get(), bytes.data(), std::min<size_t>(available, bytes.size()));
        KMetadataInfo out(1, u"keep", u"", 0, 0, u"");
        const bool rejected = out.Deserialize(exact.get(), available) == 0;
        return rejected && std::u16string(out.GetName()) == u"keep";
    };
    EXPECT_TRUE(refused(good, size - 1)) << "truncated";
    EXPECT_TRUE(refused(good, 21)) << "shorter than the smallest record";
    std::vector<uint8_t> bad = good;
    Put32(bad, 0, size + 1);
    EXPECT_TRUE(refused(bad, size)) << "size field runs past the bytes";
    Put32(bad, 0, 15);
    EXPECT_TRUE(refused(bad, size)) << "size field below the fixed part";
    Put32(bad, 0, 0);
    EXPECT_TRUE(refused(bad, size));
    // The size field cuts the last string's NUL off: the record is refused even though more
    // bytes follow it.
    bad = good;
    Put32(bad, 0, size - 2);
    EXPECT_TRUE(refused(bad, size));
    // No NUL anywhere.
    std::vector<uint8_t> noNul(64, 'x');
    Put32(noNul, 0, 64);
    EXPECT_TRUE(refused(noNul, 64));
    KMetadataInfo out;
    EXPECT_EQ(out.Deserialize(nullptr, 100), 0u);
}

class MetadataLayoutTest : public test::MetadataStoreTest {
protected:
    void SetUp() override {
        MetadataStoreTest::SetUp();
        manager_ = std::make_unique<CKestorMetadataManager>();
    }
    void TearDown() override {
        manager_.reset();
        MetadataStoreTest::TearDown();
    }
    CKestorMetadataManager& Manager() { return *manager_; }

private:
    std::unique_ptr<CKestorMetadataManager> manager_;
};

TEST_F(MetadataLayoutTest, PerFrameAreaIsTheCapacityOrTheItemsCutToIt) {
    KImage image;
    image.AddMetadata(Item(4, {1, 2, 3, 4}));
    image.AddMetadata(Item(0x80000001u, std::vector<uint8_t>(10)));
    image.AddMetadata(Item(7, {}));

    ASSERT_TRUE(Manager().SetSequenceMetadataDynamic(false));
    EXPECT_EQ(PerFrameMetadataSize(image, 600, Manager()), 600u);
    EXPECT_EQ(PerFrameMetadataSize(image, 0, Manager()), 0u);

    ASSERT_TRUE(Manager().SetSequenceMetadataDynamic(true));
    const uint32_t needed = 4 + (8 + 4) + (8 + 10) + (8 + 0);
    EXPECT_EQ(PerFrameMetadataSize(image, 600, Manager()), needed);
    EXPECT_EQ(PerFrameMetadataSize(image, needed, Manager()), needed);
    EXPECT_EQ(PerFrameMetadataSize(image, needed - 1, Manager()), needed - 1);
    EXPECT_EQ(PerFrameMetadataSize(KImage(), 600, Manager()), 4u) << "just the count";
}

TEST_F(MetadataLayoutTest, TypeSectionHoldsDistinctRegisteredApplicationTypesRoundedToSectors) {
    const KMetadataInfo first(0x80000001u, u"First", u"one", eKMetadataInteger, 4, u"%d");
    const KMetadataInfo second(0x80000002u, u"Second", u"", eKMetadataDouble, 8, u"%f");
    const KMetadataInfo low(100, u"Low", u"", eKMetadataInteger, 4, u"%d");
    for (const auto* type : {&first, &second, &low})
        ASSERT_TRUE(Manager().RegisterMetadataType(*type));

    KImage image;
    image.AddMetadata(Item(0x80000001u, {1, 0, 0, 0}));
    image.AddMetadata(Item(0x80000001u, {2, 0, 0, 0}));  // same type again: counted once
    image.AddMetadata(Item(100, {3, 0, 0, 0}));          // registered, but not an app type
    image.AddMetadata(Item(0x80000099u, {4}));           // app type, but not registered

    // Fixed sizing: the setting alone, rounded; 0 means no section.
    ASSERT_TRUE(Manager().SetSequenceMetadataDynamic(false));
    EXPECT_EQ(TypeSectionSize(image, Manager(), 512), 0u);
    ASSERT_TRUE(Manager().SetMetadataInfoSize(1000));
    EXPECT_EQ(TypeSectionSize(image, Manager(), 512), 1024u);
    EXPECT_EQ(TypeSectionSize(image, Manager(), 4096), 4096u);
    EXPECT_EQ(TypeSectionSize(image, Manager(), 1), 1000u);
    ASSERT_TRUE(Manager().SetMetadataInfoSize(512));
    EXPECT_EQ(TypeSectionSize(image, Manager(), 512), 512u);

    ASSERT_TRUE(Manager().SetSequenceMetadataDynamic(true));
    const auto types = ApplicationTypesOf(image, Manager());
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0]->GetID(), 0x80000001u);
    EXPECT_EQ(TypeSectionSize(image, Manager(), 1), 4 + first.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(image, Manager(), 0), 4 + first.GetSerializedSize());
    EXPECT_EQ(TypeSectionSize(image, Manager(), 512), 512u);

    image.AddMetadata(Item(0x80000002u, std::vector<uint8_t>(8)));
    EXPECT_EQ(TypeSectionSize(image, Manager(), 1),
              4 + first.GetSerializedSize() + second.GetSerializedSize());
    // Without application types a dynamic layout still has a section holding a zero count.
    EXPECT_EQ(TypeSectionSize(KImage(), Manager(), 512), 512u);
    EXPECT_EQ(TypeSectionSize(KImage(), Manager(), 1), 4u);
}

TEST_F(MetadataLayoutTest, FrameAreaRoundTripsAndRebuildsDisplayStrings) {
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
    ExpectSameItems(back, items);
    EXPECT_EQ(std::u16string(back[0].GetDisplayString()), u"");

    ASSERT_TRUE(DecodeFrameMetadata(area.data(), 64, back, &Manager()));
    EXPECT_EQ(std::u16string(back[0].GetDisplayString()), u"-5");

    // An exact fit, and an empty list.
    std::vector<uint8_t> exact(used);
    EXPECT_TRUE(EncodeFrameMetadata(items, exact.data(), used));
    ASSERT_TRUE(DecodeFrameMetadata(exact.data(), used, back));
    ExpectSameItems(back, items);
    uint8_t four[4] = {9, 9, 9, 9};
    EXPECT_TRUE(EncodeFrameMetadata({}, four, 4));
    EXPECT_EQ(Get32(four), 0u);
}

TEST_F(MetadataLayoutTest, ItemsThatDoNotFitFailButLeaveAReadableArea) {
    const std::vector<KMetadata> items = {Item(1, {1}), Item(2, {1, 2}), Item(3, {1, 2})};
    std::vector<uint8_t> area(4 + 9 + 10 + 9, 0xCC);  // one byte short of the third item
    EXPECT_FALSE(EncodeFrameMetadata(items, area.data(), static_cast<uint32_t>(area.size())));
    EXPECT_EQ(Get32(&area[0]), 2u);
    EXPECT_EQ(area.back(), 0) << "the unused rest is zero";
    std::vector<KMetadata> back;
    ASSERT_TRUE(DecodeFrameMetadata(area.data(), static_cast<uint32_t>(area.size()), back));
    ExpectSameItems(back, {items[0], items[1]});

    uint8_t tiny[3] = {1, 2, 3};
    EXPECT_FALSE(EncodeFrameMetadata({}, tiny, 3));
    EXPECT_FALSE(EncodeFrameMetadata(items, nullptr, 100));
}

TEST_F(MetadataLayoutTest, HostileFrameAreasStopAtTheirEnd) {
    const auto decode = [](const std::vector<uint8_t>& bytes, std::vector<KMetadata>& out) {
        auto exact = std::make_unique<uint8_t[]>(bytes.size());
        std::memcpy(exact.get(), bytes.data(), bytes.size());
        return DecodeFrameMetadata(exact.get(), static_cast<uint32_t>(bytes.size()), out);
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
    EXPECT_EQ(types[0].GetID(), 0x80000001u);
    EXPECT_EQ(std::u16string(types[0].GetDescription()), u"first");
    EXPECT_EQ(types[1].GetFormat(), eKMetadataString);

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
    Put32(section, 0, 3);
    EXPECT_FALSE(ParseTypeSection(section.data(), static_cast<uint32_t>(section.size()), types));
    EXPECT_EQ(types.size(), 2u);

    // A record whose size field runs past the section.
    Put32(section, 0, 2);
    Put32(section, 4 + a.GetSerializedSize(), 1000);
    auto exact = std::make_unique<uint8_t[]>(section.size());
    std::memcpy(exact.get(), section.data(), section.size());
    EXPECT_FALSE(ParseTypeSection(exact.get(), static_cast<uint32_t>(section.size()), types));
    EXPECT_EQ(types.size(), 1u);
}

TEST_F(MetadataLayoutTest, ImportedFileTypesServeDisplayStringsWithoutTouchingTheStore) {
    const KMetadataInfo fromFile(0x80000020u, u"Width", u"", eKMetadataInteger, 4, u"%d px");
    const std::vector<uint8_t> section = BuildTypeSection({&fromFile}, 512);
    ASSERT_TRUE(ImportTypeSection(section.data(), 512, Manager()));

    KMetadata item = Item(0x80000020u, {7, 0, 0, 0});
    Manager().RebuildMetadataString(item);
    EXPECT_EQ(std::u16string(item.GetDisplayString()), u"7 px");
    EXPECT_EQ(Manager().GetMetadataTypeByID(0x80000020u), nullptr) << "not registered";
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\2147483680", key),
              RegStatus::NotFound);

    // Still known after a reload of the list; a registered type of that ID takes precedence.
    const KMetadataInfo registered(0x80000020u, u"Width", u"", eKMetadataInteger, 4, u"%d pixels");
    ASSERT_TRUE(Manager().RegisterMetadataType(registered));
    Manager().RebuildMetadataString(item);
    EXPECT_EQ(std::u16string(item.GetDisplayString()), u"7 pixels");
    Manager().ClearFileTypes();
    KMetadata other = Item(0x80000021u, {1, 0, 0, 0});
    const KMetadataInfo second(0x80000021u, u"X", u"", eKMetadataInteger, 4, u"x%d");
    const std::vector<uint8_t> section2 = BuildTypeSection({&second}, 512);
    ASSERT_TRUE(ImportTypeSection(section2.data(), 512, Manager()));
    Manager().LoadTypes();
    Manager().RebuildMetadataString(other);
    EXPECT_EQ(std::u16string(other.GetDisplayString()), u"x1");

    // An oversized section contributes nothing.
    const KMetadataInfo third(0x80000022u, u"Y", u"", eKMetadataInteger, 4, u"y%d");
    const std::vector<uint8_t> oversized = BuildTypeSection({&third}, 100001);
    EXPECT_FALSE(ImportTypeSection(oversized.data(), 100001, Manager()));
    EXPECT_EQ(Manager().FindTypeForDisplay(0x80000022u), nullptr);
}

}  // namespace
