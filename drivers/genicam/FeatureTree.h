// The camera's features as the GenICam description arranges them: categories walked from
// "Root" (nested categories flattened, in document order), each holding its integer, float,
// boolean, enumeration and command features. Feature ids are indexes into one table, so a
// feature listed in two categories keeps one id.
#pragma once

#include <arv.h>

#include <cstdint>
#include <string>
#include <vector>

#include "KGrabberAbi.h"

namespace kestor::genicam {

enum class FeatureKind : int32_t {  // the values of eAdvanceSettingsFeatureType
    Integer = 0,
    Double = 1,
    Bool = 2,
    Enumeration = 3,
    Command = 4,
};

struct Feature {
    std::string name;
    ArvGcNode* node = nullptr;  // owned by the device's genicam document
    FeatureKind kind = FeatureKind::Integer;
    int32_t level = 0;  // eAdvanceSettingsLevel
};

struct Category {
    std::string name;
    std::vector<int32_t> features;  // ids
};

struct EnumEntry {
    std::string name;
    int64_t value = 0;
};

class FeatureTree {
public:
    void Build(ArvGc* genicam);
    void Clear();

    const std::vector<Category>& Categories() const { return categories_; }
    const std::vector<Feature>& Features() const { return features_; }
    // The feature of `category` at `index`, or null.
    const Feature* At(int32_t category, int32_t index) const;
    // The feature of that name, or null.
    const Feature* Find(const std::string& name) const;
    // The id of the named feature, also of one that no category lists (added to the table
    // then); -1 when the description has no implemented feature of that name and kind.
    int32_t Lookup(const std::string& name);
    const Feature& Get(int32_t id) const { return features_[static_cast<size_t>(id)]; }

private:
    void Walk(ArvGc* genicam, ArvGcNode* category, const std::string& name, int depth);
    int32_t AddFeature(const std::string& name, ArvGcNode* node, FeatureKind kind);

    ArvGc* genicam_ = nullptr;
    std::vector<Category> categories_;
    std::vector<Feature> features_;
};

// --- access to one feature (every function answers a KStatus; errors leave outputs as set) --
// Writable now: implemented, available, not locked and not read-only.
bool IsFeatureWritable(const Feature& feature);
// The implemented entries of an enumeration, in document order.
std::vector<EnumEntry> EnumEntries(const Feature& feature);
KStatus GetEnumValue(const Feature& feature, int64_t& value);
KStatus SetEnumValue(const Feature& feature, int64_t value);
KStatus GetEnumString(const Feature& feature, std::string& value);
KStatus SetEnumString(const Feature& feature, const std::string& value);
KStatus GetIntegerBounds(const Feature& feature, int64_t& min, int64_t& max);
KStatus GetIntegerValue(const Feature& feature, int64_t& value);
KStatus SetIntegerValue(const Feature& feature, int64_t value);
KStatus GetDoubleBounds(const Feature& feature, double& min, double& max);
KStatus GetDoubleValue(const Feature& feature, double& value);
KStatus SetDoubleValue(const Feature& feature, double value);
KStatus GetBoolValue(const Feature& feature, bool& value);
KStatus SetBoolValue(const Feature& feature, bool value);
KStatus ExecuteCommand(const Feature& feature);
std::string FeatureDescription(const Feature& feature);

}  // namespace kestor::genicam
