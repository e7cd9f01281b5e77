// Property texts (the blob form of MAPI properties) made readable: rows split at the row
// separator, entries at the entry separator, an entry's id part and values at the value
// separator, escapes undone, and the bytes shown with readableBytes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class JsonWriter;

struct BlobEntry {
    std::string id;                   // unescaped bytes
    std::vector<std::string> values;  // unescaped bytes
};
using BlobRow = std::vector<BlobEntry>;

// The rows of a text; a property text without row separators is one row. Empty entries
// (a text that ends with its separator) are left out.
std::vector<BlobRow> parseBlobText(std::string_view text);

// One line per entry, "id = value | value"; a table (table = true) puts "row N:" before
// each row's entries, which are indented. named adds the published name of a tag and of a
// property set after it ("1000001e PR_BODY = ...", "GUID = {...} PSETID_Common").
std::string renderBlobText(std::string_view text, bool table, bool named = false);

// The text as JSON: an array of entries {"id","values":[...]}, or for a table an array of
// such arrays; ids and values as readableBytes gives them.
void jsonBlobText(JsonWriter& j, std::string_view text, bool table);
