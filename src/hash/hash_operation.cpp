#include "hash/hash_operation.h"

#include "hash/hash_generation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

namespace {

bool isServed(int generation) {
    if (generation != GENERATION_TABLES)
        log_message(0, "Invalid metadata generation: %d\n", generation);
    return generation == GENERATION_TABLES;
}

}  // namespace

HashOperation::HashOperation(const char* name)
    : name_(name),
      caught_(SignalLayer::hashes, name),
      canRun_(!caught_.failed() && isServed(getMetadataGeneration())) {}

int HashOperation::connect(HashValuesPtr* handle, std::size_t count) const {
    if (handle == nullptr)
        return refuseArguments(name_, handle, count);
    return canRun_ ? prepareHashValuesPrivatePSQL(handle, name_) : -1;
}
