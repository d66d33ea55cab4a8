// blocks.h - the requests that move blocks.
//
// A block is named on the wire by type, length and digest. None of these retries. A block must stay below 2 GiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "block/hash_value.h"
#include "rest/session.h"

inline constexpr std::size_t CHECK_RECORD_SIZE = 88;  // bytes of one block in a post-check-offset body
inline constexpr std::size_t BLOCK_HEADER_SIZE = 84;  // bytes in front of each block in a multiblock body

// Writes the 84-byte header of a block to `header`, which must have room for it.
void writeBlockHeader(const hashReferenceInfo& record, std::span<std::byte> header);

// Asks which blocks of a batch the target lacks. On success *reply holds one byte per record, '1' for a block that the
// target has; on every failure it is left alone. Returns 0 or a negative code.
[[nodiscard]] int postCheckOffset(const std::string& url, std::span<const hashReferenceInfo> records,
                                  std::optional<std::string>* reply, std::int64_t backupNo, int* curlStatus);

// Sends a body of `blockCount` blocks, each behind its header. Returns 0 or a negative code.
[[nodiscard]] int putMultiBlocks(const std::string& url, std::span<const std::byte> body, std::int64_t blockCount,
                                 std::int64_t backupNo, int* curlStatus);

// Sends each block whose entry in `sendInfo` has a length, one request a block; `records` runs beside it. With
// `verifyHash` 1 a block that doesn't have its digest ends the work. Returns the number of entries whatever became of
// the transfers: a block that was lost on the way shows at the next checkpoint.
[[nodiscard]] std::int64_t putBlocks(const std::string& url, std::span<const RequestBody> sendInfo,
                                     std::span<const hashReferenceInfo> records, int verifyHash, std::int64_t backupNo,
                                     int* curlStatus);

// Streams one block through `window`, which is filled again and again. `readLock` (null outside the pipeline) is held
// around each read. Returns 0 or a negative code.
[[nodiscard]] int putLargeBlock(const std::string& url, const hashValue& record, std::span<std::byte> window,
                                std::int64_t backupNo, int* curlStatus, std::mutex* readLock);
