#include "tnef_decode/tnef_augment.h"

#include <array>
#include <cstring>
#include <memory>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/os_file.h"

namespace {

// A value text from the platform's lookups and builders.
using Text = std::unique_ptr<char, decltype(&mdc_free)>;
Text own(char* text) { return Text(text, &mdc_free); }

Text lookupNamed(const dstring* text, const TnefGuid& set, uint32_t lid, uint16_t* type) {
    return own(mapi_getValueFor_guidf_num(dstring_str(text), set.data(), lid, type));
}

Text encoded(const void* bytes, size_t length) {
    dstring out;
    mapi_BlobEncodeToDstring(bytes, length, &out);
    return own(mapi_DupText(out.text.data(), out.text.size()));
}

// Owners of the two platform structures, so an escape passing through frees them.
struct GoidOwner {
    MAPI_GLOBAL_OBJECT_ID id;
    GoidOwner() { mapi_init_MAPI_GLOBAL_OBJECT_ID(&id); }
    ~GoidOwner() { mapi_free_MAPI_GLOBAL_OBJECT_ID(&id); }
    GoidOwner(const GoidOwner&) = delete;
    GoidOwner& operator=(const GoidOwner&) = delete;
};

struct RecurrenceOwner {
    WM_RECURRENCE_PROPS props;
    RecurrenceOwner() { mapi_init_WM_RECURRENCE_PROPS(&props); }
    ~RecurrenceOwner() { mapi_free_WM_RECURRENCE_PROPS(&props); }
    RecurrenceOwner(const RecurrenceOwner&) = delete;
    RecurrenceOwner& operator=(const RecurrenceOwner&) = delete;
};

// The legacy recurrence values, in the order the recurrence values hold them.
struct LegacyValue {
    const TnefGuid* set;
    uint32_t lid;
    char* WM_RECURRENCE_PROPS::*member;
};
constexpr LegacyValue kLegacyValues[] = {
    {&PSETID_Meeting, PidLidStartRecurrenceDate, &WM_RECURRENCE_PROPS::startRecurDate},
    {&PSETID_Meeting, PidLidStartRecurrenceTime, &WM_RECURRENCE_PROPS::startRecurTime},
    {&PSETID_Meeting, PidLidEndRecurrenceDate, &WM_RECURRENCE_PROPS::endRecurDate},
    {&PSETID_Meeting, PidLidEndRecurrenceTime, &WM_RECURRENCE_PROPS::endRecurTime},
    {&PSETID_Meeting, PidLidDayInterval, &WM_RECURRENCE_PROPS::dayInterval},
    {&PSETID_Meeting, PidLidWeekInterval, &WM_RECURRENCE_PROPS::weekInterval},
    {&PSETID_Meeting, PidLidMonthInterval, &WM_RECURRENCE_PROPS::monthInterval},
    {&PSETID_Meeting, PidLidYearInterval, &WM_RECURRENCE_PROPS::yearInterval},
    {&PSETID_Meeting, PidLidDayOfWeekMask, &WM_RECURRENCE_PROPS::dayOfWeekMask},
    {&PSETID_Meeting, PidLidDayOfMonthMask, &WM_RECURRENCE_PROPS::dayOfMonthMask},
    {&PSETID_Meeting, PidLidMonthOfYearMask, &WM_RECURRENCE_PROPS::monthOfYearMask},
    {&PSETID_Appointment, PidLidAppointmentSubType, &WM_RECURRENCE_PROPS::allDay},
};

// One group of writes in one property set.
class Writer {
public:
    Writer(dstring* text, uint8_t* slot, const TnefGuid& set) : text_(text), slot_(slot) {
        mapi_init_BV_MAPI_PROP_ID(&id_, set.data());
    }
    void add(uint32_t lid, uint16_t type, const char* value) {
        at(lid, type);
        tnef_AugmentAddEntry(text_, value, &id_, slot_);
    }
    void replace(uint32_t lid, uint16_t type, const char* value) {
        if (value == nullptr) return;
        at(lid, type);
        mapi_replacePropInBlobD(text_, &id_, value);
    }

private:
    void at(uint32_t lid, uint16_t type) {
        id_.lid = lid;
        id_.type = type;
    }
    dstring* text_;
    uint8_t* slot_;
    BV_MAPI_PROP_ID id_;
};

bool isExceptionMonth(uint8_t month) { return month >= 1 && month <= 12; }

// The zone the recurrence builders read the legacy values in: the number's structure when
// the text had none, else the text's own structure when it holds exactly 48 bytes.
bool zoneFromText(const char* text, std::array<uint8_t, MAPI_TIMEZONE_DATA_SIZE>& zone) {
    dstring bytes;
    mapi_BlobDecodeToDstring(text, std::strlen(text), &bytes);
    if (bytes.text.size() != zone.size()) return false;
    std::memcpy(zone.data(), bytes.text.data(), zone.size());
    return true;
}

}  // namespace

