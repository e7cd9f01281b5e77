#include "names.h"

#include "tnef/tnef_reader.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace {

constexpr size_t kNameMax = 255;      // bytes of one file name on every common file system
constexpr size_t kExtensionMax = 16;  // an extension longer than this is not kept apart

// The start of the UTF-8 character that holds byte i.
size_t characterStart(std::string_view text, size_t i) {
    while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) --i;
    return i;
}

size_t extensionAt(std::string_view name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || name.size() - dot > kExtensionMax)
        return name.size();
    return dot;
}

std::string shortened(const std::string& name) {
    if (name.size() <= kNameMax) return name;
    const size_t dot = extensionAt(name);
    const std::string extension = name.substr(dot);
    const size_t keep = characterStart(name, kNameMax - extension.size());
    return name.substr(0, keep) + extension;
}

}  // namespace

std::string safeFileName(std::string_view name, std::string_view fallback) {
    const size_t slash = name.find_last_of("/\\");
    if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
    std::string clean;
    for (char ch : name) {
        const auto c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c != 0x7F) clean += ch;
    }
    const size_t first = clean.find_first_not_of(". ");
    clean = first == std::string::npos ? std::string() : clean.substr(first);
    while (!clean.empty() && clean.back() == ' ') clean.pop_back();
    if (clean.empty()) return std::string(fallback);
    return shortened(clean);
}

std::string numberedName(std::string_view name, unsigned n) {
    const size_t dot = extensionAt(name);
    const std::string suffix = " (" + std::to_string(n) + ")";
    std::string stem(name.substr(0, dot));
    const std::string extension(name.substr(dot));
    if (stem.size() + suffix.size() + extension.size() > kNameMax)
        stem = stem.substr(0, characterStart(stem, kNameMax - suffix.size() - extension.size()));
    return stem + suffix + extension;
}

std::string guessMimeType(std::string_view name) {
    struct Entry {
        const char* extension;
        const char* type;
    };
    static constexpr Entry kTypes[] = {
        {"txt", "text/plain"},
        {"log", "text/plain"},
        {"htm", "text/html"},
        {"html", "text/html"},
        {"csv", "text/csv"},
        {"ics", "text/calendar"},
        {"vcf", "text/vcard"},
        {"xml", "application/xml"},
        {"rtf", "application/rtf"},
        {"pdf", "application/pdf"},
        {"json", "application/json"},
        {"zip", "application/zip"},
        {"gz", "application/gzip"},
        {"7z", "application/x-7z-compressed"},
        {"doc", "application/msword"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"xls", "application/vnd.ms-excel"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {"msg", "application/vnd.ms-outlook"},
        {"eml", "message/rfc822"},
        {"dat", "application/octet-stream"},
        {"tnef", "application/vnd.ms-tnef"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"png", "image/png"},
        {"gif", "image/gif"},
        {"bmp", "image/bmp"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"svg", "image/svg+xml"},
        {"mp3", "audio/mpeg"},
        {"wav", "audio/wav"},
        {"mp4", "video/mp4"},
        {"avi", "video/x-msvideo"},
    };
    const size_t dot = name.rfind('.');
    if (dot != std::string_view::npos) {
        std::string extension(name.substr(dot + 1));
        std::transform(extension.begin(), extension.end(), extension.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        for (const Entry& e : kTypes)
            if (extension == e.extension) return e.type;
    }
    return "application/octet-stream";
}

const char* attachKindName(uint32_t kind) {
    switch (kind) {
        case TNEF_ATTACH_FILE: return "file";
        case TNEF_ATTACH_OLE: return "ole";
        case TNEF_ATTACH_MESSAGE: return "message";
        default: return "none";
    }
}

namespace {

std::string defaultName(const TnefAttachInfo& a) {
    return "attachment-" + std::to_string(a.index) + ".dat";
}

}  // namespace

std::string attachName(const TnefAttachInfo& a) {
    const std::string best = tnef_AttachBestName(a);
    return best.empty() ? defaultName(a) : best;
}

std::string attachType(const TnefAttachInfo& a) {
    if (a.kind == TNEF_ATTACH_MESSAGE) return "application/vnd.ms-tnef";
    if (!a.mimeTag.empty()) return a.mimeTag;
    return guessMimeType(attachName(a));
}

std::string attachFileName(const TnefAttachInfo& a) {
    std::string name = safeFileName(attachName(a), defaultName(a));
    if (a.kind == TNEF_ATTACH_MESSAGE) name = safeFileName(name + ".tnef", defaultName(a));
    return name;
}

std::vector<std::string> readDamageTexts(uint32_t flags) {
    static constexpr struct {
        uint32_t flag;
        const char* text;
    } kTexts[] = {
        {TNEF_READ_TRUNCATED, "the file ends inside a record"},
        {TNEF_READ_BAD_CHECKSUM, "a record's checksum is wrong"},
        {TNEF_READ_TRAILING, "bytes too few for a record follow the last record"},
        {TNEF_READ_NO_RECORDS, "the file holds no record"},
        {TNEF_READ_COUNT_BEYOND, "a count announces more than the data holds"},
        {TNEF_READ_BAD_PROPS, "a property list could not be read to its end"},
        {TNEF_READ_TOO_DEEP, "embedded messages nested too deep were not read"},
        {TNEF_READ_TOO_MANY, "too many values: the rest were not read"},
    };
    std::vector<std::string> out;
    for (const auto& t : kTexts)
        if (flags & t.flag) out.emplace_back(t.text);
    return out;
}
