// demo.h - a whole replication for a person to watch.
#pragma once

#include <filesystem>

namespace lab {

// Replicates `directory` (empty: a real one of at least 50 MB that the machine has), changes one file in a hundred of
// its copy and replicates again. Exit status 0 only if the vault rebuilt both backups byte for byte.
int demo(const std::filesystem::path& directory);

}  // namespace lab
