// A received message as the server builds it before it hands the TNEF part to the decoder:
//
//   records  1100 header, 10000 originator, one 15000 per recipient,
//            30500 for part 1 (the text body, content type 1167, "BDY.TXT") and
//            30500 for part 2 (the TNEF file, content type 2130)
//   parts    1 the body text, 2 the TNEF file
//
// The encoder relies on this shape: part 1 is never an attachment, part 2 is the special
// second part, attachments start at part 3.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

struct ReceivedMessage {
    std::string originator = "sender@remote.example";
    std::vector<std::string> recipients = {"user@local.example"};
    std::string bodyText;
    // The TNEF file: read from tnefPath when it is set, else these bytes.
    std::string tnefPath;
    std::string tnefBytes;
    std::string tnefName = "winmail.dat";
    uint32_t headerFlags = 0;          // 1100 at 24: priority, sensitivity, importance bits
    bool outOfOfficeTemplate = false;  // 1100 at 42, bit 0
};

// Builds and saves the message. Returns its handle; *messageFile receives an open handle on
// a copy of its message file (a data item of its own), as the decoder receives it. The
// caller closes both (and may remove the copy's item). Nothing stays behind when an escape
// passes: no half-built message, no item, no open handle.
int16_t Msg_BuildReceived(const ReceivedMessage& received, int16_t* messageFile);

#pragma GCC visibility pop
