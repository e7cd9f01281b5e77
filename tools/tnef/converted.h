// The calendar and contact files extract writes beside a message's attachments.
#pragma once

#include <string>
#include <vector>

struct ConvertedFile {
    std::string name;  // invite.ics, contact.vcf
    std::string type;  // text/calendar, text/vcard
    std::string bytes;
    std::vector<std::string> warnings;  // what the conversion could not carry over
};

// What the message on fd and its embedded messages give, in stream order. Escapes as
// tnef_ReadMessage.
std::vector<ConvertedFile> tool_ConvertedFiles(int fd);
