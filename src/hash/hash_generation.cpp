#include "hash/hash_generation.h"

#include <atomic>

#include "config/directories.h"
#include "config/ini.h"
#include "config/services.h"

namespace {

constexpr int NOT_ASKED = -1;
std::atomic<int> g_generation = NOT_ASKED;

}  // namespace

int getMetadataGeneration() {
    int generation = g_generation.load();
    if (generation == NOT_ASKED) {
        generation = platformSupportsDedupNT() != 0
                         ? ini_get_int("fileDedup", "MetadataGeneration", GENERATION_TABLES, g_master_ini)
                         : GENERATION_TABLES;
        g_generation.store(generation);
    }
    return generation;
}

void forgetMetadataGeneration() {
    g_generation.store(NOT_ASKED);
}
