// Contacts and distribution lists as vCard 4.0. Written here: the one vCard 4.0 library in
// Debian is GPL-licensed and refuses values it would have to escape, so the few rules the
// format has (escaping, folding at 75 octets, CRLF) are kept in this file.
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "convert_internal.h"
#include "tnef/tnef_body.h"

namespace tnefconv {

namespace {

// Tagged properties of a contact.
enum ContactTag : uint16_t {
    PR_GENERATION = 0x3A05,
    PR_GIVEN_NAME = 0x3A06,
    PR_BUSINESS_TELEPHONE_NUMBER = 0x3A08,
    PR_HOME_TELEPHONE_NUMBER = 0x3A09,
    PR_SURNAME = 0x3A11,
    PR_COMPANY_NAME = 0x3A16,
    PR_TITLE = 0x3A17,
    PR_DEPARTMENT_NAME = 0x3A18,
    PR_PRIMARY_TELEPHONE_NUMBER = 0x3A1A,
    PR_BUSINESS2_TELEPHONE_NUMBER = 0x3A1B,
    PR_MOBILE_TELEPHONE_NUMBER = 0x3A1C,
    PR_CAR_TELEPHONE_NUMBER = 0x3A1E,
    PR_OTHER_TELEPHONE_NUMBER = 0x3A1F,
    PR_PAGER_TELEPHONE_NUMBER = 0x3A21,
    PR_BUSINESS_FAX_NUMBER = 0x3A24,
    PR_HOME_FAX_NUMBER = 0x3A25,
    PR_COUNTRY = 0x3A26,
    PR_LOCALITY = 0x3A27,
    PR_STATE_OR_PROVINCE = 0x3A28,
    PR_STREET_ADDRESS = 0x3A29,
    PR_POSTAL_CODE = 0x3A2A,
    PR_POST_OFFICE_BOX = 0x3A2B,
    PR_HOME2_TELEPHONE_NUMBER = 0x3A2F,
    PR_WEDDING_ANNIVERSARY = 0x3A41,
    PR_BIRTHDAY = 0x3A42,
    PR_MIDDLE_NAME = 0x3A44,
    PR_DISPLAY_NAME_PREFIX = 0x3A45,
    PR_NICKNAME = 0x3A4F,
    PR_PERSONAL_HOME_PAGE = 0x3A50,
    PR_BUSINESS_HOME_PAGE = 0x3A51,
    PR_HOME_ADDRESS_CITY = 0x3A59,
    PR_HOME_ADDRESS_COUNTRY = 0x3A5A,
    PR_HOME_ADDRESS_POSTAL_CODE = 0x3A5B,
    PR_HOME_ADDRESS_STATE_OR_PROVINCE = 0x3A5C,
    PR_HOME_ADDRESS_STREET = 0x3A5D,
    PR_HOME_ADDRESS_POST_OFFICE_BOX = 0x3A5E,
    PR_OTHER_ADDRESS_CITY = 0x3A5F,
    PR_OTHER_ADDRESS_COUNTRY = 0x3A60,
    PR_OTHER_ADDRESS_POSTAL_CODE = 0x3A61,
    PR_OTHER_ADDRESS_STATE_OR_PROVINCE = 0x3A62,
    PR_OTHER_ADDRESS_STREET = 0x3A63,
    PR_OTHER_ADDRESS_POST_OFFICE_BOX = 0x3A64,
};

constexpr NamedId PidLidFileUnder{&PSETID_Address, 0x8005};
constexpr NamedId PidLidHtml{&PSETID_Address, 0x802B};
constexpr NamedId PidLidWorkAddressStreet{&PSETID_Address, 0x8045};
constexpr NamedId PidLidWorkAddressCity{&PSETID_Address, 0x8046};
constexpr NamedId PidLidWorkAddressState{&PSETID_Address, 0x8047};
constexpr NamedId PidLidWorkAddressPostalCode{&PSETID_Address, 0x8048};
constexpr NamedId PidLidWorkAddressCountry{&PSETID_Address, 0x8049};
constexpr NamedId PidLidWorkAddressPostOfficeBox{&PSETID_Address, 0x804A};
constexpr NamedId PidLidDistributionListName{&PSETID_Address, 0x8053};
constexpr NamedId PidLidDistributionListOneOffMembers{&PSETID_Address, 0x8054};
constexpr NamedId PidLidDistributionListMembers{&PSETID_Address, 0x8055};
constexpr NamedId PidLidEmail1EmailAddress{&PSETID_Address, 0x8083};
constexpr NamedId PidLidEmail1AddressType{&PSETID_Address, 0x8082};
constexpr NamedId PidLidEmail2EmailAddress{&PSETID_Address, 0x8093};
constexpr NamedId PidLidEmail2AddressType{&PSETID_Address, 0x8092};
constexpr NamedId PidLidEmail3EmailAddress{&PSETID_Address, 0x80A3};
constexpr NamedId PidLidEmail3AddressType{&PSETID_Address, 0x80A2};
constexpr NamedId PidLidBirthdayLocal{&PSETID_Address, 0x80DE};
constexpr NamedId PidLidWeddingAnniversaryLocal{&PSETID_Address, 0x80DF};

constexpr uint64_t kPhotoLimit = 16u << 20;  // bytes of a contact picture that are written

class Card {
  public:
    // A property line: name with its parameters, and the value as written (escaped or not).
    void line(std::string_view nameAndParams, std::string_view value) {
        std::string l = std::string(nameAndParams) + ":" + std::string(value);
        // Folded at 75 octets, never inside a UTF-8 sequence; a continuation starts with a
        // space.
        size_t start = 0;
        size_t limit = 75;
        while (l.size() - start > limit) {
            size_t cut = start + limit;
            while (cut > start && (static_cast<uint8_t>(l[cut]) & 0xC0) == 0x80) --cut;
            if (cut == start) cut = start + limit;  // no character start at all: not UTF-8
            out_.append(l, start, cut - start).append("\r\n ");
            start = cut;
            limit = 74;
        }
        out_.append(l, start, std::string::npos).append("\r\n");
    }
    void text(std::string_view nameAndParams, const std::optional<std::string>& v) {
        if (v && cleanText(*v).find_first_not_of(" \t\n") != std::string::npos)
            line(nameAndParams, escape(*v));
    }
    std::string done() { return out_ + "END:VCARD\r\n"; }

