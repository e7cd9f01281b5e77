#include "prop_format.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace {

constexpr uint16_t kMvFlag = 0x1000;
constexpr uint32_t kHexShown = 32;          // bytes of a binary value a line shows
constexpr uint32_t kJsonHexLimit = 65536;   // and JSON, so memory stays small whatever the value

std::string hex32(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%08" PRIX32, v);
    return b;
}

std::string typeName(uint16_t type) {
    const char* name = tnef_PropTypeName(type);
    if (name != nullptr) return name;
    char b[16];
    std::snprintf(b, sizeof b, "0x%04X", type);
    return b;
}

// Up to `limit` bytes of a binary value, in lower-case hex.
std::string hexOf(int fd, const TnefValue& v, uint32_t limit) {
    std::string bytes(std::min(v.length, limit), '\0');
    const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(v.offset));
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

bool isText(uint16_t type) { return type == 0x001E || type == 0x001F; }
bool isBinary(uint16_t type) { return type == 0x0102 || type == 0x000D; }

std::string realText(double d) {
    char b[32];
    std::snprintf(b, sizeof b, "%.17g", d);
    return b;
}

// One value as the line shows it.
std::string valueText(int fd, const TnefPropEntry& e, size_t i) {
    const TnefValue& v = e.values[i];
    if (isText(v.type)) return nlohmann::json(e.texts[i]).dump(-1, ' ', false,
                                                                nlohmann::json::error_handler_t::replace);
    if (isBinary(v.type)) {
        std::string h = hexOf(fd, v, kHexShown);
        if (v.length > kHexShown) h += "... (" + std::to_string(v.length) + " bytes)";
        return h;
    }
    switch (v.type) {
        case 0x000B: return v.boolean ? "true" : "false";
        case 0x000A: return hex32(static_cast<uint32_t>(v.integer));
        case 0x0004: case 0x0005: case 0x0007: return realText(v.real);
        case 0x0006: return realText(static_cast<double>(v.integer) / 10000.0);
        case 0x0040: return isoTime(v.unixTime);
        case 0x0048: return "{" + tnef_GuidText(v.guid) + "}";
        default: return std::to_string(v.integer);
    }
}

nlohmann::json valueJson(int fd, const TnefPropEntry& e, size_t i) {
    const TnefValue& v = e.values[i];
    if (isText(v.type)) return e.texts[i];
    if (isBinary(v.type)) return hexOf(fd, v, kJsonHexLimit);
    switch (v.type) {
        case 0x000B: return v.boolean;
        case 0x000A: return hex32(static_cast<uint32_t>(v.integer));
        case 0x0004: case 0x0005: case 0x0007: return v.real;
        case 0x0006: return static_cast<double>(v.integer) / 10000.0;
        case 0x0040: return isoTime(v.unixTime);
        case 0x0048: return tnef_GuidText(v.guid);
        default: return v.integer;
    }
}

std::string setLabel(const TnefGuid& set) {
    const char* name = tnef_PropSetName(set);
    return "{" + (name != nullptr ? std::string(name) : tnef_GuidText(set)) + "}";
}

}  // namespace

std::string isoTime(int64_t unixSeconds) {
    const auto t = static_cast<time_t>(unixSeconds);
    std::tm tm{};
    char b[40];
    if (gmtime_r(&t, &tm) == nullptr || std::strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return std::to_string(unixSeconds);
    return b;
}

std::string propLabel(const TnefProp& p) {
    if (!p.named) {
        const char* name = tnef_PropName(p.tag);
        if (name != nullptr) return name;
        char b[16];
        std::snprintf(b, sizeof b, "0x%04X", p.id);
        return b;
    }
    if (p.stringName) return setLabel(p.set) + "/" + nlohmann::json(p.name).dump();
    char b[16];
    std::snprintf(b, sizeof b, "/0x%04X", p.lid);
    std::string label = setLabel(p.set) + b;
    if (const char* name = tnef_NamedPropName(p.set, p.lid)) label += std::string(" ") + name;
    return label;
}

std::string propLine(int fd, const TnefPropEntry& e) {
    std::string line = propLabel(e.prop) + " (" + hex32(e.prop.tag) + ", " + typeName(e.prop.type) + ") = ";
    const bool many = (e.prop.type & kMvFlag) != 0;
    if (many) line += "[";
    for (size_t i = 0; i < e.values.size(); ++i) {
        if (i != 0) line += ", ";
        line += valueText(fd, e, i);
    }
    if (many) line += "]";
    return line;
}

nlohmann::json propJson(int fd, const TnefPropEntry& e) {
    const TnefProp& p = e.prop;
    const char* name = p.named ? tnef_NamedPropName(p.set, p.lid) : tnef_PropName(p.tag);
    nlohmann::json j = {{"tag", hex32(p.tag)},
                        {"name", name != nullptr ? nlohmann::json(name) : nlohmann::json()},
                        {"type", typeName(p.type)},
                        {"set", p.named ? nlohmann::json(tnef_GuidText(p.set)) : nlohmann::json()}};
    if (p.named && p.stringName)
        j["string_id"] = p.name;
    else
        j["id"] = p.named ? p.lid : p.id;
    nlohmann::json values = nlohmann::json::array();
    bool cut = false;
    for (size_t i = 0; i < e.values.size(); ++i) {
        values.push_back(valueJson(fd, e, i));
        cut |= isBinary(e.values[i].type) && e.values[i].length > kJsonHexLimit;
    }
    if (cut) j["cut"] = true;  // a binary value longer than kJsonHexLimit gives its first bytes
    if ((p.type & kMvFlag) != 0)
        j["value"] = values;
    else
        j["value"] = values.empty() ? nlohmann::json() : values[0];
    return j;
}
