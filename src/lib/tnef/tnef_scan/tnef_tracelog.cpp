#include "tnef/tnef.h"

// Opened by the scan when "~/tmp/tnefout.log" exists; read by the encoder's property
// stripping, which logs only while it is open.
FILE* TraceF = nullptr;
