// Published names of MAPI property tags, property types, property sets and named
// properties, for people reading a file. Each table is sorted by its key, so a lookup is a
// binary search; the test of this unit checks the order.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>

#include "tnef/tnef_reader.h"
#include "tnef_read/tnef_names.h"

namespace {

constexpr uint16_t kMvFlag = 0x1000;
constexpr uint16_t kString8 = 0x001E;
constexpr uint16_t kUnicode = 0x001F;

constexpr TnefPropNameEntry kPropNames[] = {
    {0x00010003, "PR_ACKNOWLEDGEMENT_MODE"},
    {0x0002000B, "PR_ALTERNATE_RECIPIENT_ALLOWED"},
    {0x00030102, "PR_AUTHORIZING_USERS"},
    {0x0004001E, "PR_AUTO_FORWARD_COMMENT"},
    {0x0005000B, "PR_AUTO_FORWARDED"},
    {0x00060102, "PR_CONTENT_CONFIDENTIALITY_ALGORITHM_ID"},
    {0x00070102, "PR_CONTENT_CORRELATOR"},
    {0x0008001E, "PR_CONTENT_IDENTIFIER"},
    {0x00090003, "PR_CONTENT_LENGTH"},
    {0x000A000B, "PR_CONTENT_RETURN_REQUESTED"},
    {0x000B0102, "PR_CONVERSATION_KEY"},
    {0x000C0102, "PR_CONVERSION_EITS"},
    {0x000D000B, "PR_CONVERSION_WITH_LOSS_PROHIBITED"},
    {0x000E0102, "PR_CONVERTED_EITS"},
    {0x000F0040, "PR_DEFERRED_DELIVERY_TIME"},
    {0x00100040, "PR_DELIVER_TIME"},
    {0x00110003, "PR_DISCARD_REASON"},
    {0x0012000B, "PR_DISCLOSURE_OF_RECIPIENTS"},
    {0x00130102, "PR_DL_EXPANSION_HISTORY"},
    {0x0014000B, "PR_DL_EXPANSION_PROHIBITED"},
    {0x00150040, "PR_EXPIRY_TIME"},
    {0x0016000B, "PR_IMPLICIT_CONVERSION_PROHIBITED"},
    {0x00170003, "PR_IMPORTANCE"},
    {0x00180102, "PR_IPM_ID"},
    {0x00190040, "PR_LATEST_DELIVERY_TIME"},
    {0x001A001E, "PR_MESSAGE_CLASS"},
    {0x001B0102, "PR_MESSAGE_DELIVERY_ID"},
    {0x001E0102, "PR_MESSAGE_SECURITY_LABEL"},
    {0x001F0102, "PR_OBSOLETED_IPMS"},
    {0x00200102, "PR_ORIGINALLY_INTENDED_RECIPIENT_NAME"},
    {0x00210102, "PR_ORIGINAL_EITS"},
    {0x00220102, "PR_ORIGINATOR_CERTIFICATE"},
    {0x0023000B, "PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED"},
    {0x00240102, "PR_ORIGINATOR_RETURN_ADDRESS"},
    {0x00250102, "PR_PARENT_KEY"},
    {0x00260003, "PR_PRIORITY"},
    {0x00270102, "PR_ORIGIN_CHECK"},
    {0x0028000B, "PR_PROOF_OF_SUBMISSION_REQUESTED"},
    {0x0029000B, "PR_READ_RECEIPT_REQUESTED"},
    {0x002A0040, "PR_RECEIPT_TIME"},
    {0x002B000B, "PR_RECIPIENT_REASSIGNMENT_PROHIBITED"},
    {0x002C0102, "PR_REDIRECTION_HISTORY"},
    {0x002D0102, "PR_RELATED_IPMS"},
    {0x002E0003, "PR_ORIGINAL_SENSITIVITY"},
    {0x002F001E, "PR_LANGUAGES"},
    {0x00300040, "PR_REPLY_TIME"},
    {0x00310102, "PR_REPORT_TAG"},
    {0x00320040, "PR_REPORT_TIME"},
    {0x0033000B, "PR_RETURNED_IPM"},
    {0x00340003, "PR_SECURITY"},
    {0x0035000B, "PR_INCOMPLETE_COPY"},
    {0x00360003, "PR_SENSITIVITY"},
    {0x0037001E, "PR_SUBJECT"},
    {0x00380102, "PR_SUBJECT_IPM"},
    {0x00390040, "PR_CLIENT_SUBMIT_TIME"},
    {0x003A001E, "PR_REPORT_NAME"},
    {0x003B0102, "PR_SENT_REPRESENTING_SEARCH_KEY"},
    {0x003C0102, "PR_X400_CONTENT_TYPE"},
    {0x003D001E, "PR_SUBJECT_PREFIX"},
    {0x003E0003, "PR_NON_RECEIPT_REASON"},
    {0x003F0102, "PR_RECEIVED_BY_ENTRYID"},
    {0x0040001E, "PR_RECEIVED_BY_NAME"},
    {0x00410102, "PR_SENT_REPRESENTING_ENTRYID"},
    {0x0042001E, "PR_SENT_REPRESENTING_NAME"},
    {0x00430102, "PR_RCVD_REPRESENTING_ENTRYID"},
    {0x0044001E, "PR_RCVD_REPRESENTING_NAME"},
    {0x00450102, "PR_REPORT_ENTRYID"},
    {0x00460102, "PR_READ_RECEIPT_ENTRYID"},
    {0x00470102, "PR_MESSAGE_SUBMISSION_ID"},
    {0x00480040, "PR_PROVIDER_SUBMIT_TIME"},
    {0x0049001E, "PR_ORIGINAL_SUBJECT"},
    {0x004A000B, "PR_DISC_VAL"},
    {0x004B001E, "PR_ORIG_MESSAGE_CLASS"},
    {0x004C0102, "PR_ORIGINAL_AUTHOR_ENTRYID"},
    {0x004D001E, "PR_ORIGINAL_AUTHOR_NAME"},
    {0x004E0040, "PR_ORIGINAL_SUBMIT_TIME"},
    {0x004F0102, "PR_REPLY_RECIPIENT_ENTRIES"},
    {0x0050001E, "PR_REPLY_RECIPIENT_NAMES"},
    {0x00510102, "PR_RECEIVED_BY_SEARCH_KEY"},
    {0x00520102, "PR_RCVD_REPRESENTING_SEARCH_KEY"},
    {0x00530102, "PR_READ_RECEIPT_SEARCH_KEY"},
    {0x00540102, "PR_REPORT_SEARCH_KEY"},
    {0x00550040, "PR_ORIGINAL_DELIVERY_TIME"},
    {0x00560102, "PR_ORIGINAL_AUTHOR_SEARCH_KEY"},
    {0x0057000B, "PR_MESSAGE_TO_ME"},
    {0x0058000B, "PR_MESSAGE_CC_ME"},
    {0x0059000B, "PR_MESSAGE_RECIP_ME"},
    {0x005A001E, "PR_ORIGINAL_SENDER_NAME"},
    {0x005B0102, "PR_ORIGINAL_SENDER_ENTRYID"},
    {0x005C0102, "PR_ORIGINAL_SENDER_SEARCH_KEY"},
    {0x005D001E, "PR_ORIGINAL_SENT_REPRESENTING_NAME"},
    {0x005E0102, "PR_ORIGINAL_SENT_REPRESENTING_ENTRYID"},
    {0x005F0102, "PR_ORIGINAL_SENT_REPRESENTING_SEARCH_KEY"},
    {0x00600040, "PR_START_DATE"},
    {0x00610040, "PR_END_DATE"},
    {0x00620003, "PR_OWNER_APPT_ID"},
    {0x0063000B, "PR_RESPONSE_REQUESTED"},
    {0x0064001E, "PR_SENT_REPRESENTING_ADDRTYPE"},
    {0x0065001E, "PR_SENT_REPRESENTING_EMAIL_ADDRESS"},
    {0x0066001E, "PR_ORIGINAL_SENDER_ADDRTYPE"},
    {0x0067001E, "PR_ORIGINAL_SENDER_EMAIL_ADDRESS"},
    {0x0068001E, "PR_ORIGINAL_SENT_REPRESENTING_ADDRTYPE"},
    {0x0069001E, "PR_ORIGINAL_SENT_REPRESENTING_EMAIL_ADDRESS"},
    {0x0070001E, "PR_CONVERSATION_TOPIC"},
    {0x00710102, "PR_CONVERSATION_INDEX"},
    {0x0072001E, "PR_ORIGINAL_DISPLAY_BCC"},
    {0x0073001E, "PR_ORIGINAL_DISPLAY_CC"},
    {0x0074001E, "PR_ORIGINAL_DISPLAY_TO"},
    {0x0075001E, "PR_RECEIVED_BY_ADDRTYPE"},
    {0x0076001E, "PR_RECEIVED_BY_EMAIL_ADDRESS"},
    {0x0077001E, "PR_RCVD_REPRESENTING_ADDRTYPE"},
    {0x0078001E, "PR_RCVD_REPRESENTING_EMAIL_ADDRESS"},
    {0x0079001E, "PR_ORIGINAL_AUTHOR_ADDRTYPE"},
    {0x007A001E, "PR_ORIGINAL_AUTHOR_EMAIL_ADDRESS"},
    {0x007B001E, "PR_ORIGINALLY_INTENDED_RECIP_ADDRTYPE"},
    {0x007C001E, "PR_ORIGINALLY_INTENDED_RECIP_EMAIL_ADDRESS"},
    {0x007D001E, "PR_TRANSPORT_MESSAGE_HEADERS"},
    {0x007E0102, "PR_DELEGATION"},
    {0x007F0102, "PR_TNEF_CORRELATION_KEY"},
    {0x0080001E, "PR_REPORT_DISPOSITION"},
    {0x0081001E, "PR_REPORT_DISPOSITION_MODE"},
    {0x0C000102, "PR_CONTENT_INTEGRITY_CHECK"},
    {0x0C010003, "PR_EXPLICIT_CONVERSION"},
    {0x0C02000B, "PR_IPM_RETURN_REQUESTED"},
    {0x0C030102, "PR_MESSAGE_TOKEN"},
    {0x0C040003, "PR_NDR_REASON_CODE"},
    {0x0C050003, "PR_NDR_DIAG_CODE"},
    {0x0C06000B, "PR_NON_RECEIPT_NOTIFICATION_REQUESTED"},
    {0x0C070003, "PR_DELIVERY_POINT"},
    {0x0C08000B, "PR_ORIGINATOR_NON_DELIVERY_REPORT_REQUESTED"},
    {0x0C090102, "PR_ORIGINATOR_REQUESTED_ALTERNATE_RECIPIENT"},
    {0x0C0A000B, "PR_PHYSICAL_DELIVERY_BUREAU_FAX_DELIVERY"},
    {0x0C0B0003, "PR_PHYSICAL_DELIVERY_MODE"},
    {0x0C0C0003, "PR_PHYSICAL_DELIVERY_REPORT_REQUEST"},
    {0x0C0D0102, "PR_PHYSICAL_FORWARDING_ADDRESS"},
    {0x0C0E000B, "PR_PHYSICAL_FORWARDING_ADDRESS_REQUESTED"},
    {0x0C0F000B, "PR_PHYSICAL_FORWARDING_PROHIBITED"},
    {0x0C100102, "PR_PHYSICAL_RENDITION_ATTRIBUTES"},
    {0x0C110102, "PR_PROOF_OF_DELIVERY"},
    {0x0C12000B, "PR_PROOF_OF_DELIVERY_REQUESTED"},
    {0x0C130102, "PR_RECIPIENT_CERTIFICATE"},
    {0x0C14001E, "PR_RECIPIENT_NUMBER_FOR_ADVICE"},
    {0x0C150003, "PR_RECIPIENT_TYPE"},
    {0x0C160003, "PR_REGISTERED_MAIL_TYPE"},
    {0x0C17000B, "PR_REPLY_REQUESTED"},
    {0x0C180003, "PR_REQUESTED_DELIVERY_METHOD"},
    {0x0C190102, "PR_SENDER_ENTRYID"},
    {0x0C1A001E, "PR_SENDER_NAME"},
    {0x0C1B001E, "PR_SUPPLEMENTARY_INFO"},
    {0x0C1C0003, "PR_TYPE_OF_MTS_USER"},
    {0x0C1D0102, "PR_SENDER_SEARCH_KEY"},
    {0x0C1E001E, "PR_SENDER_ADDRTYPE"},
    {0x0C1F001E, "PR_SENDER_EMAIL_ADDRESS"},
    {0x0C200003, "PR_NDR_STATUS_CODE"},
    {0x0C21001E, "PR_DSN_REMOTE_MTA"},
    {0x0E000014, "PR_CURRENT_VERSION"},
    {0x0E01000B, "PR_DELETE_AFTER_SUBMIT"},
    {0x0E02001E, "PR_DISPLAY_BCC"},
    {0x0E03001E, "PR_DISPLAY_CC"},
    {0x0E04001E, "PR_DISPLAY_TO"},
    {0x0E05001E, "PR_PARENT_DISPLAY"},
    {0x0E060040, "PR_MESSAGE_DELIVERY_TIME"},
    {0x0E070003, "PR_MESSAGE_FLAGS"},
    {0x0E080003, "PR_MESSAGE_SIZE"},
    {0x0E080014, "PR_MESSAGE_SIZE_EXTENDED"},
    {0x0E090102, "PR_PARENT_ENTRYID"},
    {0x0E0A0102, "PR_SENTMAIL_ENTRYID"},
    {0x0E0C000B, "PR_CORRELATE"},
    {0x0E0D0102, "PR_CORRELATE_MTSID"},
    {0x0E0E000B, "PR_DISCRETE_VALUES"},
    {0x0E0F000B, "PR_RESPONSIBILITY"},
    {0x0E100003, "PR_SPOOLER_STATUS"},
    {0x0E110003, "PR_TRANSPORT_STATUS"},
    {0x0E12000D, "PR_MESSAGE_RECIPIENTS"},
    {0x0E13000D, "PR_MESSAGE_ATTACHMENTS"},
    {0x0E140003, "PR_SUBMIT_FLAGS"},
    {0x0E150003, "PR_RECIPIENT_STATUS"},
    {0x0E160003, "PR_TRANSPORT_KEY"},
    {0x0E170003, "PR_MSG_STATUS"},
    {0x0E180003, "PR_MESSAGE_DOWNLOAD_TIME"},
    {0x0E190014, "PR_CREATION_VERSION"},
    {0x0E1A0014, "PR_MODIFY_VERSION"},
    {0x0E1B000B, "PR_HASATTACH"},
    {0x0E1C0003, "PR_BODY_CRC"},
    {0x0E1D001E, "PR_NORMALIZED_SUBJECT"},
    {0x0E1F000B, "PR_RTF_IN_SYNC"},
    {0x0E200003, "PR_ATTACH_SIZE"},
    {0x0E210003, "PR_ATTACH_NUM"},
    {0x0E22000B, "PR_PREPROCESS"},
    {0x0E230003, "PR_INTERNET_ARTICLE_NUMBER"},
    {0x0E250102, "PR_ORIGINATING_MTA_CERTIFICATE"},
    {0x0E260102, "PR_PROOF_OF_SUBMISSION"},
    {0x0E270102, "PR_NT_SECURITY_DESCRIPTOR"},
    {0x0E28001E, "PR_PRIMARY_SEND_ACCT"},
    {0x0E29001E, "PR_NEXT_SEND_ACCT"},
    {0x0E2B0003, "PR_TODO_ITEM_FLAGS"},
    {0x0E2C0102, "PR_SWAPPED_TODO_STORE"},
    {0x0E2D0102, "PR_SWAPPED_TODO_DATA"},
    {0x0E69000B, "PR_READ"},
    {0x0E790003, "PR_TRUST_SENDER"},
    {0x0FF40003, "PR_ACCESS"},
    {0x0FF50003, "PR_ROW_TYPE"},
    {0x0FF60102, "PR_INSTANCE_KEY"},
    {0x0FF70003, "PR_ACCESS_LEVEL"},
    {0x0FF80102, "PR_MAPPING_SIGNATURE"},
    {0x0FF90102, "PR_RECORD_KEY"},
    {0x0FFA0102, "PR_STORE_RECORD_KEY"},
    {0x0FFB0102, "PR_STORE_ENTRYID"},
    {0x0FFC0102, "PR_MINI_ICON"},
    {0x0FFD0102, "PR_ICON"},
    {0x0FFE0003, "PR_OBJECT_TYPE"},
    {0x0FFF0102, "PR_ENTRYID"},
    {0x1000001E, "PR_BODY"},
    {0x1001001E, "PR_REPORT_TEXT"},
    {0x10020102, "PR_ORIGINATOR_AND_DL_EXPANSION_HISTORY"},
    {0x10030102, "PR_REPORTING_DL_NAME"},
    {0x10040102, "PR_REPORTING_MTA_CERTIFICATE"},
    {0x10060003, "PR_RTF_SYNC_BODY_CRC"},
    {0x10070003, "PR_RTF_SYNC_BODY_COUNT"},
    {0x1008001E, "PR_RTF_SYNC_BODY_TAG"},
    {0x10090102, "PR_RTF_COMPRESSED"},
    {0x10100003, "PR_RTF_SYNC_PREFIX_COUNT"},
    {0x10110003, "PR_RTF_SYNC_TRAILING_COUNT"},
    {0x10120102, "PR_ORIGINALLY_INTENDED_RECIP_ENTRYID"},
    {0x1013001E, "PR_BODY_HTML"},
    {0x10130102, "PR_HTML"},
    {0x1014001E, "PR_BODY_CONTENT_LOCATION"},
    {0x1015001E, "PR_BODY_CONTENT_ID"},
    {0x10160003, "PR_NATIVE_BODY_INFO"},
    {0x1030001E, "PR_INTERNET_APPROVED"},
    {0x1031001E, "PR_INTERNET_CONTROL"},
    {0x1032001E, "PR_INTERNET_DISTRIBUTION"},
    {0x1033001E, "PR_INTERNET_FOLLOWUP_TO"},
    {0x10340003, "PR_INTERNET_LINES"},
    {0x1035001E, "PR_INTERNET_MESSAGE_ID"},
    {0x1036001E, "PR_INTERNET_NEWSGROUPS"},
    {0x1037001E, "PR_INTERNET_ORGANIZATION"},
    {0x1038001E, "PR_INTERNET_PATH"},
    {0x1039001E, "PR_INTERNET_REFERENCES"},
    {0x103A001E, "PR_SUPERSEDES"},
    {0x103B0102, "PR_POST_FOLDER_ENTRIES"},
    {0x103C001E, "PR_POST_FOLDER_NAMES"},
    {0x103D0102, "PR_POST_REPLY_FOLDER_ENTRIES"},
    {0x103E001E, "PR_POST_REPLY_FOLDER_NAMES"},
    {0x103F0102, "PR_POST_REPLY_DENIED"},
    {0x1040001E, "PR_NNTP_XREF"},
    {0x1041001E, "PR_INTERNET_PRECEDENCE"},
    {0x1042001E, "PR_IN_REPLY_TO_ID"},
    {0x1043001E, "PR_LIST_HELP"},
    {0x1044001E, "PR_LIST_SUBSCRIBE"},
    {0x1045001E, "PR_LIST_UNSUBSCRIBE"},
    {0x1046001E, "PR_INTERNET_RETURN_PATH"},
    {0x10800003, "PR_ICON_INDEX"},
    {0x10810003, "PR_LAST_VERB_EXECUTED"},
    {0x10820040, "PR_LAST_VERB_EXECUTION_TIME"},
    {0x10900003, "PR_FLAG_STATUS"},
    {0x10910040, "PR_FLAG_COMPLETE_TIME"},
    {0x10950003, "PR_FOLLOWUP_ICON"},
    {0x10960003, "PR_BLOCK_STATUS"},
    {0x10970003, "PR_ITEM_TEMPORARY_FLAGS"},
    {0x10981102, "PR_CONFLICT_ITEMS"},
    {0x10F3001E, "PR_URL_COMP_NAME"},
    {0x10F4000B, "PR_ATTR_HIDDEN"},
    {0x10F5000B, "PR_ATTR_SYSTEM"},
    {0x10F6000B, "PR_ATTR_READONLY"},
    {0x30000003, "PR_ROWID"},
    {0x3001001E, "PR_DISPLAY_NAME"},
    {0x3002001E, "PR_ADDRTYPE"},
    {0x3003001E, "PR_EMAIL_ADDRESS"},
    {0x3004001E, "PR_COMMENT"},
    {0x30050003, "PR_DEPTH"},
    {0x3006001E, "PR_PROVIDER_DISPLAY"},
    {0x30070040, "PR_CREATION_TIME"},
    {0x30080040, "PR_LAST_MODIFICATION_TIME"},
    {0x30090003, "PR_RESOURCE_FLAGS"},
    {0x300A001E, "PR_PROVIDER_DLL_NAME"},
    {0x300B0102, "PR_SEARCH_KEY"},
    {0x300C0102, "PR_PROVIDER_UID"},
    {0x300D0003, "PR_PROVIDER_ORDINAL"},
    {0x30100102, "PR_TARGET_ENTRYID"},
    {0x30130102, "PR_CONVERSATION_ID"},
    {0x3016000B, "PR_CONVERSATION_INDEX_TRACKING"},
    {0x30180102, "PR_ARCHIVE_TAG"},
    {0x30190102, "PR_POLICY_TAG"},
    {0x301A0003, "PR_RETENTION_PERIOD"},
    {0x301B0102, "PR_START_DATE_ETC"},
    {0x301C0040, "PR_RETENTION_DATE"},
    {0x301D0003, "PR_RETENTION_FLAGS"},
    {0x301E0003, "PR_ARCHIVE_PERIOD"},
    {0x301F0040, "PR_ARCHIVE_DATE"},
    {0x3301001E, "PR_FORM_VERSION"},
    {0x33020048, "PR_FORM_CLSID"},
    {0x3303001E, "PR_FORM_CONTACT_NAME"},
    {0x3304001E, "PR_FORM_CATEGORY"},
    {0x3305001E, "PR_FORM_CATEGORY_SUB"},
    {0x33061003, "PR_FORM_HOST_MAP"},
    {0x3307000B, "PR_FORM_HIDDEN"},
    {0x3308001E, "PR_FORM_DESIGNER_NAME"},
    {0x33090048, "PR_FORM_DESIGNER_GUID"},
    {0x330A0003, "PR_FORM_MESSAGE_BEHAVIOR"},
    {0x3400000B, "PR_DEFAULT_STORE"},
    {0x340D0003, "PR_STORE_SUPPORT_MASK"},
    {0x340E0003, "PR_STORE_STATE"},
    {0x34100102, "PR_IPM_SUBTREE_SEARCH_KEY"},
    {0x34110102, "PR_IPM_OUTBOX_SEARCH_KEY"},
    {0x34120102, "PR_IPM_WASTEBASKET_SEARCH_KEY"},
    {0x34130102, "PR_IPM_SENTMAIL_SEARCH_KEY"},
    {0x34140102, "PR_MDB_PROVIDER"},
    {0x3415000D, "PR_RECEIVE_FOLDER_SETTINGS"},
    {0x35DF0003, "PR_VALID_FOLDER_MASK"},
    {0x35E00102, "PR_IPM_SUBTREE_ENTRYID"},
    {0x35E20102, "PR_IPM_OUTBOX_ENTRYID"},
    {0x35E30102, "PR_IPM_WASTEBASKET_ENTRYID"},
    {0x35E40102, "PR_IPM_SENTMAIL_ENTRYID"},
    {0x35E50102, "PR_VIEWS_ENTRYID"},
    {0x35E60102, "PR_COMMON_VIEWS_ENTRYID"},
    {0x35E70102, "PR_FINDER_ENTRYID"},
    {0x36000003, "PR_CONTAINER_FLAGS"},
    {0x36010003, "PR_FOLDER_TYPE"},
    {0x36020003, "PR_CONTENT_COUNT"},
    {0x36030003, "PR_CONTENT_UNREAD"},
    {0x3604000D, "PR_CREATE_TEMPLATES"},
    {0x3605000D, "PR_DETAILS_TABLE"},
    {0x3607000D, "PR_SEARCH"},
    {0x3609000B, "PR_SELECTABLE"},
    {0x360A000B, "PR_SUBFOLDERS"},
    {0x360B0003, "PR_STATUS"},
    {0x360C001E, "PR_ANR"},
    {0x360D1003, "PR_CONTENTS_SORT_ORDER"},
    {0x360E000D, "PR_CONTAINER_HIERARCHY"},
    {0x360F000D, "PR_CONTAINER_CONTENTS"},
    {0x3610000D, "PR_FOLDER_ASSOCIATED_CONTENTS"},
    {0x36110102, "PR_DEF_CREATE_DL"},
    {0x36120102, "PR_DEF_CREATE_MAILUSER"},
    {0x3613001E, "PR_CONTAINER_CLASS"},
    {0x36140014, "PR_CONTAINER_MODIFY_VERSION"},
    {0x36150102, "PR_AB_PROVIDER_ID"},
    {0x36160102, "PR_DEFAULT_VIEW_ENTRYID"},
    {0x36170003, "PR_ASSOC_CONTENT_COUNT"},
    {0x37000102, "PR_ATTACHMENT_X400_PARAMETERS"},
    {0x3701000D, "PR_ATTACH_DATA_OBJ"},
    {0x37010102, "PR_ATTACH_DATA_BIN"},
    {0x37020102, "PR_ATTACH_ENCODING"},
    {0x3703001E, "PR_ATTACH_EXTENSION"},
    {0x3704001E, "PR_ATTACH_FILENAME"},
    {0x37050003, "PR_ATTACH_METHOD"},
    {0x3707001E, "PR_ATTACH_LONG_FILENAME"},
    {0x3708001E, "PR_ATTACH_PATHNAME"},
    {0x37090102, "PR_ATTACH_RENDERING"},
    {0x370A0102, "PR_ATTACH_TAG"},
    {0x370B0003, "PR_RENDERING_POSITION"},
    {0x370C001E, "PR_ATTACH_TRANSPORT_NAME"},
    {0x370D001E, "PR_ATTACH_LONG_PATHNAME"},
    {0x370E001E, "PR_ATTACH_MIME_TAG"},
    {0x370F0102, "PR_ATTACH_ADDITIONAL_INFO"},
    {0x37100003, "PR_ATTACH_MIME_SEQUENCE"},
    {0x3711001E, "PR_ATTACH_CONTENT_BASE"},
    {0x3712001E, "PR_ATTACH_CONTENT_ID"},
    {0x3713001E, "PR_ATTACH_CONTENT_LOCATION"},
    {0x37140003, "PR_ATTACH_FLAGS"},
    {0x3719001E, "PR_ATTACH_PAYLOAD_PROV_GUID_STR"},
    {0x371A001E, "PR_ATTACH_PAYLOAD_CLASS"},
    {0x371B001E, "PR_TEXT_ATTACHMENT_CHARSET"},
    {0x39000003, "PR_DISPLAY_TYPE"},
    {0x39020102, "PR_TEMPLATEID"},
    {0x39040102, "PR_PRIMARY_CAPABILITY"},
    {0x39050003, "PR_DISPLAY_TYPE_EX"},
    {0x39FE001E, "PR_SMTP_ADDRESS"},
    {0x39FF001E, "PR_7BIT_DISPLAY_NAME"},
    {0x3A00001E, "PR_ACCOUNT"},
    {0x3A010102, "PR_ALTERNATE_RECIPIENT"},
    {0x3A02001E, "PR_CALLBACK_TELEPHONE_NUMBER"},
    {0x3A03000B, "PR_CONVERSION_PROHIBITED"},
    {0x3A04000B, "PR_DISCLOSE_RECIPIENTS"},
    {0x3A05001E, "PR_GENERATION"},
    {0x3A06001E, "PR_GIVEN_NAME"},
    {0x3A07001E, "PR_GOVERNMENT_ID_NUMBER"},
    {0x3A08001E, "PR_BUSINESS_TELEPHONE_NUMBER"},
    {0x3A09001E, "PR_HOME_TELEPHONE_NUMBER"},
    {0x3A0A001E, "PR_INITIALS"},
    {0x3A0B001E, "PR_KEYWORD"},
    {0x3A0C001E, "PR_LANGUAGE"},
    {0x3A0D001E, "PR_LOCATION"},
    {0x3A0E000B, "PR_MAIL_PERMISSION"},
    {0x3A0F001E, "PR_MHS_COMMON_NAME"},
    {0x3A10001E, "PR_ORGANIZATIONAL_ID_NUMBER"},
    {0x3A11001E, "PR_SURNAME"},
    {0x3A120102, "PR_ORIGINAL_ENTRYID"},
    {0x3A13001E, "PR_ORIGINAL_DISPLAY_NAME"},
    {0x3A140102, "PR_ORIGINAL_SEARCH_KEY"},
    {0x3A15001E, "PR_POSTAL_ADDRESS"},
    {0x3A16001E, "PR_COMPANY_NAME"},
    {0x3A17001E, "PR_TITLE"},
    {0x3A18001E, "PR_DEPARTMENT_NAME"},
    {0x3A19001E, "PR_OFFICE_LOCATION"},
    {0x3A1A001E, "PR_PRIMARY_TELEPHONE_NUMBER"},
    {0x3A1B001E, "PR_BUSINESS2_TELEPHONE_NUMBER"},
    {0x3A1C001E, "PR_MOBILE_TELEPHONE_NUMBER"},
    {0x3A1D001E, "PR_RADIO_TELEPHONE_NUMBER"},
    {0x3A1E001E, "PR_CAR_TELEPHONE_NUMBER"},
    {0x3A1F001E, "PR_OTHER_TELEPHONE_NUMBER"},
    {0x3A20001E, "PR_TRANSMITABLE_DISPLAY_NAME"},
    {0x3A21001E, "PR_PAGER_TELEPHONE_NUMBER"},
    {0x3A220102, "PR_USER_CERTIFICATE"},
    {0x3A23001E, "PR_PRIMARY_FAX_NUMBER"},
    {0x3A24001E, "PR_BUSINESS_FAX_NUMBER"},
    {0x3A25001E, "PR_HOME_FAX_NUMBER"},
    {0x3A26001E, "PR_COUNTRY"},
    {0x3A27001E, "PR_LOCALITY"},
    {0x3A28001E, "PR_STATE_OR_PROVINCE"},
    {0x3A29001E, "PR_STREET_ADDRESS"},
    {0x3A2A001E, "PR_POSTAL_CODE"},
    {0x3A2B001E, "PR_POST_OFFICE_BOX"},
    {0x3A2C001E, "PR_TELEX_NUMBER"},
    {0x3A2D001E, "PR_ISDN_NUMBER"},
    {0x3A2E001E, "PR_ASSISTANT_TELEPHONE_NUMBER"},
    {0x3A2F001E, "PR_HOME2_TELEPHONE_NUMBER"},
    {0x3A30001E, "PR_ASSISTANT"},
    {0x3A40000B, "PR_SEND_RICH_INFO"},
    {0x3A410040, "PR_WEDDING_ANNIVERSARY"},
    {0x3A420040, "PR_BIRTHDAY"},
    {0x3A43001E, "PR_HOBBIES"},
    {0x3A44001E, "PR_MIDDLE_NAME"},
    {0x3A45001E, "PR_DISPLAY_NAME_PREFIX"},
    {0x3A46001E, "PR_PROFESSION"},
    {0x3A47001E, "PR_PREFERRED_BY_NAME"},
    {0x3A48001E, "PR_SPOUSE_NAME"},
    {0x3A49001E, "PR_COMPUTER_NETWORK_NAME"},
    {0x3A4A001E, "PR_CUSTOMER_ID"},
    {0x3A4B001E, "PR_TTYTDD_PHONE_NUMBER"},
    {0x3A4C001E, "PR_FTP_SITE"},
    {0x3A4D0002, "PR_GENDER"},
    {0x3A4E001E, "PR_MANAGER_NAME"},
    {0x3A4F001E, "PR_NICKNAME"},
    {0x3A50001E, "PR_PERSONAL_HOME_PAGE"},
    {0x3A51001E, "PR_BUSINESS_HOME_PAGE"},
    {0x3A520048, "PR_CONTACT_VERSION"},
    {0x3A531102, "PR_CONTACT_ENTRYIDS"},
    {0x3A54101E, "PR_CONTACT_ADDRTYPES"},
    {0x3A550003, "PR_CONTACT_DEFAULT_ADDRESS_INDEX"},
    {0x3A56101E, "PR_CONTACT_EMAIL_ADDRESSES"},
    {0x3A57001E, "PR_COMPANY_MAIN_PHONE_NUMBER"},
    {0x3A58101E, "PR_CHILDRENS_NAMES"},
    {0x3A59001E, "PR_HOME_ADDRESS_CITY"},
    {0x3A5A001E, "PR_HOME_ADDRESS_COUNTRY"},
    {0x3A5B001E, "PR_HOME_ADDRESS_POSTAL_CODE"},
    {0x3A5C001E, "PR_HOME_ADDRESS_STATE_OR_PROVINCE"},
    {0x3A5D001E, "PR_HOME_ADDRESS_STREET"},
    {0x3A5E001E, "PR_HOME_ADDRESS_POST_OFFICE_BOX"},
    {0x3A5F001E, "PR_OTHER_ADDRESS_CITY"},
    {0x3A60001E, "PR_OTHER_ADDRESS_COUNTRY"},
    {0x3A61001E, "PR_OTHER_ADDRESS_POSTAL_CODE"},
    {0x3A62001E, "PR_OTHER_ADDRESS_STATE_OR_PROVINCE"},
    {0x3A63001E, "PR_OTHER_ADDRESS_STREET"},
    {0x3A64001E, "PR_OTHER_ADDRESS_POST_OFFICE_BOX"},
    {0x3A701102, "PR_USER_X509_CERTIFICATE"},
    {0x3A710003, "PR_SEND_INTERNET_ENCODING"},
    {0x3D000102, "PR_STORE_PROVIDERS"},
    {0x3D010102, "PR_AB_PROVIDERS"},
    {0x3D020102, "PR_TRANSPORT_PROVIDERS"},
    {0x3FDE0003, "PR_INTERNET_CPID"},
    {0x3FDF0003, "PR_AUTO_RESPONSE_SUPPRESS"},
    {0x3FF10003, "PR_MESSAGE_LOCALE_ID"},
    {0x3FF8001E, "PR_CREATOR_NAME"},
    {0x3FF90102, "PR_CREATOR_ENTRYID"},
    {0x3FFA001E, "PR_LAST_MODIFIER_NAME"},
    {0x3FFB0102, "PR_LAST_MODIFIER_ENTRYID"},
    {0x3FFD0003, "PR_MESSAGE_CODEPAGE"},
    {0x40190003, "PR_SENDER_FLAGS"},
    {0x401A0003, "PR_SENT_REPRESENTING_FLAGS"},
    {0x401B0003, "PR_RCVD_BY_FLAGS"},
    {0x401C0003, "PR_RCVD_REPRESENTING_FLAGS"},
    {0x40760003, "PR_CONTENT_FILTER_SCL"},
    {0x4083001E, "PR_PURPORTED_SENDER_DOMAIN"},
    {0x59020003, "PR_INETMAIL_OVERRIDE_FORMAT"},
    {0x59090003, "PR_MSG_EDITOR_FORMAT"},
    {0x5D01001E, "PR_SENDER_SMTP_ADDRESS"},
    {0x5D02001E, "PR_SENT_REPRESENTING_SMTP_ADDRESS"},
    {0x5D05001E, "PR_READ_RECEIPT_SMTP_ADDRESS"},
    {0x5D07001E, "PR_RECEIVED_BY_SMTP_ADDRESS"},
    {0x5D08001E, "PR_RCVD_REPRESENTING_SMTP_ADDRESS"},
    {0x5FDF0003, "PR_RECIPIENT_ORDER"},
    {0x5FE1000B, "PR_RECIPIENT_PROPOSED"},
    {0x5FE30040, "PR_RECIPIENT_PROPOSEDSTARTTIME"},
    {0x5FE40040, "PR_RECIPIENT_PROPOSEDENDTIME"},
    {0x5FF6001E, "PR_RECIPIENT_DISPLAY_NAME"},
    {0x5FF70102, "PR_RECIPIENT_ENTRYID"},
    {0x5FFB0040, "PR_RECIPIENT_TRACKSTATUS_TIME"},
    {0x5FFD0003, "PR_RECIPIENT_FLAGS"},
    {0x5FFF0003, "PR_RECIPIENT_TRACKSTATUS"},
    {0x65E00102, "PR_SOURCE_KEY"},
    {0x65E10102, "PR_PARENT_SOURCE_KEY"},
    {0x65E20102, "PR_CHANGE_KEY"},
    {0x65E30102, "PR_PREDECESSOR_CHANGE_LIST"},
    {0x664A000B, "PR_HAS_NAMED_PROPERTIES"},
    {0x66590102, "PR_INTERNET_CONTENT"},
    {0x7FF90040, "PR_EXCEPTION_REPLACETIME"},
    {0x7FFA0003, "PR_ATTACHMENT_LINKID"},
    {0x7FFB0040, "PR_EXCEPTION_STARTTIME"},
    {0x7FFC0040, "PR_EXCEPTION_ENDTIME"},
    {0x7FFD0003, "PR_ATTACHMENT_FLAGS"},
    {0x7FFE000B, "PR_ATTACHMENT_HIDDEN"},
    {0x7FFF000B, "PR_ATTACHMENT_CONTACTPHOTO"},
};

constexpr TnefTypeNameEntry kTypeNames[] = {
    {0x0000, "PT_UNSPECIFIED"},
    {0x0001, "PT_NULL"},
    {0x0002, "PT_I2"},
    {0x0003, "PT_LONG"},
    {0x0004, "PT_R4"},
    {0x0005, "PT_DOUBLE"},
    {0x0006, "PT_CURRENCY"},
    {0x0007, "PT_APPTIME"},
    {0x000A, "PT_ERROR"},
    {0x000B, "PT_BOOLEAN"},
    {0x000D, "PT_OBJECT"},
    {0x0014, "PT_I8"},
    {0x001E, "PT_STRING8"},
    {0x001F, "PT_UNICODE"},
    {0x0040, "PT_SYSTIME"},
    {0x0048, "PT_CLSID"},
    {0x0102, "PT_BINARY"},
    {0x1002, "PT_MV_I2"},
    {0x1003, "PT_MV_LONG"},
    {0x1004, "PT_MV_R4"},
    {0x1005, "PT_MV_DOUBLE"},
    {0x1006, "PT_MV_CURRENCY"},
    {0x1007, "PT_MV_APPTIME"},
    {0x1014, "PT_MV_I8"},
    {0x101E, "PT_MV_STRING8"},
    {0x101F, "PT_MV_UNICODE"},
    {0x1040, "PT_MV_SYSTIME"},
    {0x1048, "PT_MV_CLSID"},
    {0x1102, "PT_MV_BINARY"},
};

constexpr TnefSetNameEntry kSetNames[] = {
    {{{0x28, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PS_MAPI"},
    {{{0x29, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PS_PUBLIC_STRINGS"},
    {{{0x86, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PS_INTERNET_HEADERS"},
    {{{0x02, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Appointment"},
    {{{0x03, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Task"},
    {{{0x04, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Address"},
    {{{0x08, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Common"},
    {{{0x0A, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Log"},
    {{{0x0E, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Note"},
    {{{0x13, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Report"},
    {{{0x14, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Remote"},
    {{{0x40, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_Sharing"},
    {{{0x41, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}, "PSETID_PostRss"},
    {{{0x07, 0x0E, 0x00, 0x11, 0x1B, 0xB5, 0xD6, 0x40, 0xAF, 0x21, 0xCA, 0xA8, 0x5E, 0xDA, 0xB1, 0xD0}}, "PSETID_CalendarAssistant"},
    {{{0x08, 0x96, 0x23, 0x23, 0x5D, 0x68, 0x32, 0x47, 0x9C, 0x55, 0x4C, 0x95, 0xCB, 0x4E, 0x8E, 0x33}}, "PSETID_XmlExtractedEntities"},
    {{{0x13, 0x8F, 0xF2, 0x41, 0xF4, 0x83, 0x14, 0x41, 0xA5, 0x84, 0xEE, 0xDB, 0x5A, 0x6B, 0x0B, 0xFF}}, "PSETID_Messaging"},
    {{{0x8E, 0x85, 0x42, 0x44, 0xE3, 0xA9, 0x80, 0x4E, 0xB9, 0x00, 0x31, 0x7A, 0x21, 0x0C, 0xC1, 0x5B}}, "PSETID_UnifiedMessaging"},
    {{{0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10, 0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05}}, "PSETID_Meeting"},
    {{{0x49, 0x55, 0x03, 0x71, 0x39, 0x07, 0xCB, 0x4D, 0x91, 0x63, 0x00, 0xF0, 0x58, 0x0D, 0xBB, 0xDF}}, "PSETID_AirSync"},
    {{{0x7F, 0x7F, 0x35, 0x96, 0xE1, 0x59, 0xD0, 0x47, 0x99, 0xA7, 0x46, 0x51, 0x5C, 0x18, 0x3B, 0x54}}, "PSETID_Attachment"},
};

constexpr TnefNamedPropNameEntry kNamedNames[] = {
    {3, 0x8201, "PidLidAppointmentSequence"},  // PSETID_Appointment
    {3, 0x8202, "PidLidAppointmentSequenceTime"},  // PSETID_Appointment
    {3, 0x8203, "PidLidAppointmentLastSequence"},  // PSETID_Appointment
    {3, 0x8204, "PidLidChangeHighlight"},  // PSETID_Appointment
    {3, 0x8205, "PidLidBusyStatus"},  // PSETID_Appointment
    {3, 0x8206, "PidLidFExceptionalBody"},  // PSETID_Appointment
    {3, 0x8207, "PidLidAppointmentAuxiliaryFlags"},  // PSETID_Appointment
    {3, 0x8208, "PidLidLocation"},  // PSETID_Appointment
    {3, 0x8209, "PidLidMeetingWorkspaceUrl"},  // PSETID_Appointment
    {3, 0x820A, "PidLidForwardInstance"},  // PSETID_Appointment
    {3, 0x820C, "PidLidLinkedTaskItems"},  // PSETID_Appointment
    {3, 0x820D, "PidLidAppointmentStartWhole"},  // PSETID_Appointment
    {3, 0x820E, "PidLidAppointmentEndWhole"},  // PSETID_Appointment
    {3, 0x820F, "PidLidAppointmentStartTime"},  // PSETID_Appointment
    {3, 0x8210, "PidLidAppointmentEndTime"},  // PSETID_Appointment
    {3, 0x8211, "PidLidAppointmentEndDate"},  // PSETID_Appointment
    {3, 0x8212, "PidLidAppointmentStartDate"},  // PSETID_Appointment
    {3, 0x8213, "PidLidAppointmentDuration"},  // PSETID_Appointment
    {3, 0x8214, "PidLidAppointmentColor"},  // PSETID_Appointment
    {3, 0x8215, "PidLidAppointmentSubType"},  // PSETID_Appointment
    {3, 0x8216, "PidLidAppointmentRecur"},  // PSETID_Appointment
    {3, 0x8217, "PidLidAppointmentStateFlags"},  // PSETID_Appointment
    {3, 0x8218, "PidLidResponseStatus"},  // PSETID_Appointment
    {3, 0x8220, "PidLidAppointmentReplyTime"},  // PSETID_Appointment
    {3, 0x8223, "PidLidRecurring"},  // PSETID_Appointment
    {3, 0x8224, "PidLidIntendedBusyStatus"},  // PSETID_Appointment
    {3, 0x8226, "PidLidAppointmentUpdateTime"},  // PSETID_Appointment
    {3, 0x8228, "PidLidExceptionReplaceTime"},  // PSETID_Appointment
    {3, 0x8229, "PidLidFInvited"},  // PSETID_Appointment
    {3, 0x822B, "PidLidFExceptionalAttendees"},  // PSETID_Appointment
    {3, 0x822E, "PidLidOwnerName"},  // PSETID_Appointment
    {3, 0x822F, "PidLidFOthersAppointment"},  // PSETID_Appointment
    {3, 0x8230, "PidLidAppointmentReplyName"},  // PSETID_Appointment
    {3, 0x8231, "PidLidRecurrenceType"},  // PSETID_Appointment
    {3, 0x8232, "PidLidRecurrencePattern"},  // PSETID_Appointment
    {3, 0x8233, "PidLidTimeZoneStruct"},  // PSETID_Appointment
    {3, 0x8234, "PidLidTimeZoneDescription"},  // PSETID_Appointment
    {3, 0x8235, "PidLidClipStart"},  // PSETID_Appointment
    {3, 0x8236, "PidLidClipEnd"},  // PSETID_Appointment
    {3, 0x8237, "PidLidOriginalStoreEntryId"},  // PSETID_Appointment
    {3, 0x8238, "PidLidAllAttendeesString"},  // PSETID_Appointment
    {3, 0x823A, "PidLidAutoFillLocation"},  // PSETID_Appointment
    {3, 0x823B, "PidLidToAttendeesString"},  // PSETID_Appointment
    {3, 0x823C, "PidLidCcAttendeesString"},  // PSETID_Appointment
    {3, 0x8240, "PidLidConferencingCheck"},  // PSETID_Appointment
    {3, 0x8241, "PidLidConferencingType"},  // PSETID_Appointment
    {3, 0x8242, "PidLidDirectory"},  // PSETID_Appointment
    {3, 0x8243, "PidLidOrganizerAlias"},  // PSETID_Appointment
    {3, 0x8244, "PidLidAutoStartCheck"},  // PSETID_Appointment
    {3, 0x8246, "PidLidAllowExternalCheck"},  // PSETID_Appointment
    {3, 0x8247, "PidLidCollaborateDoc"},  // PSETID_Appointment
    {3, 0x8248, "PidLidNetShowUrl"},  // PSETID_Appointment
    {3, 0x8249, "PidLidOnlinePassword"},  // PSETID_Appointment
    {3, 0x8250, "PidLidAppointmentProposedStartWhole"},  // PSETID_Appointment
    {3, 0x8251, "PidLidAppointmentProposedEndWhole"},  // PSETID_Appointment
    {3, 0x8256, "PidLidAppointmentProposedDuration"},  // PSETID_Appointment
    {3, 0x8257, "PidLidAppointmentCounterProposal"},  // PSETID_Appointment
    {3, 0x8259, "PidLidAppointmentProposalNumber"},  // PSETID_Appointment
    {3, 0x825A, "PidLidAppointmentNotAllowPropose"},  // PSETID_Appointment
    {3, 0x825D, "PidLidAppointmentUnsendableRecipients"},  // PSETID_Appointment
    {3, 0x825E, "PidLidAppointmentTimeZoneDefinitionStartDisplay"},  // PSETID_Appointment
    {3, 0x825F, "PidLidAppointmentTimeZoneDefinitionEndDisplay"},  // PSETID_Appointment
    {3, 0x8260, "PidLidAppointmentTimeZoneDefinitionRecur"},  // PSETID_Appointment
    {3, 0x8261, "PidLidForwardNotificationRecipients"},  // PSETID_Appointment
    {3, 0x827A, "PidLidInboundICalStream"},  // PSETID_Appointment
    {3, 0x827B, "PidLidSingleBodyICal"},  // PSETID_Appointment
    {4, 0x8101, "PidLidTaskStatus"},  // PSETID_Task
    {4, 0x8102, "PidLidPercentComplete"},  // PSETID_Task
    {4, 0x8103, "PidLidTeamTask"},  // PSETID_Task
    {4, 0x8104, "PidLidTaskStartDate"},  // PSETID_Task
    {4, 0x8105, "PidLidTaskDueDate"},  // PSETID_Task
    {4, 0x8107, "PidLidTaskResetReminder"},  // PSETID_Task
    {4, 0x8108, "PidLidTaskAccepted"},  // PSETID_Task
    {4, 0x8109, "PidLidTaskDeadOccurrence"},  // PSETID_Task
    {4, 0x810F, "PidLidTaskDateCompleted"},  // PSETID_Task
    {4, 0x8110, "PidLidTaskActualEffort"},  // PSETID_Task
    {4, 0x8111, "PidLidTaskEstimatedEffort"},  // PSETID_Task
    {4, 0x8112, "PidLidTaskVersion"},  // PSETID_Task
    {4, 0x8113, "PidLidTaskState"},  // PSETID_Task
    {4, 0x8115, "PidLidTaskLastUpdate"},  // PSETID_Task
    {4, 0x8116, "PidLidTaskRecurrence"},  // PSETID_Task
    {4, 0x8117, "PidLidTaskAssigners"},  // PSETID_Task
    {4, 0x8119, "PidLidTaskStatusOnComplete"},  // PSETID_Task
    {4, 0x811A, "PidLidTaskHistory"},  // PSETID_Task
    {4, 0x811B, "PidLidTaskUpdates"},  // PSETID_Task
    {4, 0x811C, "PidLidTaskComplete"},  // PSETID_Task
    {4, 0x811E, "PidLidTaskFCreator"},  // PSETID_Task
    {4, 0x811F, "PidLidTaskOwner"},  // PSETID_Task
    {4, 0x8120, "PidLidTaskMultipleRecipients"},  // PSETID_Task
    {4, 0x8121, "PidLidTaskAssigner"},  // PSETID_Task
    {4, 0x8122, "PidLidTaskLastUser"},  // PSETID_Task
    {4, 0x8123, "PidLidTaskOrdinal"},  // PSETID_Task
    {4, 0x8124, "PidLidTaskNoCompute"},  // PSETID_Task
    {4, 0x8125, "PidLidTaskLastDelegate"},  // PSETID_Task
    {4, 0x8126, "PidLidTaskFRecurring"},  // PSETID_Task
    {4, 0x8127, "PidLidTaskRole"},  // PSETID_Task
    {4, 0x8129, "PidLidTaskOwnership"},  // PSETID_Task
    {4, 0x812A, "PidLidTaskAcceptanceState"},  // PSETID_Task
    {4, 0x812C, "PidLidTaskFFixOffline"},  // PSETID_Task
    {5, 0x8005, "PidLidFileUnder"},  // PSETID_Address
    {5, 0x8006, "PidLidFileUnderId"},  // PSETID_Address
    {5, 0x8007, "PidLidContactItemData"},  // PSETID_Address
    {5, 0x8010, "PidLidDepartment"},  // PSETID_Address
    {5, 0x8015, "PidLidHasPicture"},  // PSETID_Address
    {5, 0x801A, "PidLidHomeAddress"},  // PSETID_Address
    {5, 0x801B, "PidLidWorkAddress"},  // PSETID_Address
    {5, 0x801C, "PidLidOtherAddress"},  // PSETID_Address
    {5, 0x8022, "PidLidPostalAddressId"},  // PSETID_Address
    {5, 0x8023, "PidLidContactCharacterSet"},  // PSETID_Address
    {5, 0x8025, "PidLidAutoLog"},  // PSETID_Address
    {5, 0x8026, "PidLidFileUnderList"},  // PSETID_Address
    {5, 0x8028, "PidLidAddressBookProviderEmailList"},  // PSETID_Address
    {5, 0x8029, "PidLidAddressBookProviderArrayType"},  // PSETID_Address
    {5, 0x802B, "PidLidHtml"},  // PSETID_Address
    {5, 0x802C, "PidLidYomiFirstName"},  // PSETID_Address
    {5, 0x802D, "PidLidYomiLastName"},  // PSETID_Address
    {5, 0x802E, "PidLidYomiCompanyName"},  // PSETID_Address
    {5, 0x8040, "PidLidBusinessCardDisplayDefinition"},  // PSETID_Address
    {5, 0x8041, "PidLidBusinessCardCardPicture"},  // PSETID_Address
    {5, 0x8045, "PidLidWorkAddressStreet"},  // PSETID_Address
    {5, 0x8046, "PidLidWorkAddressCity"},  // PSETID_Address
    {5, 0x8047, "PidLidWorkAddressState"},  // PSETID_Address
    {5, 0x8048, "PidLidWorkAddressPostalCode"},  // PSETID_Address
    {5, 0x8049, "PidLidWorkAddressCountry"},  // PSETID_Address
    {5, 0x804A, "PidLidWorkAddressPostOfficeBox"},  // PSETID_Address
    {5, 0x804C, "PidLidDistributionListChecksum"},  // PSETID_Address
    {5, 0x804D, "PidLidBirthdayEventEntryId"},  // PSETID_Address
    {5, 0x804E, "PidLidAnniversaryEventEntryId"},  // PSETID_Address
    {5, 0x804F, "PidLidContactUserField1"},  // PSETID_Address
    {5, 0x8053, "PidLidDistributionListName"},  // PSETID_Address
    {5, 0x8054, "PidLidDistributionListOneOffMembers"},  // PSETID_Address
    {5, 0x8055, "PidLidDistributionListMembers"},  // PSETID_Address
    {5, 0x8062, "PidLidInstantMessagingAddress"},  // PSETID_Address
    {5, 0x8064, "PidLidDistributionListStream"},  // PSETID_Address
    {5, 0x8080, "PidLidEmail1DisplayName"},  // PSETID_Address
    {5, 0x8082, "PidLidEmail1AddressType"},  // PSETID_Address
    {5, 0x8083, "PidLidEmail1EmailAddress"},  // PSETID_Address
    {5, 0x8084, "PidLidEmail1OriginalDisplayName"},  // PSETID_Address
    {5, 0x8085, "PidLidEmail1OriginalEntryId"},  // PSETID_Address
    {5, 0x8090, "PidLidEmail2DisplayName"},  // PSETID_Address
    {5, 0x8092, "PidLidEmail2AddressType"},  // PSETID_Address
    {5, 0x8093, "PidLidEmail2EmailAddress"},  // PSETID_Address
    {5, 0x8094, "PidLidEmail2OriginalDisplayName"},  // PSETID_Address
    {5, 0x8095, "PidLidEmail2OriginalEntryId"},  // PSETID_Address
    {5, 0x80A0, "PidLidEmail3DisplayName"},  // PSETID_Address
    {5, 0x80A2, "PidLidEmail3AddressType"},  // PSETID_Address
    {5, 0x80A3, "PidLidEmail3EmailAddress"},  // PSETID_Address
    {5, 0x80A4, "PidLidEmail3OriginalDisplayName"},  // PSETID_Address
    {5, 0x80A5, "PidLidEmail3OriginalEntryId"},  // PSETID_Address
    {5, 0x80B2, "PidLidFax1AddressType"},  // PSETID_Address
    {5, 0x80B3, "PidLidFax1EmailAddress"},  // PSETID_Address
    {5, 0x80B4, "PidLidFax1OriginalDisplayName"},  // PSETID_Address
    {5, 0x80D8, "PidLidFreeBusyLocation"},  // PSETID_Address
    {5, 0x80DA, "PidLidHomeAddressCountryCode"},  // PSETID_Address
    {5, 0x80DB, "PidLidWorkAddressCountryCode"},  // PSETID_Address
    {5, 0x80DC, "PidLidOtherAddressCountryCode"},  // PSETID_Address
    {5, 0x80DD, "PidLidAddressCountryCode"},  // PSETID_Address
    {5, 0x80DE, "PidLidBirthdayLocal"},  // PSETID_Address
    {5, 0x80DF, "PidLidWeddingAnniversaryLocal"},  // PSETID_Address
    {6, 0x8501, "PidLidReminderDelta"},  // PSETID_Common
    {6, 0x8502, "PidLidReminderTime"},  // PSETID_Common
    {6, 0x8503, "PidLidReminderSet"},  // PSETID_Common
    {6, 0x8504, "PidLidReminderTimeTime"},  // PSETID_Common
    {6, 0x8505, "PidLidReminderTimeDate"},  // PSETID_Common
    {6, 0x8506, "PidLidPrivate"},  // PSETID_Common
    {6, 0x850E, "PidLidAgingDontAgeMe"},  // PSETID_Common
    {6, 0x8510, "PidLidSideEffects"},  // PSETID_Common
    {6, 0x8511, "PidLidRemoteStatus"},  // PSETID_Common
    {6, 0x8514, "PidLidSmartNoAttach"},  // PSETID_Common
    {6, 0x8516, "PidLidCommonStart"},  // PSETID_Common
    {6, 0x8517, "PidLidCommonEnd"},  // PSETID_Common
    {6, 0x8518, "PidLidTaskMode"},  // PSETID_Common
    {6, 0x8519, "PidLidTaskGlobalId"},  // PSETID_Common
    {6, 0x851C, "PidLidReminderOverride"},  // PSETID_Common
    {6, 0x851E, "PidLidReminderPlaySound"},  // PSETID_Common
    {6, 0x851F, "PidLidReminderFileParameter"},  // PSETID_Common
    {6, 0x8520, "PidLidVerbStream"},  // PSETID_Common
    {6, 0x8524, "PidLidVerbResponse"},  // PSETID_Common
    {6, 0x8530, "PidLidFlagRequest"},  // PSETID_Common
    {6, 0x8534, "PidLidPropertyDefinitionStream"},  // PSETID_Common
    {6, 0x8535, "PidLidBilling"},  // PSETID_Common
    {6, 0x8536, "PidLidNonSendableTo"},  // PSETID_Common
    {6, 0x8537, "PidLidNonSendableCc"},  // PSETID_Common
    {6, 0x8538, "PidLidNonSendableBcc"},  // PSETID_Common
    {6, 0x8539, "PidLidCompanies"},  // PSETID_Common
    {6, 0x853A, "PidLidContacts"},  // PSETID_Common
    {6, 0x8543, "PidLidNonSendToTrackStatus"},  // PSETID_Common
    {6, 0x8544, "PidLidNonSendCcTrackStatus"},  // PSETID_Common
    {6, 0x8545, "PidLidNonSendBccTrackStatus"},  // PSETID_Common
    {6, 0x8552, "PidLidCurrentVersion"},  // PSETID_Common
    {6, 0x8554, "PidLidCurrentVersionName"},  // PSETID_Common
    {6, 0x8560, "PidLidReminderSignalTime"},  // PSETID_Common
    {6, 0x8580, "PidLidInternetAccountName"},  // PSETID_Common
    {6, 0x8581, "PidLidInternetAccountStamp"},  // PSETID_Common
    {6, 0x8582, "PidLidUseTnef"},  // PSETID_Common
    {6, 0x85A0, "PidLidToDoOrdinalDate"},  // PSETID_Common
    {6, 0x85A1, "PidLidToDoSubOrdinal"},  // PSETID_Common
    {6, 0x85A4, "PidLidToDoTitle"},  // PSETID_Common
    {6, 0x85B1, "PidLidInfoPathFormName"},  // PSETID_Common
    {6, 0x85B5, "PidLidClassified"},  // PSETID_Common
    {7, 0x8700, "PidLidLogType"},  // PSETID_Log
    {7, 0x8706, "PidLidLogStart"},  // PSETID_Log
    {7, 0x8707, "PidLidLogDuration"},  // PSETID_Log
    {7, 0x8708, "PidLidLogEnd"},  // PSETID_Log
    {7, 0x870C, "PidLidLogFlags"},  // PSETID_Log
    {7, 0x870E, "PidLidLogDocumentPrinted"},  // PSETID_Log
    {7, 0x870F, "PidLidLogDocumentSaved"},  // PSETID_Log
    {7, 0x8710, "PidLidLogDocumentRouted"},  // PSETID_Log
    {7, 0x8711, "PidLidLogDocumentPosted"},  // PSETID_Log
    {7, 0x8712, "PidLidLogTypeDesc"},  // PSETID_Log
    {8, 0x8B00, "PidLidNoteColor"},  // PSETID_Note
    {8, 0x8B02, "PidLidNoteWidth"},  // PSETID_Note
    {8, 0x8B03, "PidLidNoteHeight"},  // PSETID_Note
    {8, 0x8B04, "PidLidNoteX"},  // PSETID_Note
    {8, 0x8B05, "PidLidNoteY"},  // PSETID_Note
    {17, 0x0001, "PidLidAttendeeCriticalChange"},  // PSETID_Meeting
    {17, 0x0002, "PidLidWhere"},  // PSETID_Meeting
    {17, 0x0003, "PidLidGlobalObjectId"},  // PSETID_Meeting
    {17, 0x0004, "PidLidIsSilent"},  // PSETID_Meeting
    {17, 0x0005, "PidLidIsRecurring"},  // PSETID_Meeting
    {17, 0x0006, "PidLidRequiredAttendees"},  // PSETID_Meeting
    {17, 0x0007, "PidLidOptionalAttendees"},  // PSETID_Meeting
    {17, 0x0008, "PidLidResourceAttendees"},  // PSETID_Meeting
    {17, 0x0009, "PidLidDelegateMail"},  // PSETID_Meeting
    {17, 0x000A, "PidLidIsException"},  // PSETID_Meeting
    {17, 0x000C, "PidLidTimeZone"},  // PSETID_Meeting
    {17, 0x000D, "PidLidStartRecurrenceDate"},  // PSETID_Meeting
    {17, 0x000E, "PidLidStartRecurrenceTime"},  // PSETID_Meeting
    {17, 0x000F, "PidLidEndRecurrenceDate"},  // PSETID_Meeting
    {17, 0x0010, "PidLidEndRecurrenceTime"},  // PSETID_Meeting
    {17, 0x0011, "PidLidDayInterval"},  // PSETID_Meeting
    {17, 0x0012, "PidLidWeekInterval"},  // PSETID_Meeting
    {17, 0x0013, "PidLidMonthInterval"},  // PSETID_Meeting
    {17, 0x0014, "PidLidYearInterval"},  // PSETID_Meeting
    {17, 0x0018, "PidLidOldRecurrenceType"},  // PSETID_Meeting
    {17, 0x001A, "PidLidOwnerCriticalChange"},  // PSETID_Meeting
    {17, 0x001C, "PidLidCalendarType"},  // PSETID_Meeting
    {17, 0x0023, "PidLidCleanGlobalObjectId"},  // PSETID_Meeting
    {17, 0x0024, "PidLidAppointmentMessageClass"},  // PSETID_Meeting
    {17, 0x0026, "PidLidMeetingType"},  // PSETID_Meeting
    {17, 0x0028, "PidLidOldLocation"},  // PSETID_Meeting
    {17, 0x0029, "PidLidOldWhenStartWhole"},  // PSETID_Meeting
    {17, 0x002A, "PidLidOldWhenEndWhole"},  // PSETID_Meeting
};

// The tag as the table would hold it: Unicode text types looked up as their 8-bit form.
uint32_t canonicalTag(uint32_t tag) {
    const auto type = static_cast<uint16_t>(tag & 0xFFFF);
    if ((type & ~kMvFlag) == kUnicode) return (tag & 0xFFFF0000u) | (type & kMvFlag) | kString8;
    return tag;
}

const TnefPropNameEntry* findTag(uint32_t tag) {
    const auto* end = std::end(kPropNames);
    const auto* it = std::lower_bound(std::begin(kPropNames), end, tag,
                                      [](const TnefPropNameEntry& e, uint32_t t) { return e.tag < t; });
    return it != end && it->tag == tag ? it : nullptr;
}

bool sameNoCase(std::string_view a, const char* b) {
    size_t i = 0;
    for (; i < a.size() && b[i] != '\0'; ++i)
        if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    return i == a.size() && b[i] == '\0';
}

int setIndex(const TnefGuid& set) {
    for (size_t i = 0; i < std::size(kSetNames); ++i)
        if (kSetNames[i].guid == set) return static_cast<int>(i);
    return -1;
}

}  // namespace

std::span<const TnefPropNameEntry> tnef_PropNameTable() { return kPropNames; }
std::span<const TnefNamedPropNameEntry> tnef_NamedPropNameTable() { return kNamedNames; }

const char* tnef_PropName(uint32_t tag) {
    const TnefPropNameEntry* e = findTag(tag);
    if (e == nullptr) e = findTag(canonicalTag(tag));
    return e != nullptr ? e->name : nullptr;
}

uint32_t tnef_PropTagByName(std::string_view name) {
    for (const TnefPropNameEntry& e : kPropNames)
        if (sameNoCase(name, e.name)) return e.tag;
    return 0;
}

const char* tnef_PropTypeName(uint16_t type) {
    for (const TnefTypeNameEntry& e : kTypeNames)
        if (e.type == type) return e.name;
    return nullptr;
}

const char* tnef_PropSetName(const TnefGuid& set) {
    const int i = setIndex(set);
    return i >= 0 ? kSetNames[i].name : nullptr;
}

const char* tnef_NamedPropName(const TnefGuid& set, uint32_t lid) {
    const int i = setIndex(set);
    if (i < 0 || lid > 0xFFFF) return nullptr;
    const TnefNamedPropNameEntry key{static_cast<uint16_t>(i), static_cast<uint16_t>(lid), nullptr};
    const auto less = [](const TnefNamedPropNameEntry& a, const TnefNamedPropNameEntry& b) {
        return a.set != b.set ? a.set < b.set : a.lid < b.lid;
    };
    const auto* end = std::end(kNamedNames);
    const auto* it = std::lower_bound(std::begin(kNamedNames), end, key, less);
    return it != end && it->set == key.set && it->lid == key.lid ? it->name : nullptr;
}

std::string tnef_GuidText(const TnefGuid& g) {
    char text[40];
    std::snprintf(text, sizeof text,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", g[3], g[2],
                  g[1], g[0], g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13], g[14],
                  g[15]);
    return text;
}
