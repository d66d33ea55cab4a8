// hash_private.h - the handle of the hash layer, and what its operations share.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "hash/hashTable.h"
#include "hash/hashValues.h"
#include "hash/hash_connection.h"
#include "hash/query_buffer.h"

struct hashValuesPrivate {
    SIShashTable* table = nullptr;
    HashConnection connection;
    const HashColumnTypes* types = nullptr;  // known once connected
    QueryBuffer query;
};

// Arms of one UNION ALL. From between 200 and 250 arms on the server starts workers for them, which makes each arm
// several times dearer; past 8000 it refuses the statement.
inline constexpr std::size_t ARMS_PER_STATEMENT = 120;
inline constexpr std::size_t BYTES_PER_ARM = 416;  // upper bound of the text of one arm
// Arms of the statement that is begun in `query`: fewer when memory for the text is short. 0 for none, logged.
[[nodiscard]] std::size_t beginArms(QueryBuffer* query);
inline constexpr char NEXT_ARM[] = "\nUNION ALL\n";

// IDs of one statement: what the server is asked for at once stays in proportion to what a batch holds.
inline constexpr std::size_t IDS_PER_STATEMENT = 16384;

// Makes the handle on first use and connects, for the operation of that name.
[[nodiscard]] int prepareHashValuesPrivatePSQL(HashValuesPtr* handle, const char* operation);

// The lookup itself, for records anywhere in memory.
[[nodiscard]] int lookUpRecords(hashValuesPrivate* handle, const std::vector<hashValue*>& records);
[[nodiscard]] int lookUpRecords(hashValuesPrivate* handle, std::span<hashValue> records);

// IDs as an array for `hash_id = ANY`; a run of equal ones is named once.
[[nodiscard]] std::string idArray(std::span<const std::uint64_t> hashIDs);

// False, with a line on the log, for a type that the system doesn't know.
[[nodiscard]] bool typeIsKnown(const hashValue& value, std::size_t entry);

// Writes the places in the store of the records with both hashValue_in and SISoffset_in, in the open transaction.
[[nodiscard]] int writeSISoffsets(hashValuesPrivate* handle, std::span<const hashValue> records);

// Logs wrong use of a list and returns -1.
int refuseArguments(const char* function, const void* handle, std::size_t count);
