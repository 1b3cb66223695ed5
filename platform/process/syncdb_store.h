// The sync database as files: one a record in <run>/syncdb, named by the record. Every change appears at once or not at all,
// also to a reader in another process; nothing survives a boot, like the state it tells of. The agent reads and replaces
// records through syncdb.h; whoever creates the VRFs creates and removes their records here.
//
// A record's name is 1 to 200 bytes without '/' and does not begin with a full stop. Results: 0, or -1 with errno.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// Makes the record hold `value` if it does not exist; one that exists keeps what it holds, and that is a success.
int syncdbRecordCreate(std::string_view record, std::span<const std::byte> value);

// Replaces what an existing record holds; ENOENT if there is none.
int syncdbRecordReplace(std::string_view record, std::span<const std::byte> value);

// Reads at most value.size() bytes; what a shorter record does not fill stays as it was. Returns the bytes read, or -1.
int syncdbRecordRead(std::string_view record, std::span<std::byte> value);

// Removes the record; one that is not there is a success.
int syncdbRecordRemove(std::string_view record);