void tnef_AugmentAddEntry(dstring* text, const char* value, const BV_MAPI_PROP_ID* id,
                          uint8_t* lastSetSlot) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AugmentAddEntry");
    if (value == nullptr) return;
    if (Text existing = own(mapi_getValueForBV_MAPI_PROP_ID(dstring_str(text), id))) return;

    const bool named = id->guid[0] != '\0';
    char lastSet[MAPI_GUID_TEXT_SIZE] = "";
    if (named && lastSetSlot != nullptr) mapi_Guid2String(lastSetSlot, lastSet);
    dstring key;
    if (!mapi_BV_MAPI_PROP_ID_to_blobId(id, lastSet, &key)) return;
    dstring_appendN(text, key.text.data(), key.text.size());
    dstring_appendChar(text, BLOB_VALUE_SEP);
    dstring_append1(text, value);
    dstring_appendChar(text, BLOB_ENTRY_SEP);
    if (named && lastSetSlot != nullptr) {
        uint8_t set[16];
        dstring why;
        if (mapi_string_to_MAPI_GUID(lastSet, set, &why)) std::memcpy(lastSetSlot, set, 16);
    }
}

void tnef_AugmentMAPIProps(dstring* mainText, uint8_t* lastSetSlot, uint32_t* recurrenceFlag) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AugmentMAPIProps");
    const char* text = dstring_str(mainText);

    // 1. The global object identifier; one that does not decode counts as absent, so no
    //    recurrence or clean identifier is derived from bytes of unknown meaning.
    GoidOwner goid;
    bool haveGoid = false;
    bool exception = false;
    if (Text goidText = lookupNamed(mainText, PSETID_Meeting, PidLidGlobalObjectId, nullptr)) {
        dstring bytes;
        mapi_BlobDecodeToDstring(goidText.get(), std::strlen(goidText.get()), &bytes);
        haveGoid = mapi_raw_GlobalObjectIdToStruc(
            reinterpret_cast<const uint8_t*>(bytes.text.data()), bytes.text.size(), &goid.id);
        exception = haveGoid && isExceptionMonth(goid.id.month);
    }

    // 2. Start, end, location and the legacy time zone number.
    RecurrenceOwner recur;
    recur.props.startDate = mapi_getValueFor_id(text, PROP_ID(PR_START_DATE), 0);
    recur.props.endDate = mapi_getValueFor_id(text, PROP_ID(PR_END_DATE), 0);
    uint16_t locationType = PT_STRING8;
    Text location = lookupNamed(mainText, PSETID_Meeting, PidLidWhere, &locationType);
    Text tzNumText = lookupNamed(mainText, PSETID_Meeting, PidLidTimeZone, nullptr);

    // 3. Time zone structure and recurrence.
    Text tzDataText = own(nullptr);
    const char* tzName = nullptr;
    bool descriptionMissing = false;
    Text recurBlob = own(nullptr);
    Text built = own(nullptr);
    Text recurBase = own(nullptr);
    if (tzNumText) {
        const uint32_t tzNum = mdc_strtoul(tzNumText.get(), nullptr, 16);
        std::array<uint8_t, MAPI_TIMEZONE_DATA_SIZE> zone{};
        bool haveZone = false;
        if (Text tzStruct = lookupNamed(mainText, PSETID_Appointment, PidLidTimeZoneStruct, nullptr)) {
            haveZone = zoneFromText(tzStruct.get(), zone);
        } else {
            descriptionMissing =
                !lookupNamed(mainText, PSETID_Appointment, PidLidTimeZoneDescription, nullptr);
            if (mapi_raw_timezone_data_from_tzNum(tzNum, zone.data())) {
                haveZone = true;
                tzDataText = encoded(zone.data(), zone.size());
                tzName = mapi_tzNum_toIcalTZID(tzNum);
            }
        }
        if (haveGoid) {
            recurBlob = lookupNamed(mainText, PSETID_Appointment, PidLidAppointmentRecur, nullptr);
            if (!recurBlob) {
                for (const LegacyValue& v : kLegacyValues)
                    recur.props.*v.member = mapi_getValueFor_guidf_num(text, v.set->data(), v.lid,
                                                                       nullptr);
                const uint8_t* zoneData = haveZone ? zone.data() : nullptr;
                if (!exception)
                    built = own(mapi_PropFromWmRecurrenceProps(&recur.props, zoneData));
                else
                    recurBase = own(mapi_RecurrenceBaseFromWmRecurrenceProps(&recur.props,
                                                                             zoneData, &goid.id));
            }
        }
    }

    // 4. PSETID_Appointment. The replacements of the clip times come before the additions
    //    from PR_START_DATE and PR_END_DATE, which never overwrite.
    Writer appointment(mainText, lastSetSlot, PSETID_Appointment);
    if (tzDataText) {
        appointment.add(PidLidTimeZoneStruct, PT_BINARY, tzDataText.get());
        if (descriptionMissing && tzName != nullptr)
            appointment.add(PidLidTimeZoneDescription, PT_STRING8,
                            encoded(tzName, std::strlen(tzName)).get());
    }
    if (built) {
        appointment.add(PidLidAppointmentRecur, PT_BINARY, built.get());
        char type[MAPI_LONG_TEXT_SIZE];
        appointment.replace(PidLidRecurrenceType, PT_LONG,
                            mapi_BlobValueForPT_LONG(recur.props.recurrenceType, type));
        appointment.replace(PidLidClipStart, PT_SYSTIME, recur.props.clipStart);
        appointment.replace(PidLidClipEnd, PT_SYSTIME, recur.props.clipEnd);
    }
    if (location) appointment.add(PidLidLocation, locationType, location.get());
    appointment.add(PidLidAppointmentStartWhole, PT_SYSTIME, recur.props.startDate);
    appointment.add(PidLidClipStart, PT_SYSTIME, recur.props.startDate);
    appointment.add(PidLidAppointmentEndWhole, PT_SYSTIME, recur.props.endDate);
    appointment.add(PidLidClipEnd, PT_SYSTIME, recur.props.endDate);

    // 5. PSETID_Meeting.
    Writer meeting(mainText, lastSetSlot, PSETID_Meeting);
    if (exception) meeting.add(LID_MEETING_RECURRENCE_BASE, PT_SYSTIME, recurBase.get());
    if (haveGoid) {
        goid.id.year = 0;
        goid.id.month = 0;
        goid.id.day = 0;
        dstring clean;
        if (mapi_raw_GlobalObjectIdFromStruc(&goid.id, &clean))
            meeting.add(PidLidCleanGlobalObjectId, PT_BINARY,
                        encoded(clean.text.data(), clean.text.size()).get());
    }

    // 6. PSETID_Common.
    Writer common(mainText, lastSetSlot, PSETID_Common);
    common.add(PidLidCommonStart, PT_SYSTIME, recur.props.startDate);
    common.add(PidLidCommonEnd, PT_SYSTIME, recur.props.endDate);

    // 7. The flag tells the caller the message is a recurring one.
    if (recurrenceFlag != nullptr) *recurrenceFlag = recurBlob || built ? 1 : 0;
}
