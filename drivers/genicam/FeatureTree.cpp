#include "genicam/FeatureTree.h"

#include <cmath>

#include "KGrab.h"

namespace kestor::genicam {
namespace {

// Categories nest only a few levels in real descriptions; the bound protects against a
// description whose categories refer to each other.
constexpr int kMaxCategoryDepth = 16;

int32_t LevelOf(ArvGcNode* node) {
    switch (arv_gc_feature_node_get_visibility(ARV_GC_FEATURE_NODE(node))) {
        case ARV_GC_VISIBILITY_INVISIBLE:
            return eAdvanceSettingsInvisible;
        case ARV_GC_VISIBILITY_GURU:
            return eAdvanceSettingsGuru;
        case ARV_GC_VISIBILITY_EXPERT:
            return eAdvanceSettingsExpert;
        default:
            return eAdvanceSettingsBeginner;
    }
}

// The kind of a feature node; false for the kinds the driver does not offer (strings,
// registers, ports).
bool KindOf(ArvGcNode* node, FeatureKind& kind) {
    if (ARV_IS_GC_ENUMERATION(node)) {
        kind = FeatureKind::Enumeration;
    } else if (ARV_IS_GC_BOOLEAN(node)) {
        kind = FeatureKind::Bool;
    } else if (ARV_IS_GC_COMMAND(node)) {
        kind = FeatureKind::Command;
    } else if (ARV_IS_GC_FLOAT(node)) {
        kind = FeatureKind::Double;
    } else if (ARV_IS_GC_INTEGER(node)) {
        kind = FeatureKind::Integer;
    } else {
        return false;
    }
    return true;
}

KStatus Done(GError*& error) {
    if (error == nullptr) return kKOk;
    g_clear_error(&error);
    return kKFail;
}

}  // namespace

void FeatureTree::Clear() {
    genicam_ = nullptr;
    categories_.clear();
    features_.clear();
}

void FeatureTree::Build(ArvGc* genicam) {
    Clear();
    genicam_ = genicam;
    if (genicam == nullptr) return;
    ArvGcNode* root = arv_gc_get_node(genicam, "Root");
    if (root == nullptr || !ARV_IS_GC_CATEGORY(root)) return;
    Walk(genicam, root, "Root", 0);
}

int32_t FeatureTree::AddFeature(const std::string& name, ArvGcNode* node, FeatureKind kind) {
    for (size_t i = 0; i < features_.size(); ++i) {
        if (features_[i].name == name) return static_cast<int32_t>(i);
    }
    features_.push_back(Feature{name, node, kind, LevelOf(node)});
    return static_cast<int32_t>(features_.size() - 1);
}

void FeatureTree::Walk(ArvGc* genicam, ArvGcNode* category, const std::string& name, int depth) {
    if (depth > kMaxCategoryDepth) return;
    const size_t index = categories_.size();
    categories_.push_back(Category{name, {}});
    std::vector<std::pair<std::string, ArvGcNode*>> subcategories;
    for (const GSList* item = arv_gc_category_get_features(ARV_GC_CATEGORY(category));
         item != nullptr; item = item->next) {
        const char* featureName = static_cast<const char*>(item->data);
        if (featureName == nullptr) continue;
        ArvGcNode* node = arv_gc_get_node(genicam, featureName);
        if (node == nullptr || !ARV_IS_GC_FEATURE_NODE(node)) continue;
        if (ARV_IS_GC_CATEGORY(node)) {
            subcategories.emplace_back(featureName, node);
            continue;
        }
        if (!arv_gc_feature_node_is_implemented(ARV_GC_FEATURE_NODE(node), nullptr)) continue;
        FeatureKind kind;
        if (!KindOf(node, kind)) continue;
        categories_[index].features.push_back(AddFeature(featureName, node, kind));
    }
    for (const auto& [subName, subNode] : subcategories) {
        Walk(genicam, subNode, subName, depth + 1);
    }
    // A category without features of its own (the root, mostly) is not offered.
    if (categories_[index].features.empty()) categories_.erase(categories_.begin() + index);
}

const Feature* FeatureTree::At(int32_t category, int32_t index) const {
    if (category < 0 || static_cast<size_t>(category) >= categories_.size()) return nullptr;
    const std::vector<int32_t>& ids = categories_[static_cast<size_t>(category)].features;
    if (index < 0 || static_cast<size_t>(index) >= ids.size()) return nullptr;
    return &features_[static_cast<size_t>(ids[static_cast<size_t>(index)])];
}

const Feature* FeatureTree::Find(const std::string& name) const {
    for (const Feature& feature : features_) {
        if (feature.name == name) return &feature;
    }
    return nullptr;
}

int32_t FeatureTree::Lookup(const std::string& name) {
    for (size_t i = 0; i < features_.size(); ++i) {
        if (features_[i].name == name) return static_cast<int32_t>(i);
    }
    if (genicam_ == nullptr) return -1;
    ArvGcNode* node = arv_gc_get_node(genicam_, name.c_str());
    if (node == nullptr || !ARV_IS_GC_FEATURE_NODE(node) || ARV_IS_GC_CATEGORY(node)) return -1;
    GError* error = nullptr;
    const bool implemented = arv_gc_feature_node_is_implemented(ARV_GC_FEATURE_NODE(node), &error);
    g_clear_error(&error);
    FeatureKind kind;
    if (!implemented || !KindOf(node, kind)) return -1;
    return AddFeature(name, node, kind);
}

bool IsFeatureWritable(const Feature& feature) {
    ArvGcFeatureNode* node = ARV_GC_FEATURE_NODE(feature.node);
    GError* error = nullptr;
    bool writable = arv_gc_feature_node_is_implemented(node, &error) &&
                    arv_gc_feature_node_is_available(node, &error) &&
                    !arv_gc_feature_node_is_locked(node, &error);
    g_clear_error(&error);
    const ArvGcAccessMode mode = arv_gc_feature_node_get_actual_access_mode(node);
    return writable && mode != ARV_GC_ACCESS_MODE_RO;
}

std::vector<EnumEntry> EnumEntries(const Feature& feature) {
    std::vector<EnumEntry> entries;
    if (feature.kind != FeatureKind::Enumeration) return entries;
    for (const GSList* item = arv_gc_enumeration_get_entries(ARV_GC_ENUMERATION(feature.node));
         item != nullptr; item = item->next) {
        ArvGcNode* entry = static_cast<ArvGcNode*>(item->data);
        if (entry == nullptr || !ARV_IS_GC_ENUM_ENTRY(entry)) continue;
        GError* error = nullptr;
        if (!arv_gc_feature_node_is_implemented(ARV_GC_FEATURE_NODE(entry), &error)) {
            g_clear_error(&error);
            continue;
        }
        const int64_t value = arv_gc_enum_entry_get_value(ARV_GC_ENUM_ENTRY(entry), &error);
        if (error != nullptr) {
            g_clear_error(&error);
            continue;
        }
        const char* name = arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(entry));
        entries.push_back(EnumEntry{name != nullptr ? name : "", value});
    }
    return entries;
}

