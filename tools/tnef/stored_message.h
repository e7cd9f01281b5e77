// Reading back a message of the store, as decode and show report it: its header values and
// parts from the records of its message file, and the property texts stored with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class JsonWriter;

struct StoredPart {
    uint32_t number = 0;       // part number (1 the body, 2 the TNEF file, attachments from 3)
    uint32_t contentType = 0;  // 0 file, 1167 text, 1736 HTML, 2130 TNEF
    uint32_t depth = 0;        // 0 in the message itself, 1 in an embedded message, ...
    uint32_t size = 0;
    std::string name;
    std::string path;  // where the store keeps its bytes
};

struct StoredSummary {
    std::string id;
    std::string folder;
    std::string subject;  // UTF-8 (encoded words decoded)
    std::string messageClass;
    uint32_t headerFlags = 0;
    std::vector<StoredPart> parts;
    std::vector<std::pair<std::string, uint32_t>> embedded;  // subject and depth of each package
};

struct StoredText {
    bool secondary = false;
    uint32_t depth = 0;
    uint32_t flags = 0;
    std::string text;
};

// Raise the store's escapes (100/errno, 103/x) when the message cannot be read.
StoredSummary readStoredSummary(int16_t message);
std::vector<StoredText> readStoredTexts(int16_t message);

// The header's codes in words.
const char* priorityName(uint32_t headerFlags);
const char* importanceName(uint32_t headerFlags);
const char* sensitivityName(uint32_t headerFlags);
const char* contentTypeName(uint32_t contentType);

// Writes the summary's header members and its embedded messages (no braces, no parts) into
// the object being written.
void jsonSummaryFields(JsonWriter& j, const StoredSummary& s);
// The parts numbered fromPart and up: as a JSON array {"part","type","name","size","depth",
// "path"}, or as two lines each.
void jsonParts(JsonWriter& j, const std::vector<StoredPart>& parts, uint32_t fromPart);
std::string renderParts(const std::vector<StoredPart>& parts, uint32_t fromPart);
// The summary as "name  value" lines.
std::string renderSummary(const StoredSummary& s);