    static std::string escape(std::string_view v) {
        std::string out;
        for (const char c : cleanText(v)) {
            if (c == '\\' || c == ',' || c == ';') out.push_back('\\');
            if (c == '\n')
                out += "\\n";
            else
                out.push_back(c);
        }
        return out;
    }

  private:
    std::string out_ = "BEGIN:VCARD\r\nVERSION:4.0\r\n";
};

std::optional<std::string> tagText(const Entries& e, uint16_t id) {
    return textOf(findTag(e, id));
}

// A compound value (N, ADR, ORG): components escaped and joined by ';'; none when all are
// empty.
std::optional<std::string> compound(const std::vector<std::optional<std::string>>& parts) {
    std::string out;
    bool any = false;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 0) out.push_back(';');
        if (parts[i]) {
            const std::string e = Card::escape(*parts[i]);
            any = any || !e.empty();
            out += e;
        }
    }
    return any ? std::optional<std::string>(out) : std::nullopt;
}

std::string dateOf(int64_t minutes) {
    const Civil c = civilOfMinutes(minutes);
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04lld%02u%02u", static_cast<long long>(c.year), c.month,
                  c.day);
    return buf;
}

// A birthday or anniversary: the local date when the contact keeps it, else the stored
// time, which is local midnight in UTC: within half a day of the midnight of its date.
std::optional<std::string> dayOf(const Entries& e, NamedId local, uint16_t utc) {
    std::optional<int64_t> minutes;
    if (auto t = timeOf(findNamed(e, local)))
        minutes = minutesOf(*t);
    else if (auto u = timeOf(findTag(e, utc)))
        minutes = minutesOf(*u) + 12 * 60;
    if (!minutes || civilOfMinutes(*minutes).year > 9999) return std::nullopt;
    return dateOf(*minutes);
}

