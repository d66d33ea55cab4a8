// files.h - whole files to the target.
#pragma once

#include <cstdint>
#include <string>

// Sends the file at `path` as it is, under that name. `elapsed`: seconds that the worker has spent on the backup.
// A file that changes its size meanwhile fails. Returns 0 or a negative code; no retry.
[[nodiscard]] int putFile(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget,
                          int* curlStatus, std::uint64_t elapsed);

// As putFile, for a file that the key service's client encrypted: what goes over the wire is its plain content, without
// the token at its start. Needs the key service of the appliance that wrote it.
[[nodiscard]] int putEncryptedFile(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget,
                                   int* curlStatus, std::uint64_t elapsed);