KStatus GetEnumValue(const Feature& feature, int64_t& value) {
    if (feature.kind != FeatureKind::Enumeration) return kKInvalidArgument;
    GError* error = nullptr;
    value = arv_gc_enumeration_get_int_value(ARV_GC_ENUMERATION(feature.node), &error);
    return Done(error);
}

KStatus SetEnumValue(const Feature& feature, int64_t value) {
    if (feature.kind != FeatureKind::Enumeration) return kKInvalidArgument;
    GError* error = nullptr;
    arv_gc_enumeration_set_int_value(ARV_GC_ENUMERATION(feature.node), value, &error);
    return Done(error);
}

KStatus GetEnumString(const Feature& feature, std::string& value) {
    if (feature.kind != FeatureKind::Enumeration) return kKInvalidArgument;
    GError* error = nullptr;
    const char* text =
        arv_gc_enumeration_get_string_value(ARV_GC_ENUMERATION(feature.node), &error);
    value = text != nullptr ? text : "";
    return Done(error);
}

KStatus SetEnumString(const Feature& feature, const std::string& value) {
    if (feature.kind != FeatureKind::Enumeration) return kKInvalidArgument;
    GError* error = nullptr;
    arv_gc_enumeration_set_string_value(ARV_GC_ENUMERATION(feature.node), value.c_str(), &error);
    return Done(error);
}

