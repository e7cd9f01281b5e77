// The entry of libtnef-convert: which conversion a message class calls for.
#include <cctype>

#include "convert_internal.h"

namespace {

// The class is the prefix itself or continues it after a dot ("IPM.Contact.Custom").
bool hasClassPrefix(std::string_view cls, std::string_view prefix) {
    if (cls.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(cls[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return cls.size() == prefix.size() || cls[prefix.size()] == '.';
}

}  // namespace

TnefConvertKind tnef_ConvertKindOf(std::string_view cls) {
    static constexpr const char* kCalendar[] = {"IPM.Schedule.Meeting.Request",
                                                "IPM.Schedule.Meeting.Canceled",
                                                "IPM.Schedule.Meeting.Resp",
                                                "IPM.Microsoft Schedule.MtgReq",
                                                "IPM.Microsoft Schedule.MtgCncl",
                                                "IPM.Microsoft Schedule.MtgRespP",
                                                "IPM.Microsoft Schedule.MtgRespN",
                                                "IPM.Microsoft Schedule.MtgRespA",
                                                "IPM.Appointment",
                                                "IPM.Task",
                                                "IPM.TaskRequest"};
    for (const char* prefix : kCalendar)
        if (hasClassPrefix(cls, prefix)) return TNEF_CONVERT_ICALENDAR;
    if (hasClassPrefix(cls, "IPM.Contact") || hasClassPrefix(cls, "IPM.DistList"))
        return TNEF_CONVERT_VCARD;
    return TNEF_CONVERT_NONE;
}

TnefConverted tnef_ConvertMessage(int fd, const TnefMessageView& view) {
    // PR_MESSAGE_CLASS names the class by its current name; the attribute may hold an older
    // one, which is read as well.
    std::string cls =
        tnefconv::textOf(tnefconv::findTag(view.properties, tnefconv::PR_MESSAGE_CLASS))
            .value_or(view.messageClass);
    if (tnef_ConvertKindOf(cls) == TNEF_CONVERT_NONE) cls = view.messageClass;
    switch (tnef_ConvertKindOf(cls)) {
        case TNEF_CONVERT_ICALENDAR:
            return tnefconv::toICalendar(fd, view, cls);
        case TNEF_CONVERT_VCARD:
            return tnefconv::toVCard(fd, view, cls);
        default:
            return {};
    }
}
