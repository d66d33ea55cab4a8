// hash_generation.h - which of the two stores of hash metadata this appliance uses.
//
// Generation 0 keeps hashes and references in the catalogue's tables, generation 1 in files of its own. This program
// serves generation 0; with any other every public operation of the hash layer fails.
// Threads: from any thread.
#pragma once

inline constexpr int GENERATION_TABLES = 0;
inline constexpr int GENERATION_FILES = 1;

// Asked of the platform and master.ini once per process.
[[nodiscard]] int getMetadataGeneration();

// For tests: the next question is asked anew.
void forgetMetadataGeneration();