KStatus GetIntegerBounds(const Feature& feature, int64_t& min, int64_t& max) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Integer) {
        min = arv_gc_integer_get_min(ARV_GC_INTEGER(feature.node), &error);
        if (error == nullptr) max = arv_gc_integer_get_max(ARV_GC_INTEGER(feature.node), &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Double) {
        double dmin = 0, dmax = 0;
        const KStatus status = GetDoubleBounds(feature, dmin, dmax);
        min = std::llround(std::ceil(dmin));
        max = std::llround(std::floor(dmax));
        return status;
    }
    return kKInvalidArgument;
}

KStatus GetIntegerValue(const Feature& feature, int64_t& value) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Integer) {
        value = arv_gc_integer_get_value(ARV_GC_INTEGER(feature.node), &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Double) {
        double d = 0;
        const KStatus status = GetDoubleValue(feature, d);
        value = std::llround(d);
        return status;
    }
    return kKInvalidArgument;
}

KStatus SetIntegerValue(const Feature& feature, int64_t value) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Integer) {
        arv_gc_integer_set_value(ARV_GC_INTEGER(feature.node), value, &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Double) {
        return SetDoubleValue(feature, static_cast<double>(value));
    }
    return kKInvalidArgument;
}

KStatus GetDoubleBounds(const Feature& feature, double& min, double& max) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Double) {
        min = arv_gc_float_get_min(ARV_GC_FLOAT(feature.node), &error);
        if (error == nullptr) max = arv_gc_float_get_max(ARV_GC_FLOAT(feature.node), &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Integer) {
        int64_t imin = 0, imax = 0;
        const KStatus status = GetIntegerBounds(feature, imin, imax);
        min = static_cast<double>(imin);
        max = static_cast<double>(imax);
        return status;
    }
    return kKInvalidArgument;
}

KStatus GetDoubleValue(const Feature& feature, double& value) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Double) {
        value = arv_gc_float_get_value(ARV_GC_FLOAT(feature.node), &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Integer) {
        int64_t i = 0;
        const KStatus status = GetIntegerValue(feature, i);
        value = static_cast<double>(i);
        return status;
    }
    return kKInvalidArgument;
}

KStatus SetDoubleValue(const Feature& feature, double value) {
    GError* error = nullptr;
    if (feature.kind == FeatureKind::Double) {
        arv_gc_float_set_value(ARV_GC_FLOAT(feature.node), value, &error);
        return Done(error);
    }
    if (feature.kind == FeatureKind::Integer) {
        return SetIntegerValue(feature, std::llround(value));
    }
    return kKInvalidArgument;
}

KStatus GetBoolValue(const Feature& feature, bool& value) {
    if (feature.kind != FeatureKind::Bool) return kKInvalidArgument;
    GError* error = nullptr;
    value = arv_gc_boolean_get_value(ARV_GC_BOOLEAN(feature.node), &error);
    return Done(error);
}

KStatus SetBoolValue(const Feature& feature, bool value) {
    if (feature.kind != FeatureKind::Bool) return kKInvalidArgument;
    GError* error = nullptr;
    arv_gc_boolean_set_value(ARV_GC_BOOLEAN(feature.node), value, &error);
    return Done(error);
}

KStatus ExecuteCommand(const Feature& feature) {
    if (feature.kind != FeatureKind::Command) return kKInvalidArgument;
    GError* error = nullptr;
    arv_gc_command_execute(ARV_GC_COMMAND(feature.node), &error);
    return Done(error);
}

std::string FeatureDescription(const Feature& feature) {
    ArvGcFeatureNode* node = ARV_GC_FEATURE_NODE(feature.node);
    const char* text = arv_gc_feature_node_get_tooltip(node);
    if (text == nullptr || *text == 0) text = arv_gc_feature_node_get_description(node);
    return text != nullptr ? text : "";
}

}  // namespace kestor::genicam
