// Reference counting and QueryInterface for objects that implement several driver interfaces.
#pragma once

#include <atomic>

#include "KGrabberAbi.h"

namespace kestor {

// Counts references; the owner deletes itself when Release returns 0.
class ComRefCount {
public:
    uint32_t AddRef() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t Release() { return count_.fetch_sub(1, std::memory_order_acq_rel) - 1; }

private:
    std::atomic<uint32_t> count_{1};  // the creator's reference
};

// Offers `object` as `Interface` when `iid` asks for it: the usual line of a QueryInterface,
//   if (Offer<IKGrabber>(this, iid, IID_IKGrabber, out)) return kKOk;
template <class Interface, class Object>
bool Offer(Object* object, const KGuid& iid, const KGuid& offered, void** out) {
    if (iid != offered) return false;
    Interface* pointer = static_cast<Interface*>(object);
    pointer->AddRef();
    *out = pointer;
    return true;
}

}  // namespace kestor

// The three standard methods for a class with a ComRefCount member `refs_` and a
// `bool QueryOwnInterface(const KGuid&, void**)` that offers what it implements.
#define KESTOR_COM_STANDARD_METHODS(Class)                          \
    KStatus QueryInterface(const KGuid& iid, void** out) override { \
        if (out == nullptr) return kKPointer;                       \
        *out = nullptr;                                             \
        return QueryOwnInterface(iid, out) ? kKOk : kKNoInterface;  \
    }                                                               \
    uint32_t AddRef() override {                                    \
        return refs_.AddRef();                                      \
    }                                                               \
    uint32_t Release() override {                                   \
        const uint32_t left = refs_.Release();                      \
        if (left == 0) delete this;                                 \
        return left;                                                \
    }