std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

std::string pictureType(const TnefAttachInfo& a, std::string_view bytes) {
    // The attachment's own type, when it is a plain image type and nothing else.
    const bool plain = a.mimeTag.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.+-/") ==
                       std::string::npos;
    if (a.mimeTag.rfind("image/", 0) == 0 && a.mimeTag.size() > 6 && plain) return a.mimeTag;
    if (bytes.substr(0, 3) == "\xFF\xD8\xFF") return "image/jpeg";
    if (bytes.substr(0, 8) == "\x89PNG\r\n\x1A\n") return "image/png";
    if (bytes.substr(0, 4) == "GIF8") return "image/gif";
    if (bytes.substr(0, 2) == "BM") return "image/bmp";
    return "application/octet-stream";
}

void addPhoto(Card& card, int fd, const TnefMessageView& view) {
    for (size_t i = 0; i < view.attachments.size() && i < view.attachmentProperties.size(); ++i) {
        const TnefAttachInfo& a = view.attachments[i];
        if (integerOf(findTag(view.attachmentProperties[i], PR_ATTACHMENT_CONTACTPHOTO))
                    .value_or(0) == 0 ||
            a.kind != TNEF_ATTACH_FILE || a.dataLength == 0 || a.dataLength > kPhotoLimit)
            continue;
        const std::string bytes = readRange(fd, a.dataOffset, a.dataLength, kPhotoLimit);
        card.line("PHOTO", "data:" + pictureType(a, bytes) + ";base64," + base64(bytes));
        return;
    }
}

struct OneOff {
    std::string name, type, address;
};

// A one-off entry identifier: a recipient written out in full (name, address type, address).
std::optional<OneOff> oneOff(std::string_view id) {
    static constexpr char kOneOffUid[] =
        "\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02";
    constexpr uint16_t kUnicode = 0x8000;
    if (id.size() < 24 || id.substr(4, 16) != std::string_view(kOneOffUid, 16)) return std::nullopt;
    const uint16_t flags =
        static_cast<uint16_t>(static_cast<uint8_t>(id[22]) | static_cast<uint8_t>(id[23]) << 8);
    std::string_view rest = id.substr(24);
    std::string fields[3];
    for (std::string& f : fields) {
        size_t end = 0;
        if (flags & kUnicode) {
            while (end + 1 < rest.size() && (rest[end] != 0 || rest[end + 1] != 0)) end += 2;
            if (end + 1 >= rest.size()) return std::nullopt;
            f = toUtf8(rest.substr(0, end), "UTF-16LE");
            rest.remove_prefix(end + 2);
        } else {
            end = rest.find('\0');
            if (end == std::string_view::npos) return std::nullopt;
            f = toUtf8(rest.substr(0, end), "CP1252");
            rest.remove_prefix(end + 1);
        }
    }
    return OneOff{fields[0], fields[1], fields[2]};
}

void addMembers(Card& card, int fd, const Entries& props, uint32_t* flags) {
    std::vector<std::string> ids =
        allBytesOf(fd, findNamed(props, PidLidDistributionListOneOffMembers), 1u << 16);
    if (ids.empty())
        ids = allBytesOf(fd, findNamed(props, PidLidDistributionListMembers), 1u << 16);
    for (const std::string& id : ids) {
        const std::optional<OneOff> m = oneOff(id);
        if (!m || !isAddress(m->address) || (m->type != "SMTP" && m->type != "smtp")) {
            *flags |= TNEF_CONVERT_NO_ADDRESS;
            continue;
        }
        card.line("MEMBER", "mailto:" + m->address);
    }
}

}  // namespace

