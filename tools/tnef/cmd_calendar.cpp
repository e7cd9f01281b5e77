// calendar and contact: a meeting, appointment or task as an .ics file, a contact or
// distribution list as a .vcf file, for the calendar and address-book programs of people
// who received them as a winmail.dat.

#include <unistd.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "converted.h"
#include "tnef/platform/er_escape.h"
#include "tnef/tnef_convert.h"
#include "tool.h"

namespace {

constexpr FlagText kConvertWarnings[] = {
    {TNEF_CONVERT_BAD_RECURRENCE, "the recurrence pattern cannot be read: the series is left out"},
    {TNEF_CONVERT_EXCEPTIONS_CUT, "the recurrence pattern holds fewer changed instances than it announces"},
    {TNEF_CONVERT_BAD_TIMEZONE, "the time zone cannot be read: times are given in UTC"},
    {TNEF_CONVERT_NO_ORGANIZER, "no address for the organizer"},
    {TNEF_CONVERT_NO_ADDRESS, "a person without an e-mail address is left out"},
    {TNEF_CONVERT_NO_START, "the event has no start time"},
    {TNEF_CONVERT_UNSUPPORTED, "a series on a calendar other than the Gregorian one is left out"},
};

// The message itself, else its embedded messages depth first: the first that converts to
// the kind asked.
const TnefMessageView* findItem(const TnefMessageView& view, TnefConvertKind kind) {
    if (tnef_ConvertKindOf(view.messageClass) == kind) return &view;
    for (const TnefPropEntry& e : view.properties)
        if (!e.prop.named && e.prop.id == 0x001A && !e.texts.empty() &&
            tnef_ConvertKindOf(e.texts.front()) == kind)
            return &view;
    for (const TnefMessageView& inner : view.embedded)
        if (const TnefMessageView* found = findItem(inner, kind)) return found;
    return nullptr;
}

void collect(int fd, const TnefMessageView& view, std::vector<ConvertedFile>* out) {
    const TnefConverted c = tnef_ConvertMessage(fd, view);
    if (c.kind != TNEF_CONVERT_NONE)
        out->push_back({c.kind == TNEF_CONVERT_ICALENDAR ? "invite.ics" : "contact.vcf",
                        c.kind == TNEF_CONVERT_ICALENDAR ? "text/calendar" : "text/vcard", c.text,
                        flagTexts(c.flags, kConvertWarnings)});
    // A task request's calendar is made of the task it carries.
    if (view.messageClass.rfind("IPM.TaskRequest", 0) == 0) return;
    for (const TnefMessageView& inner : view.embedded) collect(fd, inner, out);
}

int convert(const GlobalOptions& g, const ParsedArgs& p, const char* command, TnefConvertKind kind) {
    if (g.json && !p.has("-o")) return usageError(command, std::string("--json needs -o OUT"));
    const std::string& file = p.operands[0];
    const int fd = openInput(file);
    if (fd < 0) return kExitError;
    TnefConverted c;
    const TnefMessageView* item = nullptr;
    TnefMessageView view;
    try {
        tnef_ReadMessage(fd, &view);
        item = findItem(view, kind);
        if (item != nullptr) c = tnef_ConvertMessage(fd, *item);
        ::close(fd);
    } catch (const Escape& e) {
        ::close(fd);
        if (g.json) writeOut(nlohmann::json({{"file", file}, {"error", escapeLine(e)}}).dump() + "\n");
        reportEscape(file, e);
        return kExitError;
    }
    if (c.kind != kind) {
        reportError(file, kind == TNEF_CONVERT_ICALENDAR
                              ? "no meeting, appointment or task in this message"
                              : "no contact or distribution list in this message");
        if (g.json)
            writeOut(nlohmann::json({{"file", file}, {"component", nullptr}}).dump() + "\n");
        return kExitNotFound;
    }
    std::vector<std::string> warnings = readWarnings(view.flags);
    for (std::string& w : flagTexts(c.flags, kConvertWarnings)) warnings.push_back(std::move(w));
    if (!passWarnings(g, file, warnings)) return kExitError;
    const bool toFile = p.has("-o");
    if (toFile && !writeWholeFile(p.get("-o"), c.text)) return kExitError;
    if (!g.json) return toFile || writeOut(c.text) ? kExitOk : kExitError;
    nlohmann::json report = {{"file", file},       {"component", c.component},
                             {"depth", item->depth}, {"bytes", c.text.size()},
                             {"output", p.get("-o")}, {"warnings", warnings}};
    if (kind == TNEF_CONVERT_ICALENDAR) report["method"] = c.method;
    return writeOut(report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n")
               ? kExitOk
               : kExitError;
}

}  // namespace

std::vector<ConvertedFile> tool_ConvertedFiles(int fd) {
    TnefMessageView view;
    tnef_ReadMessage(fd, &view);
    std::vector<ConvertedFile> out;
    collect(fd, view, &out);
    return out;
}

namespace {

int cmdCalendar(const GlobalOptions& g, const ParsedArgs& p) {
    return convert(g, p, "calendar", TNEF_CONVERT_ICALENDAR);
}

int cmdContact(const GlobalOptions& g, const ParsedArgs& p) {
    return convert(g, p, "contact", TNEF_CONVERT_VCARD);
}

}  // namespace

const CommandSpec kCalendarCommand = {
    "calendar", "FILE", 1, 1,
    "a meeting, appointment or task as iCalendar (.ics)",
    "Writes the meeting request, cancellation or reply, appointment or task of a TNEF file (or\n"
    "of the first embedded message that is one) as iCalendar: times in the sender's time zone,\n"
    "the series and its changed instances, organizer and attendees by address. Exit status 1 when\n"
    "the message is none of these.\n"
    "\n"
    "With --json: {\"file\",\"method\",\"component\",\"depth\",\"bytes\",\"output\",\"warnings\"}; the calendar\n"
    "goes to OUT (required with --json).",
    {
        {"-o", "OUT.ics", "write the calendar to OUT instead of standard output"},
    },
    cmdCalendar,
};

const CommandSpec kContactCommand = {
    "contact", "FILE", 1, 1,
    "a contact or distribution list as vCard (.vcf)",
    "Writes the contact or distribution list of a TNEF file (or of the first embedded message\n"
    "that is one) as a vCard 4.0. Exit status 1 when the message is neither.\n"
    "\n"
    "With --json: {\"file\",\"component\",\"depth\",\"bytes\",\"output\",\"warnings\"}; the card goes to OUT\n"
    "(required with --json).",
    {
        {"-o", "OUT.vcf", "write the card to OUT instead of standard output"},
    },
    cmdContact,
};
