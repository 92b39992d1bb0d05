// Where the current user's registry store lives on this machine.
#pragma once

#include <string>

#include "platform/Registry.h"

namespace kestor {

// The store file: $KESTOR_REGISTRY when set and not empty, else
// $XDG_CONFIG_HOME/kestor/registry.db (only an absolute XDG_CONFIG_HOME counts), else
// ~/.config/kestor/registry.db. Read afresh on every call so that the variables can be changed
// at run time. Empty when no home folder is known.
std::string RegistryFileLocation();

// Creates the missing folders leading to `file`.
RegStatus PrepareRegistryFolder(const std::string& file);

// Why `file` could not be opened for reading and writing: AccessDenied when the file, or the
// folder it would be created in, may not be written by this user; IoError otherwise.
RegStatus DiagnoseUnopenableFile(const std::string& file);

}  // namespace kestor
