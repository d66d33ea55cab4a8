#include "hash/hashTable.h"

#include "log/logger.h"

namespace {

int refuseNull(const char* function) {
    log_message(0, "NULL argument to %s()\n", function);
    return -1;
}

}  // namespace

int getSIShashTable(SIShashTable** table, hashValue* value) {
    return table == nullptr || value == nullptr ? refuseNull(__func__) : 1;
}

int putSIShashTable(SIShashTable** table, const hashValue* value) {
    return table == nullptr || value == nullptr ? refuseNull(__func__) : 0;
}

int clearSIShashTable(SIShashTable** table, const hashValue* value) {
    return table == nullptr || value == nullptr ? refuseNull(__func__) : 1;
}

void freeSIShashTable(SIShashTable** table) {
    if (table == nullptr)
        (void)refuseNull(__func__);
}