TnefConverted toVCard(int fd, const TnefMessageView& view, std::string_view cls) {
    TnefConverted out;
    out.kind = TNEF_CONVERT_VCARD;
    out.component = "VCARD";
    const Entries& p = view.properties;
    const bool group = cls.size() >= 12 &&
                       (cls.substr(0, 12) == "IPM.DistList" || cls.substr(0, 12) == "ipm.distlist");
    Card card;
    if (group) card.line("KIND", "group");

    std::optional<std::string> fn = tagText(p, PR_DISPLAY_NAME);
    if (!fn && group) fn = textOf(findNamed(p, PidLidDistributionListName));
    if (!fn) fn = textOf(findNamed(p, PidLidFileUnder));
    if (!fn && !view.subject.empty()) fn = view.subject;
    // FN is the one property every card must have.
    card.line("FN", Card::escape(fn.value_or("")));

    if (group) {
        addMembers(card, fd, p, &out.flags);
    } else {
        const std::optional<std::string> n =
            compound({tagText(p, PR_SURNAME), tagText(p, PR_GIVEN_NAME), tagText(p, PR_MIDDLE_NAME),
                      tagText(p, PR_DISPLAY_NAME_PREFIX), tagText(p, PR_GENERATION)});
        if (n) card.line("N", *n);
        card.text("NICKNAME", tagText(p, PR_NICKNAME));

        // MAPI keeps no kind (home, work) for its three e-mail addresses: their order is the
        // preference.
        const std::pair<NamedId, NamedId> emails[] = {
            {PidLidEmail1EmailAddress, PidLidEmail1AddressType},
            {PidLidEmail2EmailAddress, PidLidEmail2AddressType},
            {PidLidEmail3EmailAddress, PidLidEmail3AddressType}};
        int pref = 1;
        for (const auto& [address, type] : emails) {
            const std::optional<std::string> a = textOf(findNamed(p, address));
            const std::string t = textOf(findNamed(p, type)).value_or("SMTP");
            if (!a) continue;
            if (!isAddress(*a) || (t != "SMTP" && t != "smtp")) {
                out.flags |= TNEF_CONVERT_NO_ADDRESS;
                continue;
            }
            card.line("EMAIL;PREF=" + std::to_string(pref++), Card::escape(*a));
        }

        struct Phone {
            uint16_t tag;
            const char* params;
        };
        static constexpr Phone kPhones[] = {
            {PR_PRIMARY_TELEPHONE_NUMBER, ";TYPE=voice;PREF=1"},
            {PR_BUSINESS_TELEPHONE_NUMBER, ";TYPE=work,voice"},
            {PR_BUSINESS2_TELEPHONE_NUMBER, ";TYPE=work,voice"},
            {PR_HOME_TELEPHONE_NUMBER, ";TYPE=home,voice"},
            {PR_HOME2_TELEPHONE_NUMBER, ";TYPE=home,voice"},
            {PR_MOBILE_TELEPHONE_NUMBER, ";TYPE=cell"},
            {PR_CAR_TELEPHONE_NUMBER, ";TYPE=voice"},
            {PR_OTHER_TELEPHONE_NUMBER, ";TYPE=voice"},
            {PR_PAGER_TELEPHONE_NUMBER, ";TYPE=pager"},
            {PR_BUSINESS_FAX_NUMBER, ";TYPE=work,fax"},
            {PR_HOME_FAX_NUMBER, ";TYPE=home,fax"},
        };
        for (const Phone& ph : kPhones)
            card.text(std::string("TEL;VALUE=text") + ph.params, tagText(p, ph.tag));

        // ADR: post office box, extended address, street, locality, region, code, country.
        auto namedText = [&](NamedId id) { return textOf(findNamed(p, id)); };
        auto pick = [](std::optional<std::string> a, std::optional<std::string> b) {
            return a ? a : b;
        };
        const std::optional<std::string> work = compound(
            {pick(namedText(PidLidWorkAddressPostOfficeBox), tagText(p, PR_POST_OFFICE_BOX)),
             std::nullopt, pick(namedText(PidLidWorkAddressStreet), tagText(p, PR_STREET_ADDRESS)),
             pick(namedText(PidLidWorkAddressCity), tagText(p, PR_LOCALITY)),
             pick(namedText(PidLidWorkAddressState), tagText(p, PR_STATE_OR_PROVINCE)),
             pick(namedText(PidLidWorkAddressPostalCode), tagText(p, PR_POSTAL_CODE)),
             pick(namedText(PidLidWorkAddressCountry), tagText(p, PR_COUNTRY))});
        if (work) card.line("ADR;TYPE=work", *work);
        const std::optional<std::string> home = compound(
            {tagText(p, PR_HOME_ADDRESS_POST_OFFICE_BOX), std::nullopt,
             tagText(p, PR_HOME_ADDRESS_STREET), tagText(p, PR_HOME_ADDRESS_CITY),
             tagText(p, PR_HOME_ADDRESS_STATE_OR_PROVINCE), tagText(p, PR_HOME_ADDRESS_POSTAL_CODE),
             tagText(p, PR_HOME_ADDRESS_COUNTRY)});
        if (home) card.line("ADR;TYPE=home", *home);
        const std::optional<std::string> other = compound(
            {tagText(p, PR_OTHER_ADDRESS_POST_OFFICE_BOX), std::nullopt,
             tagText(p, PR_OTHER_ADDRESS_STREET), tagText(p, PR_OTHER_ADDRESS_CITY),
             tagText(p, PR_OTHER_ADDRESS_STATE_OR_PROVINCE),
             tagText(p, PR_OTHER_ADDRESS_POSTAL_CODE), tagText(p, PR_OTHER_ADDRESS_COUNTRY)});
        if (other) card.line("ADR", *other);

        // ORG: the company, then the department when there is one.
        const std::optional<std::string> department = tagText(p, PR_DEPARTMENT_NAME);
        if (auto org = department ? compound({tagText(p, PR_COMPANY_NAME), department})
                                  : compound({tagText(p, PR_COMPANY_NAME)}))
            card.line("ORG", *org);
        card.text("TITLE", tagText(p, PR_TITLE));
        if (auto d = dayOf(p, PidLidBirthdayLocal, PR_BIRTHDAY)) card.line("BDAY", *d);
        if (auto d = dayOf(p, PidLidWeddingAnniversaryLocal, PR_WEDDING_ANNIVERSARY))
            card.line("ANNIVERSARY", *d);
        const std::pair<std::optional<std::string>, const char*> urls[] = {
            {tagText(p, PR_BUSINESS_HOME_PAGE), "URL;TYPE=work"},
            {tagText(p, PR_PERSONAL_HOME_PAGE), "URL;TYPE=home"},
            {textOf(findNamed(p, PidLidHtml)), "URL"}};
        for (const auto& [url, name] : urls)
            if (url && url->find_first_of(" \t\r\n\"<>") == std::string::npos)
                card.line(name, cleanText(*url));
        addPhoto(card, fd, view);
    }
    std::string note = cleanText(tnef_MessageBody(fd, view, TNEF_BODY_TEXT).text);
    while (!note.empty() && (note.back() == '\n' || note.back() == ' ')) note.pop_back();
    card.text("NOTE", note);
    if (auto t = timeOf(findTag(p, PR_LAST_MODIFICATION_TIME));
        t && civilOfMinutes(minutesOf(*t)).year <= 9999) {
        const Civil c = civilOfMinutes(minutesOf(*t));
        char buf[32];
        std::snprintf(buf, sizeof buf, "%04lld%02u%02uT%02u%02u00Z", static_cast<long long>(c.year),
                      c.month, c.day, c.hour, c.minute);
        card.line("REV", buf);
    }
    out.text = card.done();
    return out;
}

}  // namespace tnefconv
