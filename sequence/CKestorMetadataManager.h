// The implementation behind KMetadataManager: the type list loaded from the registry store, the
// sizing settings, and the display-string rules.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "KError.h"
#include "KImage.h"
#include "KMetadataManager.h"

class CKestorMetadataManager : public KErrorDetect {
public:
    CKestorMetadataManager();  // loads the type list
    ~CKestorMetadataManager() override;
    CKestorMetadataManager(const CKestorMetadataManager&) = delete;
    CKestorMetadataManager& operator=(const CKestorMetadataManager&) = delete;

    // Settings. Setters fail only when the root key does not exist; getters give 0 / false for
    // anything missing. Nothing is cached: every getter reads the store.
    bool SetMetadataMaxSize(int bytes);
    int GetMetadataMaxSize() const;
    bool SetMetadataInfoSize(int bytes);
    int GetMetadataInfoSize() const;
    bool IsSequenceMetadataDynamic() const;
    bool SetSequenceMetadataDynamic(bool dynamic);

    // Writes the type's subkey (value by value over an existing one) and reloads the list.
    // False, without reloading, when the subkey cannot be created.
    bool RegisterMetadataType(const KMetadataInfo& info);
    bool RegisterGenericTypes();
    bool RegisterTavLinTypes();

    int GetMetadataTypeCount() const;
    const KMetadataInfo* GetMetadataTypeByIndex(unsigned int index) const;
    const KMetadataInfo* GetMetadataTypeByID(unsigned int id) const;

    void RebuildMetadataString(KMetadata& item) const;

    // Types described inside a sequence file, known only to this manager for display strings.
    // A type registered in the store wins over a file's description of the same ID; a file's
    // type replaces an earlier file type of the same ID. Kept across reloads of the list.
    void AddFileTypes(const std::vector<KMetadataInfo>& types);
    void ClearFileTypes();
    // The registered type of that ID, else the file type, else null.
    const KMetadataInfo* FindTypeForDisplay(uint32_t id) const;

    // Rebuilds the list from the store (done by the constructor and every registration).
    void LoadTypes();

private:
    std::vector<std::unique_ptr<KMetadataInfo>> types_;
    std::vector<std::unique_ptr<KMetadataInfo>> fileTypes_;
};
