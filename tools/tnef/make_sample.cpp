// Writes samples/winmail.dat: a small TNEF file of our own making, free to redistribute, so
// that the tool can be tried without anyone's mail. A message with a subject, a priority, a
// few MAPI properties and two attachments (a text file and a small PNG image), each with
// its rendering record, title, data and property list. The output is the same bytes on every
// run: nothing in it depends on the time or the machine.
//
// usage: tnef_make_sample OUT
//        tnef_make_sample --big-body OUT MIB   a message whose body is MIB MiB of HTML
//                                              encapsulated in compressed RTF, for timing

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef/tnef_body.h"

namespace {

constexpr uint32_t attSubject = 0x00018004;
constexpr uint32_t attPriority = 0x0004800D;
constexpr uint32_t attMessageClass = 0x00078008;
constexpr uint32_t attOemCodepage = 0x00069007;
constexpr uint32_t attAttachRenddata = 0x00069002;
constexpr uint32_t attAttachTitle = 0x00018010;
constexpr uint32_t attAttachData = 0x0006800F;
constexpr uint32_t attAttachment = 0x00069005;

constexpr uint32_t PR_IMPORTANCE = 0x00170003;
constexpr uint32_t PR_READ_RECEIPT_REQUESTED = 0x0029000B;
constexpr uint32_t PR_SENDER_EMAIL_ADDRESS = 0x0C1F001E;
constexpr uint32_t PR_BODY = 0x1000001E;
constexpr uint32_t PR_ATTACH_FILENAME = 0x3704001E;
constexpr uint32_t PR_ATTACH_LONG_FILENAME = 0x3707001E;
constexpr uint32_t PR_ATTACH_METHOD = 0x37050003;
constexpr uint32_t PR_ATTACH_MIME_TAG = 0x370E001E;
constexpr uint32_t PR_DISPLAY_NAME = 0x3001001E;

constexpr uint8_t kAttachmentLevel = 2;
constexpr uint16_t kRenderFile = 1;
constexpr uint32_t kAttachByValue = 1;
constexpr uint32_t kCodePage = 1252;
constexpr uint16_t kPriorityHigh = 1;
constexpr uint32_t kImportanceHigh = 2;

void put16(std::string& out, uint16_t v) {
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>(v >> 8);
}
void put32(std::string& out, uint32_t v) {
    put16(out, static_cast<uint16_t>(v));
    put16(out, static_cast<uint16_t>(v >> 16));
}
void pad4(std::string& out) {
    while (out.size() % 4 != 0) out += '\0';
}

// One attachment-level record (the writers of the library write message-level ones).
void addAttachAttribute(int fd, uint32_t attribute, std::string_view data) {
    std::string record(1, static_cast<char>(kAttachmentLevel));
    put32(record, attribute);
    put32(record, static_cast<uint32_t>(data.size()));
    record += data;
    put16(record, tnef_Checksum(data.data(), static_cast<int32_t>(data.size())));
    os_write(fd, record.data(), static_cast<int64_t>(record.size()));
}

// A property list of string and long properties, laid out as in attMAPIProps.
class PropList {
  public:
    PropList& text(uint32_t tag, std::string_view value) {
        put32(body_, tag);
        put32(body_, 1);  // one value
        put32(body_, static_cast<uint32_t>(value.size() + 1));
        body_ += value;
        body_ += '\0';
        pad4(body_);
        ++count_;
        return *this;
    }
    PropList& number(uint32_t tag, uint32_t value) {
        put32(body_, tag);
        put32(body_, value);
        ++count_;
        return *this;
    }
    std::string bytes() const {
        std::string out;
        put32(out, count_);
        return out + body_;
    }

