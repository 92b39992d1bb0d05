#include "KMetadataManager.h"

#include <memory>
#include <new>

#include "core/HandleCore.h"
#include "sequence/CKestorMetadataManager.h"

namespace {

// Runs `call` on the implementation under the handle's lock. Out of memory (the only thing the
// implementation can throw) gives `fallback`, as does a missing implementation.
template <class Result, class Call>
Result Forward(kestor::HandleCore& core, Result fallback, Call&& call) {
    auto lock = core.Lock();
    CKestorMetadataManager* impl = core.As<CKestorMetadataManager>();
    if (impl == nullptr) return fallback;
    try {
        return call(*impl);
    } catch (const std::bad_alloc&) {
        return fallback;
    }
}

}  // namespace

KMetadataManager::KMetadataManager() {
    try {
        Core().SetImplementation(std::make_unique<CKestorMetadataManager>());
    } catch (const std::bad_alloc&) {
        // Left without an implementation: every call answers false, 0 or null.
    }
}

KMetadataManager::KMetadataManager(const KMetadataManager& other) = default;
KMetadataManager& KMetadataManager::operator=(const KMetadataManager& other) = default;
KMetadataManager::~KMetadataManager() = default;

bool KMetadataManager::SetMetadataMaxSize(int bytes) {
    return Forward(Core(), false, [&](auto& m) { return m.SetMetadataMaxSize(bytes); });
}

int KMetadataManager::GetMetadataMaxSize() {
    return Forward(Core(), 0, [](auto& m) { return m.GetMetadataMaxSize(); });
}

bool KMetadataManager::SetMetadataInfoSize(int bytes) {
    return Forward(Core(), false, [&](auto& m) { return m.SetMetadataInfoSize(bytes); });
}

int KMetadataManager::GetMetadataInfoSize() {
    return Forward(Core(), 0, [](auto& m) { return m.GetMetadataInfoSize(); });
}

bool KMetadataManager::IsSequenceMetadataDynamic() {
    return Forward(Core(), false, [](auto& m) { return m.IsSequenceMetadataDynamic(); });
}

bool KMetadataManager::SetSequenceMetadataDynamic(bool dynamic) {
    return Forward(Core(), false, [&](auto& m) { return m.SetSequenceMetadataDynamic(dynamic); });
}

bool KMetadataManager::RegisterMetadataType(const KMetadataInfo* info) {
    if (info == nullptr) return false;
    return Forward(Core(), false, [&](auto& m) { return m.RegisterMetadataType(*info); });
}

bool KMetadataManager::RegisterGenericTypes() {
    return Forward(Core(), false, [](auto& m) { return m.RegisterGenericTypes(); });
}

bool KMetadataManager::RegisterTavLinTypes() {
    return Forward(Core(), false, [](auto& m) { return m.RegisterTavLinTypes(); });
}

int KMetadataManager::GetMetadataTypeCount() {
    return Forward(Core(), 0, [](auto& m) { return m.GetMetadataTypeCount(); });
}

const KMetadataInfo* KMetadataManager::GetMetadataTypeByIndex(unsigned int index) {
    return Forward(Core(), static_cast<const KMetadataInfo*>(nullptr),
                   [&](auto& m) { return m.GetMetadataTypeByIndex(index); });
}

const KMetadataInfo* KMetadataManager::GetMetadataTypeByID(unsigned int id) {
    return Forward(Core(), static_cast<const KMetadataInfo*>(nullptr),
                   [&](auto& m) { return m.GetMetadataTypeByID(id); });
}

void KMetadataManager::RebuildMetadataString(KMetadata* item) {
    if (item == nullptr) return;
    Forward(Core(), false, [&](auto& m) {
        m.RebuildMetadataString(*item);
        return true;
    });
}
