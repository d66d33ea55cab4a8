// util_internal.h - the commands, for the dispatcher. Each gets its arguments from the one behind the command's name
// on; their number has been checked. The result is the exit status.
#pragma once

#include <cstdint>
#include <span>

using Arguments = std::span<char* const>;

// A whole argument as a number. False, with a word on standard error, for a text that is none.
[[nodiscard]] bool numberArgument(const char* text, std::uint64_t* number);

// Whether a target's name fits the buffers of the daemon and its workers; a word on standard error if not. For commands
// that bring a new name in: a row under a name that is cut later would never be found again.
[[nodiscard]] bool targetArgument(const char* name);

// The queue.
int utilCreateQueue(Arguments arguments);
int utilCreateTypes(Arguments arguments);
int utilEnqueue(Arguments arguments);
int utilComplete(Arguments arguments);
int utilRemove(Arguments arguments);
int utilPeek(Arguments arguments);
int utilSwap(Arguments arguments);
int utilCleanup(Arguments arguments);

// Blocks.
int utilCount(Arguments arguments);
int utilList(Arguments arguments);
int utilLbe(Arguments arguments);
int utilBlock(Arguments arguments);
int utilTupleHash(Arguments arguments);
int utilPostCheck(Arguments arguments);
int utilPostCheckOffset(Arguments arguments);
int utilPutBlock(Arguments arguments);

// Backups, here and on a target.
int utilExportUbi(Arguments arguments);
int utilCheckUbi(Arguments arguments);
int utilExportMetadata(Arguments arguments);
int utilReplicate(Arguments arguments);
int utilStartBackup(Arguments arguments);
int utilFixPausedInstance(Arguments arguments);
int utilSendHactar(Arguments arguments);
int utilCancelBackup(Arguments arguments);
int utilListBackupStatus(Arguments arguments);
