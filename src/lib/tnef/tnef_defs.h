// Attribute identifiers, property tags, property types, property sets and buffer limits of
// the TNEF codec, each under its published name. Every unit takes its numbers from here.
#pragma once

#include <array>
#include <cstdint>

// ---- Stream --------------------------------------------------------------------------------
inline constexpr uint32_t TNEF_SIGNATURE = 0x223E9F78;
inline constexpr uint16_t TNEF_KEY = 0x04D2;  // written by us; read keys pass through
inline constexpr uint8_t LVL_MESSAGE = 1;
inline constexpr uint8_t LVL_ATTACHMENT = 2;
inline constexpr uint32_t TNEF_VERSION_VALUE = 0x00010000;
inline constexpr uint32_t TNEF_DEFAULT_CODEPAGE = 437;

// ---- Attributes ----------------------------------------------------------------------------
inline constexpr uint32_t attSubject = 0x00018004;
inline constexpr uint32_t attBody = 0x0002800C;
inline constexpr uint32_t attRequestRes = 0x00040009;
inline constexpr uint32_t attPriority = 0x0004800D;
inline constexpr uint32_t attAidOwner = 0x00050008;
inline constexpr uint32_t attMessageClass = 0x00078008;
inline constexpr uint32_t attTnefVersion = 0x00089006;
inline constexpr uint32_t attOemCodepage = 0x00069007;
inline constexpr uint32_t attMAPIProps = 0x00069003;
inline constexpr uint32_t attRecipTable = 0x00069004;
inline constexpr uint32_t attAttachRenddata = 0x00069002;
inline constexpr uint32_t attAttachTitle = 0x00018010;
inline constexpr uint32_t attAttachData = 0x0006800F;
inline constexpr uint32_t attAttachMetaFile = 0x00068011;
inline constexpr uint32_t attAttachCreateDate = 0x00038012;
inline constexpr uint32_t attAttachModifyDate = 0x00038013;
inline constexpr uint32_t attAttachTransportFilename = 0x00069001;
inline constexpr uint32_t attAttachment = 0x00069005;

// ---- Property types ------------------------------------------------------------------------
inline constexpr uint16_t PT_UNSPECIFIED = 0x0000;
inline constexpr uint16_t PT_NULL = 0x0001;
inline constexpr uint16_t PT_I2 = 0x0002;
inline constexpr uint16_t PT_LONG = 0x0003;
inline constexpr uint16_t PT_R4 = 0x0004;
inline constexpr uint16_t PT_DOUBLE = 0x0005;
inline constexpr uint16_t PT_CURRENCY = 0x0006;
inline constexpr uint16_t PT_APPTIME = 0x0007;
inline constexpr uint16_t PT_ERROR = 0x000A;
inline constexpr uint16_t PT_BOOLEAN = 0x000B;
inline constexpr uint16_t PT_OBJECT = 0x000D;
inline constexpr uint16_t PT_I8 = 0x0014;
inline constexpr uint16_t PT_STRING8 = 0x001E;
inline constexpr uint16_t PT_UNICODE = 0x001F;
inline constexpr uint16_t PT_SYSTIME = 0x0040;
inline constexpr uint16_t PT_CLSID = 0x0048;
inline constexpr uint16_t PT_BINARY = 0x0102;
inline constexpr uint16_t MV_FLAG = 0x1000;
inline constexpr uint16_t PT_MV_I2 = MV_FLAG | PT_I2;
inline constexpr uint16_t PT_MV_LONG = MV_FLAG | PT_LONG;
inline constexpr uint16_t PT_MV_R4 = MV_FLAG | PT_R4;
inline constexpr uint16_t PT_MV_DOUBLE = MV_FLAG | PT_DOUBLE;
inline constexpr uint16_t PT_MV_CURRENCY = MV_FLAG | PT_CURRENCY;
inline constexpr uint16_t PT_MV_APPTIME = MV_FLAG | PT_APPTIME;
inline constexpr uint16_t PT_MV_I8 = MV_FLAG | PT_I8;
inline constexpr uint16_t PT_MV_SYSTIME = MV_FLAG | PT_SYSTIME;
inline constexpr uint16_t PT_MV_CLSID = MV_FLAG | PT_CLSID;
inline constexpr uint16_t PT_MV_STRING8 = MV_FLAG | PT_STRING8;
inline constexpr uint16_t PT_MV_UNICODE = MV_FLAG | PT_UNICODE;
inline constexpr uint16_t PT_MV_BINARY = MV_FLAG | PT_BINARY;

constexpr uint16_t PROP_TYPE(uint32_t tag) { return static_cast<uint16_t>(tag & 0xFFFF); }
constexpr uint16_t PROP_ID(uint32_t tag) { return static_cast<uint16_t>(tag >> 16); }
constexpr uint32_t PROP_TAG(uint16_t type, uint16_t id) {
    return (static_cast<uint32_t>(id) << 16) | type;
}
inline constexpr uint16_t NAMED_PROP_FIRST_ID = 0x8000;
inline constexpr uint16_t NAMED_PROP_LAST_ID = 0xFFFE;  // 0xFFFF is never given

