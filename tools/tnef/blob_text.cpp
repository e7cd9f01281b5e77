#include "blob_text.h"

#include <cstdio>
#include <cstring>

#include "json_writer.h"
#include "tnef/tnef_reader.h"
#include "tool.h"

namespace {

constexpr char kRowSeparator = 0x1C;
constexpr char kValueSeparator = 0x1D;
constexpr char kEntrySeparator = 0x1E;
constexpr char kEscape = 0x1B;
constexpr char kEscapeOffset = 0x40;

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t from = 0;
    for (;;) {
        const size_t at = text.find(separator, from);
        pieces.push_back(text.substr(from, at == std::string_view::npos ? at : at - from));
        if (at == std::string_view::npos) return pieces;
        from = at + 1;
    }
}

std::string unescape(std::string_view piece) {
    std::string out;
    for (size_t i = 0; i < piece.size(); ++i) {
        if (piece[i] == kEscape && i + 1 < piece.size()) {
            out += static_cast<char>(piece[++i] - kEscapeOffset);
        } else {
            out += piece[i];
        }
    }
    return out;
}

// A property set entry's value reads best in the registry form of a GUID; every other
// value as its bytes.
std::string readableValue(const BlobEntry& e, const std::string& value) {
    constexpr size_t kGuidSize = 16;
    if (e.id != "GUID" || value.size() != kGuidSize) return readableBytes(value);
    const auto b = [&](size_t i) {
        return static_cast<unsigned>(static_cast<unsigned char>(value[i]));
    };
    char text[40];
    std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  b(0) | b(1) << 8 | b(2) << 16 | b(3) << 24, b(4) | b(5) << 8, b(6) | b(7) << 8,
                  b(8), b(9), b(10), b(11), b(12), b(13), b(14), b(15));
    return text;
}

// The published name an entry's id or set value stands for, or empty.
std::string publishedName(const BlobEntry& e, const std::string& value) {
    if (e.id == "GUID" && value.size() == 16) {
        TnefGuid set;
        std::memcpy(set.data(), value.data(), set.size());
        const char* name = tnef_PropSetName(set);
        return name != nullptr ? name : "";
    }
    if (e.id.empty() || e.id.size() > 8 ||
        e.id.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return "";
    const char* name = tnef_PropName(static_cast<uint32_t>(std::stoul(e.id, nullptr, 16)));
    return name != nullptr ? name : "";
}

std::string entryLine(const BlobEntry& e, bool named) {
    std::string line = readableBytes(e.id);
    const std::string idName = named && e.id != "GUID" ? publishedName(e, "") : "";
    if (!idName.empty()) line += " " + idName;
    line += " =";
    for (size_t i = 0; i < e.values.size(); ++i) {
        line += (i == 0 ? " " : " | ") + readableValue(e, e.values[i]);
        const std::string setName = named && e.id == "GUID" ? publishedName(e, e.values[i]) : "";
        if (!setName.empty()) line += " " + setName;
    }
    return line;
}

void jsonRow(JsonWriter& j, const BlobRow& row) {
    j.beginArray();
    for (const BlobEntry& e : row) {
        j.beginObject().field("id", readableBytes(e.id)).key("values").beginArray();
        for (const std::string& v : e.values) j.value(readableValue(e, v));
        j.endArray().endObject();
    }
    j.endArray();
}

}  // namespace

std::vector<BlobRow> parseBlobText(std::string_view text) {
    std::vector<BlobRow> rows;
    if (text.empty()) return rows;
    for (std::string_view rowText : split(text, kRowSeparator)) {
        BlobRow row;
        for (std::string_view entryText : split(rowText, kEntrySeparator)) {
            if (entryText.empty()) continue;
            const std::vector<std::string_view> parts = split(entryText, kValueSeparator);
            BlobEntry e{unescape(parts[0]), {}};
            for (size_t i = 1; i < parts.size(); ++i) e.values.push_back(unescape(parts[i]));
            row.push_back(std::move(e));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string renderBlobText(std::string_view text, bool table, bool named) {
    std::string out;
    const std::vector<BlobRow> rows = parseBlobText(text);
    for (size_t r = 0; r < rows.size(); ++r) {
        if (table) out += "row " + std::to_string(r + 1) + ":\n";
        for (const BlobEntry& e : rows[r]) out += (table ? "  " : "") + entryLine(e, named) + '\n';
    }
    return out;
}

void jsonBlobText(JsonWriter& j, std::string_view text, bool table) {
    const std::vector<BlobRow> rows = parseBlobText(text);
    if (!table) {
        jsonRow(j, rows.empty() ? BlobRow{} : rows.front());
        return;
    }
    j.beginArray();
    for (const BlobRow& row : rows) jsonRow(j, row);
    j.endArray();
}
