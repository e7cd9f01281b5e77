// MAPI properties as people read them: one line each, or JSON with typed values. Shared by
// `props` and by every command that shows properties.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "tnef/tnef_reader.h"

// The property's name: its published name (PR_SUBJECT), a named property's set and name
// ({PSETID_Appointment}/0x8205 PidLidBusyStatus, {PS_PUBLIC_STRINGS}/"Keywords"), else its id.
std::string propLabel(const TnefProp& prop);

// `label (0x0037001F, PT_UNICODE) = "Quarterly report"`: strings quoted, times in ISO 8601
// UTC, binaries in hex (cut after a few dozen bytes, with their length), several values in
// brackets. fd is the file the entry was read from (binary bytes are read from it).
std::string propLine(int fd, const TnefPropEntry& entry);

// {"tag", "name", "type", "set", "id" or "string_id", "value"}: strings in UTF-8, integers
// as numbers, booleans, times as ISO 8601 text, binaries as hex text (their first 64 KiB,
// with "cut": true when longer), several values as an array.
nlohmann::json propJson(int fd, const TnefPropEntry& entry);

// "2020-01-01T00:00:00Z".
std::string isoTime(int64_t unixSeconds);