// ---- Property tags -------------------------------------------------------------------------
inline constexpr uint32_t PR_AUTO_FORWARDED = 0x0005000B;
inline constexpr uint32_t PR_DEFERRED_DELIVERY_TIME = 0x000F0040;
inline constexpr uint32_t PR_EXPIRY_TIME = 0x00150040;
inline constexpr uint32_t PR_IMPORTANCE = 0x00170003;
inline constexpr uint32_t PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED = 0x0023000B;
inline constexpr uint32_t PR_READ_RECEIPT_REQUESTED = 0x0029000B;
inline constexpr uint32_t PR_REPLY_TIME = 0x00300040;
inline constexpr uint32_t PR_SENSITIVITY = 0x00360003;
inline constexpr uint32_t PR_SUBJECT = 0x0037001E;
inline constexpr uint32_t PR_SENT_REPRESENTING_SEARCH_KEY = 0x003B0102;
inline constexpr uint32_t PR_SENT_REPRESENTING_ENTRYID = 0x00410102;
inline constexpr uint32_t PR_SENT_REPRESENTING_NAME = 0x0042001E;
inline constexpr uint32_t PR_MESSAGE_SUBMISSION_ID = 0x00470102;
inline constexpr uint32_t PR_REPLY_RECIPIENT_ENTRIES = 0x004F0102;
inline constexpr uint32_t PR_OWNER_APPT_ID = 0x00620003;
inline constexpr uint32_t PR_RESPONSE_REQUESTED = 0x0063000B;
inline constexpr uint32_t PR_SENT_REPRESENTING_ADDRTYPE = 0x0064001E;
inline constexpr uint32_t PR_SENT_REPRESENTING_EMAIL_ADDRESS = 0x0065001E;
inline constexpr uint32_t PR_REPLY_REQUESTED = 0x0C17000B;
inline constexpr uint32_t PR_SENDER_EMAIL_ADDRESS = 0x0C1F001E;
inline constexpr uint32_t PR_MESSAGE_RECIPIENTS = 0x0E12000D;
inline constexpr uint32_t PR_MESSAGE_ATTACHMENTS = 0x0E13000D;
inline constexpr uint32_t PR_RECORD_KEY = 0x0FF90102;
inline constexpr uint32_t PR_RTF_SYNC_BODY_CRC = 0x10060003;
inline constexpr uint32_t PR_RTF_SYNC_BODY_COUNT = 0x10070003;
inline constexpr uint32_t PR_RTF_SYNC_BODY_TAG = 0x1008001E;
inline constexpr uint32_t PR_RTF_COMPRESSED = 0x10090102;
inline constexpr uint32_t PR_RTF_SYNC_PREFIX_COUNT = 0x10100003;
inline constexpr uint32_t PR_RTF_SYNC_TRAILING_COUNT = 0x10110003;
inline constexpr uint32_t PR_DISPLAY_NAME = 0x3001001E;
inline constexpr uint32_t PR_CREATION_TIME = 0x30070040;
inline constexpr uint32_t PR_ATTACH_DATA_OBJ = 0x3701000D;
inline constexpr uint32_t PR_ATTACH_DATA_BIN = 0x37010102;
inline constexpr uint32_t PR_ATTACH_FILENAME = 0x3704001E;
inline constexpr uint32_t PR_ATTACH_LONG_FILENAME = 0x3707001E;

// ---- Property sets (binary form: first field and the next two little-endian) --------------
using TnefGuid = std::array<uint8_t, 16>;  // also declared, identically, by tnef_reader.h
inline constexpr TnefGuid PS_PUBLIC_STRINGS = {0x29, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                               0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Common = {0x08, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                           0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Appointment = {0x02, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Meeting = {0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10,
                                            0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05};
inline constexpr uint32_t MNID_ID = 0;
inline constexpr uint32_t MNID_STRING = 1;

// ---- Buffers and limits --------------------------------------------------------------------
inline constexpr uint32_t TNEF_TEXT_CAPACITY = 4080;     // texts and scratch buffers
inline constexpr uint32_t TNEF_NAME_CAPACITY = 257;      // attachment names
inline constexpr uint32_t TNEF_COPY_CHUNK = 8192;        // copy loops
inline constexpr uint32_t TNEF_CHARSET_CAPACITY = 40;    // character set names

// Source units named in escapes.
inline constexpr const char* TNEF_UNIT_DECODE = "src/lib/tnef/tnef_decode";
inline constexpr const char* TNEF_UNIT_ENCODE = "src/lib/tnef/tnef_encode";
inline constexpr const char* TNEF_UNIT_PROP = "src/lib/tnef/tnef_prop";
inline constexpr const char* TNEF_UNIT_SCAN = "src/lib/tnef/tnef_scan";
inline constexpr const char* TNEF_UNIT_READ = "src/lib/tnef/tnef_read";
inline constexpr const char* TNEF_UNIT_BODY = "src/lib/tnef/tnef_body";

// Trace classes.
inline constexpr int TNEF_TRACE_CLASS = 15;
inline constexpr int TNEF_TRACE_CLASS_PROP = 17;
inline constexpr int TNEF_TRACE_CLASS_SCAN = 17;