  private:
    std::string body_;
    uint32_t count_ = 0;
};

// attAttachRenddata: type, position (none), width, height, flags.
std::string renddata() {
    std::string r;
    put16(r, kRenderFile);
    put32(r, 0xFFFFFFFF);
    put16(r, 0);
    put16(r, 0);
    put32(r, 0);
    return r;
}

void addAttachment(int fd, std::string_view shortName, std::string_view longName,
                   std::string_view mimeType, std::string_view data) {
    addAttachAttribute(fd, attAttachRenddata, renddata());
    addAttachAttribute(fd, attAttachTitle, std::string(shortName) + '\0');
    addAttachAttribute(fd, attAttachData, data);
    addAttachAttribute(fd, attAttachment,
                       PropList()
                           .number(PR_ATTACH_METHOD, kAttachByValue)
                           .text(PR_ATTACH_FILENAME, shortName)
                           .text(PR_ATTACH_LONG_FILENAME, longName)
                           .text(PR_DISPLAY_NAME, longName)
                           .text(PR_ATTACH_MIME_TAG, mimeType)
                           .bytes());
}

void addText(int fd, uint32_t attribute, std::string_view text) {
    const std::string data = std::string(text) + '\0';
    tnef_AddMsgAttribute(fd, attribute, static_cast<uint32_t>(data.size()), data.data());
}

void addTextProp(int fd, uint32_t tag, std::string_view text) {
    const std::string value = std::string(text) + '\0';
    tnef_AddMAPIPropsAttribute(fd, tag, static_cast<int32_t>(value.size()), value.data());
}

// A 1x1 PNG image: one opaque blue pixel.
const std::string& chartPng() {
    static const std::string png(
        "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52"
        "\x00\x00\x00\x01\x00\x00\x00\x01\x08\x02\x00\x00\x00\x90\x77\x53"
        "\xde\x00\x00\x00\x0c\x49\x44\x41\x54\x78\xda\x63\x90\x8f\x5f\x01"
        "\x00\x01\xc7\x01\x27\x71\xd8\xe2\x70\x00\x00\x00\x00\x49\x45\x4e"
        "\x44\xae\x42\x60\x82",
        69);
    return png;
}

void writeSample(int fd) {
    tnef_Create(fd);
    std::string codePage;
    put32(codePage, kCodePage);
    put32(codePage, 0);
    tnef_AddMsgAttribute(fd, attOemCodepage, static_cast<uint32_t>(codePage.size()),
                         codePage.data());
    addText(fd, attMessageClass, "IPM.Microsoft Mail.Note");
    addText(fd, attSubject, "Quarterly report");
    std::string priority;
    put16(priority, kPriorityHigh);
    tnef_AddMsgAttribute(fd, attPriority, static_cast<uint32_t>(priority.size()), priority.data());

    const uint32_t importance = kImportanceHigh;
    tnef_AddMAPIPropsAttribute(fd, PR_IMPORTANCE, 4, &importance);
    const uint16_t receipt = 1;
    tnef_AddMAPIPropsAttribute(fd, PR_READ_RECEIPT_REQUESTED, 2, &receipt);
    addTextProp(fd, PR_SENDER_EMAIL_ADDRESS, "reports@example.com");
    addTextProp(fd, PR_BODY, "Hello,\r\n\r\nthe report and the chart are attached.\r\n");

    addAttachment(fd, "REPORT~1.TXT", "quarterly report.txt", "text/plain",
                  "Quarterly report\r\n================\r\n\r\nSales rose by 4 per cent.\r\n");
    addAttachment(fd, "CHART.PNG", "sales chart.png", "image/png", chartPng());
}

constexpr uint32_t PR_RTF_COMPRESSED = 0x10090102;

// HTML encapsulated in RTF as a client writes it, about mib MiB of it, compressed.
void writeBigBody(int fd, unsigned long mib) {
    std::string rtf = "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 {\\fonttbl{\\f0 Arial;}}";
    for (int i = 0; rtf.size() < (mib << 20); ++i)
        rtf += "{\\*\\htmltag <p class=x>}\\htmlrtf {\\f0 \\htmlrtf0 Line " + std::to_string(i) +
               " of the report, caf\\'e9 \\u8364? and more text.}{\\*\\htmltag </p>\\par}\\par\r\n";
    rtf += "}";
    const std::string packed = tnef_CompressRtf(rtf);
    tnef_Create(fd);
    addText(fd, attMessageClass, "IPM.Note");
    addText(fd, attSubject, "A long body");
    tnef_AddMAPIPropsAttribute(fd, PR_RTF_COMPRESSED, static_cast<int32_t>(packed.size()), packed.data());
}

}  // namespace

int main(int argc, char** argv) {
    const bool big = argc == 4 && std::string_view(argv[1]) == "--big-body";
    if (argc != 2 && !big) {
        std::fputs("usage: tnef_make_sample OUT | --big-body OUT MIB\n", stderr);
        return 2;
    }
    try {
        OsFd fd(os_open(argv[big ? 2 : 1], O_RDWR | O_CREAT | O_TRUNC, 0644));
        if (big)
            writeBigBody(fd.get(), std::strtoul(argv[3], nullptr, 10));
        else
            writeSample(fd.get());
        fd.close();
    } catch (const Escape& e) {
        std::fprintf(stderr, "tnef_make_sample: %s\n", e.what());
        return 2;
    }
    return 0;
}
