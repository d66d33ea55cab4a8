// hash_value.h - the identity record of a deduplicated block ("subfile"), its text form and its running hash.
//
// A hashValue says what a block is (type, length, digest) and, once known, under which number and where in the single
// instance store it is kept. In flags tell which fields the caller filled as a key or as new content; out flags tell
// which fields hold what is stored. Records cross processes and lie next to each other in arrays: their layout is
// fixed.
//
// The text form, the 3tuple, is "b-<hashType>-<hashedLength>-<digest as 128 upper-case hexadecimal digits>"; targets
// name blocks by it.
//
// Threads: everything here works on the caller's records only.
// Errors:  -1, with the reason logged unless said otherwise.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Bits of hashValue::flags; an out bit is its in bit shifted left by HASH_OUT_SHIFT.
inline constexpr std::uint32_t hashID_in = 1u << 0;
inline constexpr std::uint32_t SISoffset_in = 1u << 1;
inline constexpr std::uint32_t locationID_in = 1u << 2;
inline constexpr std::uint32_t hashValue_in = 1u << 3;
inline constexpr std::uint32_t hashID_out = 1u << 4;
inline constexpr std::uint32_t SISoffset_out = 1u << 5;
inline constexpr std::uint32_t locationID_out = 1u << 6;
inline constexpr std::uint32_t hashValue_out = 1u << 7;
inline constexpr unsigned HASH_OUT_SHIFT = 4;

inline constexpr std::uint64_t NO_SIS_OFFSET = ~std::uint64_t{0};
inline constexpr std::size_t HASH_TYPE_SIZE = 8;
inline constexpr std::size_t HASH_VALUE_SIZE = 64;

struct hashValue {
    std::uint32_t flags;
    std::uint32_t pad;
    std::uint64_t hashID;            // number of the hash; bit 62: made by the store from an offset
    std::uint64_t hashedLength;      // bytes of source data
    std::uint64_t compressedLength;  // bytes in the store when compressed, 0 stored as it is
    std::uint64_t SISoffset;         // virtual offset in the store, NO_SIS_OFFSET none
    std::uint64_t locationID;
    char hashType[HASH_TYPE_SIZE];  // NUL padded, not always terminated: print with "%.8s"
    std::uint8_t digest[HASH_VALUE_SIZE];
};
static_assert(sizeof(hashValue) == 120 && offsetof(hashValue, hashType) == 48 && offsetof(hashValue, digest) == 56);

// Bits of hashReferenceInfo::referenceFlags.
inline constexpr std::uint32_t deduplicated_in = 1u << 0;
inline constexpr std::uint32_t deduplicated_out = 1u << 1;
inline constexpr std::uint32_t reference_complete = 1u << 2;
inline constexpr std::uint32_t complete_in = 1u << 3;
inline constexpr std::uint32_t complete_out = 1u << 4;

// A hash and one use of it in one backup. Derived, so that a pointer to it is a pointer to its hashValue.
struct hashReferenceInfo : hashValue {
    std::uint64_t backupNumber;
    std::int64_t fileOffset;     // of the block in the backup's file
    std::uint64_t deduplicated;  // 0: the data of this reference lies in the backup file itself
    std::uint32_t referenceFlags;
    std::uint32_t otherReferences;
};
static_assert(sizeof(hashReferenceInfo) == 152);
// offsetof is not for derived records, so the places are read off the bytes.
static_assert([] {
    hashReferenceInfo record{};
    record.backupNumber = record.deduplicated = 1;
    record.fileOffset = 1;
    record.referenceFlags = record.otherReferences = 1;
    const auto bytes = std::bit_cast<std::array<unsigned char, sizeof record>>(record);
    for (const std::size_t at : {120, 128, 136, 144, 148})
        if (bytes[at] != 1)
            return false;
    return true;
}());

// A place in a backup, beside a hashValue that is put there.
inline constexpr std::uint32_t offset_in = 1u << 0;
inline constexpr std::uint32_t offset_out = 1u << 1;  // the mapping was inserted
struct hashOffset {
    std::uint32_t flags;
    std::uint32_t pad;
    std::int64_t offset;
};
static_assert(sizeof(hashOffset) == 16 && offsetof(hashOffset, offset) == 8);

// A 3tuple with its NUL is at most this long.
inline constexpr std::size_t TUPLE3_SIZE = 2 + HASH_TYPE_SIZE + 1 + 20 + 1 + 2 * HASH_VALUE_SIZE + 1;

// Length of the digest of the record's type, 0 for a type that the system doesn't know. "sha512" is the only known one,
// and this is the only test of a type.
[[nodiscard]] int hashLength(const hashValue& value);

// The digest, all 64 bytes, as upper-case hexadecimal digits.
[[nodiscard]] std::string hashValueHex(const hashValue& value);

// Writes the 3tuple with its NUL. Returns 0, or -1 if `size` bytes don't hold it.
[[nodiscard]] int hashValueTo3tuple(const hashValue& value, char* buffer, std::size_t size);

// Reads a 3tuple. Returns 0 with type, length, digest and only hashValue_in set; or -1 with a zeroed record. Only a
// text that doesn't begin with the mark of a block is logged. What stands behind the 128 digits is ignored.
[[nodiscard]] int tuple3ToHashValue(std::string_view text, hashValue* value);

// Folds digest, offset, type and length into the caller's bytes by exclusive or: a short key that is equal for equal
// blocks at equal offsets. An empty output is left alone.
void foldHashValue(const hashValue& value, const hashOffset& offset, std::span<std::uint8_t> output);

// Logs all fields of a record.
void dumpHashValue(int level, const hashValue& value);

// A record that was a result becomes a key again, and the other way round: each bit set on one side moves to its
// partner.
void outFlagsToIn(hashValue* value);
void inFlagsToOut(hashValue* value);
void inFlagsToOut(hashReferenceInfo* reference);
