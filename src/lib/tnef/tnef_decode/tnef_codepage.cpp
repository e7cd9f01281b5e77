#include "tnef_decode/tnef_codepage.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tnef/platform/charset.h"
#include "tnef/platform/inet_header.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"

static_assert(TNEF_CHARSET_CAPACITY == CHARSET_NAME_CAPACITY);

namespace {

// Control bytes and every 8-bit byte: what a name may not carry unencoded in a header.
bool isUnsafeNameByte(unsigned char c) {
    return c < 0x20 || c >= 0x7F;
}

}  // namespace

char* tnef_CharsetForCodePage(uint32_t codePage, char* nameBuffer, int* recognised) {
    *recognised = 1;
    char digits[33];
    mdc_ul2str(codePage, 10, 1, digits, nullptr);
    char alias[TNEF_CHARSET_CAPACITY];
    std::snprintf(alias, sizeof alias, "MRTF%s", digits);
    if (sdl_MapSysChar(alias, nameBuffer) >= 1) return nameBuffer;

    std::snprintf(nameBuffer, TNEF_CHARSET_CAPACITY, "CP%03" PRIu32, codePage);
    if (cvc_iconv_recognised_charset(nameBuffer)) return nameBuffer;

    std::snprintf(nameBuffer, TNEF_CHARSET_CAPACITY, "%s", TNEF_FALLBACK_CHARSET);
    *recognised = 0;
    return nameBuffer;
}

void tnef_EncodeAttachName(uint32_t codePage, const char* name, dstring* out) {
    const char* text = name != nullptr ? name : "";
    char charset[TNEF_CHARSET_CAPACITY];
    int recognised = 0;
    tnef_CharsetForCodePage(codePage, charset, &recognised);
    if (recognised) {
        inet_2Subjects_toRfc2047_dstring(out, text, charset, 0, 0);
        return;
    }

    // The fallback is only a guess: encode in it only what actually reads as that set.
    dstring converted;
    int convertedLength = 0;
    int badBytes = 0;
    uint16_t status =
        cvc_CnvString(CVC_MODE_NAMED, CVC_FLAG_STRICT, text, -1, TNEF_FALLBACK_CHARSET, "UTF8",
                      &converted, &convertedLength, &badBytes, CVC_OUT_ALL);
    if (status == CVC_OK) {
        inet_2Subjects_toRfc2047_dstring(out, text, TNEF_FALLBACK_CHARSET, 0, 0);
        return;
    }
    dstring_set1(out, text);
    for (char& c : out->text)
        if (isUnsafeNameByte(static_cast<unsigned char>(c))) c = '*';
}
