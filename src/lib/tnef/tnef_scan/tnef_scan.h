// The scan of a TNEF file: the property-list scan behind its attachment scan records.
#pragma once

#include <cstdint>

#include "tnef/tnef.h"

// Longest file name or title value the scan keeps a copy of.
inline constexpr uint32_t TNEF_SCAN_NAME_LIMIT = 1024;

// Scans the property list at fd's position (its property count) of one attAttachment
// record, links a new record at the end of *list and returns it; null when the count could
// not be read.
TnefAttachScan* tnef_ScanProps(int fd, uint32_t wantedTag, TnefAttachScan** list);
